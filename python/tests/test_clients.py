"""What the module shares with the msmface program through the library: the jitter generator,
the frames offered, the frame lists, calibration and the normalised face. The tests that run the
program (MSMFACE_CLI, set by ctest) check that both give the same numbers for the same input."""

import os
import subprocess

import numpy as np
import pytest

import msmface

# The seed the msmface program's enrol and recognise jitter with.
PROGRAM_SEED = 20240611


def documented_shifts(seed, pixels, count):
    """The generator as <msmface/jitter.h> describes it, written again here: MT19937 seeded with
    seed; per shift two numbers a, b, u = (a + b 2^32) / 2^64, -pixels + u (2 pixels)."""
    bits = np.random.MT19937()
    bits._legacy_seeding(seed)  # the classic init_genrand(seed), as std::mt19937(seed)
    raw = bits.random_raw(2 * count).astype(np.float64)
    u = (raw[0::2] + raw[1::2] * 4294967296.0) / 18446744073709551616.0
    return u * (pixels - -pixels) + -pixels


def some_points(base):
    return (np.arange(28, dtype=np.float32).reshape(14, 2) * 3 + base).astype(np.float32)


def test_jitter_follows_the_documented_generator_whatever_the_language():
    frame = np.zeros((8, 8), np.uint8)
    samples = [(frame, some_points(10)), (frame, some_points(40))]
    out = msmface.jitter(samples, 3, 1.25, seed=77)
    assert len(out) == 6
    assert all(f is frame for f, _ in out)
    shifts = documented_shifts(77, 1.25, 2 * 2 * 28)
    for i, (_, p) in enumerate(out[2:]):
        original = samples[i % 2][1].astype(np.float64).ravel()
        expected = (original + shifts[28 * i:28 * (i + 1)]).astype(np.float32)
        np.testing.assert_array_equal(np.asarray(p).ravel(), expected)
    for (_, p), (_, q) in zip(out[:2], samples):
        np.testing.assert_array_equal(p, q)


def test_offered_frames_are_the_fewest_whole_copies_that_reach_the_number_wanted():
    frame = np.zeros((8, 8), np.uint8)
    samples = [(frame, some_points(k)) for k in range(4)] + [frame]  # the last without points
    for wanted in (1, 5, 6, 11):
        out = msmface.offer_frames(samples, wanted, 1.0, seed=9)
        assert len(out) == 5 * -(-wanted // 5)
        copies = msmface.jitter(samples, -(-wanted // 5), 1.0, seed=9)
        for (_, p), (_, q) in zip(out, copies):
            assert (p is None and q is None) or np.array_equal(p, q)
    assert out[4][1] is None and out[9][1] is None
    with pytest.raises(ValueError, match="wanted"):
        msmface.offer_frames(samples, 0)
    with pytest.raises(ValueError, match="frames"):
        msmface.offer_frames([], 5)
    with pytest.raises(ValueError, match="pixels"):
        msmface.jitter(samples, 2, -1.0)


def test_a_points_file_reads_through_the_library_and_names_its_line(tmp_path):
    rows = "# image x0 y0 ... x13 y13\n" + "".join(
        f"f{i}.pgm " + " ".join(f"{v:.2f}" for v in some_points(i).ravel()) + "\n"
        for i in range(3))
    (tmp_path / "p.txt").write_text(rows)
    read = msmface.read_points_file(tmp_path / "p.txt")
    assert [r["image"] for r in read] == ["f0.pgm", "f1.pgm", "f2.pgm"]
    assert [r["line"] for r in read] == [2, 3, 4]
    for i, r in enumerate(read):
        np.testing.assert_array_equal(r["points"], some_points(i))
    (tmp_path / "bad.txt").write_text("a.pgm 1 2 3\n")
    with pytest.raises(ValueError, match=r"bad\.txt: line 1: expected an image name and 28"):
        msmface.read_points_file(tmp_path / "bad.txt")
    with pytest.raises(OSError, match=r"missing\.txt: cannot be read"):
        msmface.read_points_file(tmp_path / "missing.txt")


def test_a_manifest_row_that_does_not_parse_names_the_file_and_line(tmp_path):
    header = "identity,video,image," + ",".join(f"x{k},y{k}" for k in range(14))
    good = "ann,v1,f.pgm," + ",".join(str(k) for k in range(28))
    (tmp_path / "m.csv").write_text(f"{header}\n{good}\n{good[:-3]},abc\n")
    with pytest.raises(ValueError, match=r"m\.csv: line 3: expected a number for y13, "
                                         r"found \"abc\""):
        msmface.Manifest(tmp_path / "m.csv")


def test_calibrate_holds_the_rate_and_no_lower_threshold_does():
    rng = np.random.default_rng(5)
    for _ in range(50):
        impostor = rng.integers(-1, 700, rng.integers(1, 300)).tolist()
        genuine = rng.integers(300, 1001, 20).tolist()
        rate = float(rng.uniform(0, 0.5))
        p = msmface.calibrate(genuine, impostor, rate)
        allowed = int(np.floor(rate * len(impostor) + 1e-9))
        above = lambda t: sum(s > t for s in impostor)
        assert above(p.threshold) <= allowed
        assert p.threshold == -1 or above(p.threshold - 1) > allowed
        assert p.false_accept == above(p.threshold) / len(impostor)
        assert p.true_accept == sum(s > p.threshold for s in genuine) / 20
    with pytest.raises(ValueError, match="rate"):
        msmface.calibrate([1], [2], 1.5)


def test_the_normalised_face_is_the_one_the_engine_crops(synth):
    (frame, points), = synth(2, 600, 1)
    face = msmface.normalised_face(frame, points)
    assert face.shape == (64, 64) and face.dtype == np.uint8 and face.max() > 0
    cropped, _ = msmface.Engine(320, 240).crop(frame, points)
    np.testing.assert_array_equal(face, cropped)
    with pytest.raises(ValueError, match="points"):
        msmface.normalised_face(frame, np.full((14, 2), np.nan))


# --- the program and the module side by side ------------------------------------------------

@pytest.fixture
def program():
    path = os.environ.get("MSMFACE_CLI")
    if not path or not os.path.exists(path):
        pytest.skip("the msmface program is not built (MSMFACE_CLI)")
    return path


def run(program, *args):
    r = subprocess.run([program, *map(str, args)], capture_output=True, text=True, timeout=600)
    assert r.returncode == 0, r.stderr
    return r.stdout


def write_take(folder, name, samples):
    """The frames as PGM files and their points file, as a user hands them to the program."""
    folder.mkdir(parents=True, exist_ok=True)
    lines = []
    for k, (frame, points) in enumerate(samples):
        image = f"{name}{k}.pgm"
        with open(folder / image, "wb") as f:
            f.write(b"P5\n%d %d\n255\n" % (frame.shape[1], frame.shape[0]) + frame.tobytes())
        lines.append(image + " " + " ".join(f"{v:.2f}" for v in np.asarray(points).ravel()))
    (folder / f"{name}.txt").write_text("\n".join(lines) + "\n")
    return folder / f"{name}.txt"


def samples_of(points_file):
    folder = points_file.parent
    return [(msmface.read_image(folder / r["image"]), r["points"])
            for r in msmface.read_points_file(points_file)]


def test_the_program_and_the_module_enrol_the_same_dictionary_for_the_same_seed(
        tmp_path, synth, program):
    points = write_take(tmp_path / "frames", "ann", synth(0, 500, 12))
    run(program, "enrol", tmp_path / "by-program", "--id", 1, "--name", "ann", "--points",
        points, "--copies", 5, "--jitter", 1.5)
    samples = samples_of(points)
    for seed, folder in ((PROGRAM_SEED, "same"), (PROGRAM_SEED + 1, "other")):
        msmface.Gallery(str(tmp_path / folder), create=True).enrol(
            1, "ann", msmface.jitter(samples, 5, 1.5, seed=seed))
    # The dictionary and the face; the covariance file stamps each matrix with the time of day.
    for ext in (".dck", ".bmp"):
        made = (tmp_path / "by-program" / ("ann" + ext)).read_bytes()
        assert made == (tmp_path / "same" / ("ann" + ext)).read_bytes(), ext
    # The comparison can tell: another seed makes another dictionary.
    assert (tmp_path / "other" / "ann.dck").read_bytes() != \
        (tmp_path / "by-program" / "ann.dck").read_bytes()


def test_calibrate_gives_what_the_program_finds_on_the_same_scores(tmp_path, synth, program):
    manifest = ["identity,video,image," + ",".join(f"x{k},y{k}" for k in range(14))]
    for person, name in enumerate(["ann", "bob", "cy"]):
        if name != "cy":
            points = write_take(tmp_path, name, synth(person, 700 + person, 10))
            run(program, "enrol", tmp_path / "dict", "--id", person + 1, "--name", name,
                "--points", points, "--copies", 5, "--jitter", 1)
        for video in range(2):
            take = synth(person, 800 + 10 * person + video, 6)
            write_take(tmp_path, f"{name}v{video}_", take)
            for k, (_, p) in enumerate(take):
                manifest.append(f"{name},{video},{name}v{video}_{k}.pgm," +
                                ",".join(f"{v:.2f}" for v in np.asarray(p).ravel()))
    (tmp_path / "m.csv").write_text("\n".join(manifest) + "\n")
    out = run(program, "calibrate", tmp_path / "dict", "--manifest", tmp_path / "m.csv",
              "--far", 0.25, "--scores", tmp_path / "s.csv")
    genuine, impostor = [], []
    for line in (tmp_path / "s.csv").read_text().splitlines()[1:]:
        _, _, _, score, own = line.split(",")
        (genuine if own == "1" else impostor).append(int(score))
    assert len(genuine) == 4 and len(impostor) == 8
    p = msmface.calibrate(genuine, impostor, 0.25)
    assert f"threshold at 25.00% false accepts: {p.threshold} " in out, out
    assert (f"false accepts {100 * p.false_accept:.2f}%, "
            f"true accepts {100 * p.true_accept:.2f}%") in out, out
    assert msmface.Gallery(str(tmp_path / "dict")).threshold == p.threshold
