"""Shared fixtures: synthetic persons (the generator's test module, built beside the package),
the shared real faces (skipped when absent), and a harness that proves a call releases the GIL."""

import os
import sys
import threading

import numpy as np
import pytest

import msmface

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


@pytest.fixture(scope="session")
def synth():
    """take(person, seed, count) -> [(frame, points)]: a live take of a synthetic person."""
    mod = pytest.importorskip("_msmface_testing", reason="the synthetic face module is built "
                              "with the tests only (build/python/testing)")

    def take(person, seed, count, width=320, height=240):
        return mod.take(7, person, seed, count, width, height)

    return take


@pytest.fixture(scope="session")
def shared_faces():
    """The Manifest of the shared real faces; skips when the folder is absent."""
    base = os.environ.get("MSMFACE_SHARED_DIR") or os.path.join(REPO, "..", "shared")
    path = os.path.join(base, "faces", "manifest.csv")
    if not os.path.exists(path):
        pytest.skip(f"no shared faces at {path}")
    return msmface.Manifest(path)


@pytest.fixture(scope="session")
def network():
    """(Detector, Descriptor) with the default models, loaded once; skips without them."""
    if not (msmface.HAVE_DETECT and getattr(msmface.detect, "HAVE_DESCRIPTOR", False)):
        pytest.skip("built without the detector or the descriptor")
    try:
        return msmface.detect.Detector(), msmface.detect.Descriptor()
    except (ValueError, OSError) as e:
        pytest.skip(f"no model: {e}")


@pytest.fixture(scope="session")
def two_person_gallery_dir(tmp_path_factory, synth):
    """A gallery of two synthetic persons (ids 1 and 2), made once; tests copy or only read it."""
    d = str(tmp_path_factory.mktemp("gallery2") / "faces")
    g = msmface.Gallery(d, create=True)
    g.enrol(1, "alice", synth(0, 100, 50))
    g.enrol(2, "bob", synth(1, 101, 50))
    return d


def runs_while_gil_released(call):
    """True when the calling thread runs Python code while `call` is inside the library on
    another thread.

    With forced switching practically disabled (a switch interval of an hour), a thread that
    holds the GIL keeps it until it gives it up on its own. The worker sets `started` and goes
    straight into `call`; this thread, woken by `started`, can only run before the worker's
    `returned = True` if the library let go of the GIL during the call.
    """
    state = {"returned": False, "error": None}
    started = threading.Event()

    def worker():
        try:
            started.set()
            call()
        except BaseException as e:  # reported below, in the test's thread
            state["error"] = e
        state["returned"] = True

    old = sys.getswitchinterval()
    sys.setswitchinterval(3600.0)
    try:
        t = threading.Thread(target=worker)
        t.start()
        assert started.wait(60), "worker did not start"
        seen_inside = not state["returned"]
        t.join(120)
        assert not t.is_alive(), "worker did not finish"
    finally:
        sys.setswitchinterval(old)
    if state["error"] is not None:
        raise state["error"]
    return seen_inside


@pytest.fixture
def gil_probe():
    return runs_while_gil_released


def made_up_persons(count, seed=5):
    """One random unit direction of descriptor space per person: its faces are that direction
    plus small noise. Returns the directions (count, 128) and the generator that drew them."""
    rng = np.random.default_rng(seed)
    centres = rng.normal(size=(count, 128))
    return centres / np.linalg.norm(centres, axis=1, keepdims=True), rng


def faces_of(centre, rng, n, noise=0.15):
    """n made-up descriptors (float32 (n, 128)) of the person whose direction is centre."""
    return (centre + noise / np.sqrt(128) * rng.normal(size=(n, 128))).astype(np.float32)


def grey_from_bgr(frame):
    """The library's mix of colour to grey, (R*299 + G*587 + B*114) / 1000 truncated."""
    b, g, r = (frame[..., k].astype(np.int64) for k in range(3))
    return ((r * 299 + g * 587 + b * 114) // 1000).astype(np.uint8)
