#!/usr/bin/env python3
"""What the Python layer adds per frame to a Stream at 100 enrolled persons.

The same frames go through a Stream twice: pushed one by one from Python (msmface.Stream.push:
the array checks, the GIL release, the result object) and pushed by a C++ loop without Python
in between (the test helper module _msmface_testing, built with the tests). Both sides use the
same gallery directory, the same stream options and the same frames; passes alternate so that
drift of the machine hits both.

    PYTHONPATH=build/python:build/python/testing /usr/bin/python3 bench/bench_python_stream.py
"""

import argparse
import os
import statistics
import tempfile
import time

import numpy as np

import msmface
import _msmface_testing as testing


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--persons", type=int, default=100)
    ap.add_argument("--frames", type=int, default=100, help="frames per pass")
    ap.add_argument("--repeats", type=int, default=15, help="passes per side")
    ap.add_argument("--gallery", help="an existing gallery of synthetic persons to reuse")
    args = ap.parse_args()

    folder = args.gallery or os.path.join(tempfile.mkdtemp(prefix="msmface-bench-"), "g")
    g = msmface.Gallery(folder, create=True)
    if len(g) < args.persons:
        t0 = time.perf_counter()
        for i in range(len(g), args.persons):
            g.enrol(i + 1, f"person{i + 1}", testing.take(7, i, 1000 + i, 50))
        print(f"enrolled {args.persons} persons in {time.perf_counter() - t0:.1f} s ({folder})")
    probe = testing.take(7, 3, 555, args.frames)

    stream = msmface.Stream(g)

    def python_pass(probe=probe):
        stream.reset()
        t0, c0 = time.perf_counter(), time.thread_time()
        for frame, points in probe:
            stream.push(frame, points)
        c1, t1 = time.thread_time(), time.perf_counter()
        return (t1 - t0) / len(probe), (c1 - c0) / len(probe)

    # A sanity value: the stream must have recognised the probe's person, or the timing is of
    # a wrong answer.
    stream.reset()
    for frame, points in probe:
        state = stream.push(frame, points)
    assert state.ranking.best is not None and state.ranking.best.id == 4, state

    python_pass()  # warm-up of both sides
    testing.time_stream_push(folder, probe, 1)
    py_passes, cpp_passes = [], []
    for _ in range(args.repeats):
        py_passes.append(python_pass())
        cpp_passes.extend(testing.time_stream_push(folder, probe, 1))
    print(f"persons {args.persons}, {len(probe)} frames of 320 x 240 per pass, "
          f"{args.repeats} passes each (medians)")
    # Wall time counts what other processes take from the shared cores; the thread's CPU time
    # does not, and is the steadier measure of what the Python layer adds.
    for k, clock in enumerate(("wall clock", "thread CPU")):
        py = statistics.median(p[k] for p in py_passes)
        cpp = statistics.median(c[k] for c in cpp_passes)
        # Passes alternate: each Python pass has a C++ neighbour that ran under the same load.
        paired = statistics.median(p[k] - c[k] for p, c in zip(py_passes, cpp_passes))
        print(f"{clock}: C++ {cpp * 1e6:8.1f} us/frame, Python {py * 1e6:8.1f} us/frame, "
              f"overhead {(py - cpp) * 1e6:6.1f} us = {100 * (py - cpp) / cpp:5.2f} % "
              f"(paired {paired * 1e6:6.1f} us = {100 * paired / cpp:5.2f} %)")

    # The layer's own cost per call, free of the engine's noise: frames whose points are all
    # absent are face-less frames, so both sides do next to nothing but cross the layer (the
    # array and point checks, the GIL release, the state object).
    faceless = [(frame, np.full((14, 2), np.nan, np.float32)) for frame, _ in probe]
    py_fixed = min(python_pass(faceless)[1] for _ in range(args.repeats))
    cpp_fixed = min(c[1] for c in testing.time_stream_push(folder, faceless, args.repeats))
    layer = py_fixed - cpp_fixed
    frame = statistics.median(c[1] for c in cpp_passes)
    print(f"face-less frames (thread CPU, best pass): C++ {cpp_fixed * 1e6:.2f} us, "
          f"Python {py_fixed * 1e6:.2f} us: the layer adds {layer * 1e6:.2f} us per call "
          f"= {100 * layer / frame:.3f} % of a frame with a face")

if __name__ == "__main__":
    main()
