"""Hostile and careless input to the Python package: interrupts, out-of-range integers, key names
that leave the directory, files that are not files, and a directory taken away under a gallery.
Every case here once crashed, hung, read outside or said the wrong thing."""

import os
import shutil
import signal
import subprocess
import sys
import textwrap
import time
import zlib

import numpy as np
import pytest

import msmface

# A call that should end at once is given this long before it counts as hung.
HANG_BOUND_S = 20


def run_python(code, *args, timeout=HANG_BOUND_S):
    """Runs code in a fresh interpreter with this one's module path; (exit code, stdout, stderr).
    A run that outlives `timeout` is killed and fails the test as a hang."""
    try:
        p = subprocess.run([sys.executable, "-c", textwrap.dedent(code), *map(str, args)],
                           capture_output=True, text=True, timeout=timeout, env=os.environ.copy())
    except subprocess.TimeoutExpired:
        pytest.fail(f"hung: still running after {timeout} s")
    return p.returncode, p.stdout, p.stderr


# --- Ctrl-C during a long call ---------------------------------------------------------------

LONG_RECOGNITION = """
    import sys
    import msmface, _msmface_testing
    g = msmface.Gallery(sys.argv[1])
    take = _msmface_testing.take(7, 0, 300, 20, 320, 240)
    frames = take * 10000  # some minutes of work if nothing stops it
    print("calling", flush=True)
    try:
        g.recognise(frames)
    except KeyboardInterrupt:
        print("interrupted", flush=True)
        sys.exit(3)
    print("finished", flush=True)
"""


def test_ctrl_c_stops_a_long_recognition_between_frames(two_person_gallery_dir):
    pytest.importorskip("_msmface_testing")
    p = subprocess.Popen([sys.executable, "-c", textwrap.dedent(LONG_RECOGNITION),
                          two_person_gallery_dir], stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True)
    try:
        assert p.stdout.readline().strip() == "calling", p.stderr.read()
        time.sleep(1.0)  # well inside the call's frames
        p.send_signal(signal.SIGINT)
        out, err = p.communicate(timeout=HANG_BOUND_S)
    except subprocess.TimeoutExpired:
        p.kill()
        p.communicate()
        pytest.fail(f"SIGINT was not honoured within {HANG_BOUND_S} s: the call ran on")
    assert p.returncode == 3, (out, err)
    assert "interrupted" in out
    # The gallery is untouched: the interrupted call changed nothing.
    assert [q.name for q in msmface.Gallery(two_person_gallery_dir).persons] == ["alice", "bob"]


# --- integers beyond C's int -----------------------------------------------------------------

def integer_calls(gallery_dir, tmp_path):
    """(argument name, call(value)) for every integer argument of the module."""
    g = msmface.Gallery(gallery_dir)
    e = msmface.Engine(320, 240)
    frame = np.zeros((240, 320), np.uint8)

    def set_attr(obj, name):
        return lambda v: setattr(obj, name, v)

    calls = [
        ("id", lambda v: g.find(v)),
        ("id", lambda v: v in g),
        ("id", lambda v: msmface.Gallery(str(tmp_path / "empty"), create=True).enrol(
            v, "carol", [frame])),
        ("id", lambda v: msmface.Gallery(str(tmp_path / "empty"), create=True).remove(v)),
        ("dimension", lambda v: msmface.Gallery(str(tmp_path / "empty"),
                                                create=True).rebuild_constraint(v)),
        ("threshold", lambda v: g.recognise([frame], threshold=v)),
        ("method", lambda v: g.recognise([frame], method=v)),
        ("threshold", set_attr(msmface.Gallery(str(tmp_path / "empty"), create=True),
                               "threshold")),
        ("threshold", lambda v: msmface.Stream(g, threshold=v)),
        ("refresh_time", lambda v: msmface.Stream(g, refresh_time=v)),
        ("method", lambda v: msmface.Stream(g, method=v)),
        ("width", lambda v: msmface.Engine(v, 240)),
        ("height", lambda v: msmface.Engine(320, v)),
        ("event", lambda v: e.frame_process(v)),
        ("slot", lambda v: e.face(v)),
        ("slot", lambda v: e.patterns(v)),
        ("ID number", lambda v: e.load(gallery_dir, [(v, "alice")])),
        ("copies", lambda v: msmface.jitter([frame], v)),
        ("enrol_frames", lambda v: msmface.MSMClassifier(enrol_frames=v).fit(
            [[frame]], ["a"])),
        ("probe_frames", lambda v: msmface.MSMClassifier(probe_frames=v).fit(
            [[frame]], ["a"])),
    ]
    for name in ("mode", "method", "threshold", "refresh_time", "acquisition_frames",
                 "eigen_count"):
        calls.append((name, set_attr(e, name)))
    if msmface.HAVE_DETECT:
        calls.append(("upsample_below_width",
                      lambda v: msmface.detect.Detector(upsample_below_width=v)))
    return calls


@pytest.mark.parametrize("value", [2**40, -2**40, 2**70])
def test_integers_beyond_c_int_raise_value_error_naming_the_argument(two_person_gallery_dir,
                                                                     tmp_path, value):
    for name, call in integer_calls(two_person_gallery_dir, tmp_path):
        with pytest.raises(ValueError) as info:
            call(value)
        assert name in str(info.value), (name, str(info.value))
        assert "\n" not in str(info.value)


def test_integer_arguments_still_take_numpy_integers(two_person_gallery_dir):
    g = msmface.Gallery(two_person_gallery_dir)
    assert g.find(np.int64(1)).name == "alice"
    assert np.int32(2) in g
    e = msmface.Engine(np.int64(320), np.uint16(240))
    e.threshold = np.int64(700)
    assert e.threshold == 700
    with pytest.raises(ValueError, match="slot: expected 0 to 500, got 501"):
        e.face(np.int64(501))
    with pytest.raises(ValueError, match="id"):
        g.find(True)


# --- key names that leave the directory ------------------------------------------------------

def test_engine_load_refuses_key_names_that_leave_the_directory(two_person_gallery_dir, tmp_path):
    # A complete person outside the gallery, reachable by "../outside/alice" from inside it.
    gallery = tmp_path / "gallery"
    outside = tmp_path / "outside"
    shutil.copytree(two_person_gallery_dir, gallery)
    outside.mkdir()
    for ext in (".dck", ".mck", ".bmp"):
        shutil.copy(os.path.join(two_person_gallery_dir, "alice" + ext), outside / ("alice" + ext))
    e = msmface.Engine(320, 240)
    for name in ["../outside/alice", "/etc/passwd", "a/b", ".hidden", "x" * 65, ""]:
        with pytest.raises(ValueError, match=r"persons\[1\]"):
            e.load(str(gallery), [(1, "alice"), (2, name)])
        assert e.person_count == 0, name
    e.load(str(gallery), [(1, "alice"), (2, "bob")])
    assert e.person_count == 2


# --- files that are not files ----------------------------------------------------------------

READ_EXPECTING_OSERROR = """
    import resource, sys
    import os
    # A reader that reads until the end of a device would take all memory: capped, so that the
    # old behaviour fails as MemoryError instead of taking the machine down. Not under the
    # address sanitizer, whose shadow memory alone reserves far more address space.
    if "libasan" not in os.environ.get("LD_PRELOAD", ""):
        resource.setrlimit(resource.RLIMIT_AS, (3 << 30, 3 << 30))
    import msmface
    what, path = sys.argv[1], sys.argv[2]
    try:
        msmface.read_image(path) if what == "image" else msmface.Manifest(path)
    except OSError as e:
        print("OSError:", e)
        sys.exit(0)
    except BaseException as e:
        print(type(e).__name__ + ":", e)
        sys.exit(4)
    print("read")
    sys.exit(5)
"""


@pytest.mark.parametrize("what", ["image", "manifest"])
def test_files_that_are_not_regular_files_are_refused_without_blocking(tmp_path, what):
    fifo = tmp_path / "pipe.pgm"
    os.mkfifo(fifo)
    huge = tmp_path / "huge.pgm"
    with open(huge, "wb") as f:
        f.write(b"P5\n8 8\n255\n")
        f.truncate(2 << 30)  # sparse: costs no disk
    cases = [(str(fifo), "pipe"), ("/dev/zero", "device"), (str(tmp_path), "folder"),
             (str(huge), "at most")]
    for path, found in cases:
        code, out, err = run_python(READ_EXPECTING_OSERROR, what, path)
        assert code == 0, (path, out, err)
        line = out.strip()
        assert path in line and found in line, line
        assert "\n" not in line


def png_declaring(width, height):
    """A PNG whose header declares width x height grey pixels and whose data holds one row."""
    def chunk(kind, body):
        return (len(body).to_bytes(4, "big") + kind + body +
                zlib.crc32(kind + body).to_bytes(4, "big"))
    header = width.to_bytes(4, "big") + height.to_bytes(4, "big") + bytes([8, 0, 0, 0, 0])
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(bytes(width + 1))) + chunk(b"IEND", b""))


def test_a_picture_declaring_more_pixels_than_a_picture_has_is_refused_before_decoding(tmp_path):
    pytest.importorskip("PIL.Image")
    (tmp_path / "ok.png").write_bytes(png_declaring(40, 1))
    assert msmface.read_image(tmp_path / "ok.png").shape == (1, 40)
    for width, height in [(10000, 10000), (20000, 1)]:
        path = tmp_path / f"{width}x{height}.png"
        path.write_bytes(png_declaring(width, height))
        with pytest.raises(OSError, match=rf"{width}x{height}\.png: expected at most 16384 pixels "
                                          rf"a side .* found {width} x {height}"):
            msmface.read_image(path)


def test_a_manifest_may_start_with_a_byte_order_mark(tmp_path):
    frame = np.arange(64, dtype=np.uint8).reshape(8, 8)
    with open(tmp_path / "f.pgm", "wb") as f:
        f.write(b"P5\n8 8\n255\n" + frame.tobytes())
    header = "identity,video,image," + ",".join(f"x{k},y{k}" for k in range(14))
    row = "ann,v1,f.pgm," + ",".join(str(k) for k in range(28))
    (tmp_path / "m.csv").write_bytes(b"\xef\xbb\xbf" + f"{header}\n{row}\n".encode())
    m = msmface.Manifest(tmp_path / "m.csv")
    assert m.identities() == ["ann"]
    (got, points), = m.samples("ann")
    assert np.array_equal(got, frame)
    assert points[13].tolist() == [26.0, 27.0]
    (tmp_path / "bad.csv").write_bytes(f"{header}\n".encode() + b"\xff\xfe\n")
    with pytest.raises(ValueError, match=r"bad\.csv: expected UTF-8 text, found byte 0xff"):
        msmface.Manifest(tmp_path / "bad.csv")


# --- the gallery's directory taken away -------------------------------------------------------

def test_a_gallery_whose_directory_is_gone_says_so(two_person_gallery_dir, tmp_path, synth):
    d = tmp_path / "faces"
    shutil.copytree(two_person_gallery_dir, d)
    g = msmface.Gallery(str(d))
    s = msmface.Stream(g)
    frames = synth(0, 200, 8)
    shutil.rmtree(d)
    with pytest.raises(OSError) as info:
        g.recognise(frames)
    message = str(info.value)
    assert str(d) in message and "no persons are enrolled" not in message, message
    with pytest.raises(OSError, match="the dictionary directory is gone"):
        g.persons
    with pytest.raises(OSError) as info:
        for frame, points in frames:
            s.push(frame, points)
    assert str(d) in str(info.value), str(info.value)


DETECTOR_ON_A_PIPE = """
    import sys
    import msmface
    try:
        msmface.detect.Detector(sys.argv[1])
    except OSError as e:
        print("OSError:", e)
        sys.exit(0)
    print("loaded")
    sys.exit(5)
"""


def test_a_detector_model_that_is_a_pipe_is_refused_without_blocking(tmp_path):
    if not msmface.HAVE_DETECT:
        pytest.skip("built without the detector")
    fifo = tmp_path / "model.dat"
    os.mkfifo(fifo)
    code, out, err = run_python(DETECTOR_ON_A_PIPE, fifo)
    assert code == 0, (out, err)
    assert str(fifo) in out


# --- one damaged dictionary -----------------------------------------------------------------

def test_a_damaged_dictionary_is_left_out_with_its_reason(two_person_gallery_dir, tmp_path, synth):
    d = tmp_path / "faces"
    shutil.copytree(two_person_gallery_dir, d)
    g = msmface.Gallery(str(d))
    first, second = g.persons
    dictionary = d / (second.name + ".dck")
    data = bytearray(dictionary.read_bytes())
    data[200:203] = b"\xff\xff\xff"
    dictionary.write_bytes(bytes(data))
    g = msmface.Gallery(str(d))
    assert [p.id for p in g.persons] == [first.id]
    (left, reason), = g.left_out
    assert left.id == second.id and str(dictionary) in reason and "\n" not in reason, reason
    # The others are still recognised, by the gallery and by a stream alike.
    ranking = g.recognise(synth(0, 200, 8))
    assert [m.id for m in ranking.matches] == [first.id]
    s = msmface.Stream(g)
    for frame, points in synth(0, 201, 4):
        state = s.push(frame, points)
    assert [m.id for m in state.ranking.matches] == [first.id]
