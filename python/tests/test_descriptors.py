"""Galleries of descriptors through NumPy arrays, msmface.detect.Descriptor, and the estimator's
patterns= parameter. The gallery's own behaviour is tested on made-up descriptors (no model
needed); the network on a few shared real faces, skipped without the model or the faces."""

import csv
import os
import re

import numpy as np
import pytest

import msmface
from conftest import faces_of, made_up_persons

SIZE = 128


def snapshot(d):
    """Every file of the directory and its bytes (the lock file holds nothing)."""
    out = {}
    for name in sorted(os.listdir(d)):
        path = os.path.join(d, name)
        if os.path.isfile(path) and name != ".msmface.lock":
            with open(path, "rb") as f:
                out[name] = f.read()
    return out


def build_widest_constraint(g):
    """A constraint space of descriptors as wide as the persons' leading vectors span, which the
    refusal of a wider one names."""
    with pytest.raises(ValueError, match=r"expected at most (\d+)") as wide:
        g.rebuild_constraint(SIZE)
    span = int(re.search(r"expected at most (\d+)", str(wide.value)).group(1))
    g.rebuild_constraint(span)
    return span


@pytest.fixture
def three(tmp_path):
    """A new gallery of descriptors with three made-up persons, and a probe maker."""
    centres, rng = made_up_persons(3)
    d = str(tmp_path / "desc")
    g = msmface.Gallery(d, create=True, patterns="descriptor")
    for k, name in enumerate(("ann", "ben", "cat")):
        g.enrol(k + 1, name, descriptors=faces_of(centres[k], rng, 20))
    return g, d, (lambda k, n=8: faces_of(centres[k], rng, n))


def test_the_kind_is_recorded_shown_and_kept(tmp_path, three):
    g, d, _ = three
    assert g.patterns == "descriptor"
    assert msmface.Gallery(d).patterns == "descriptor"
    assert msmface.Gallery(d, patterns="descriptor").patterns == "descriptor"
    seed = msmface.Gallery(str(tmp_path / "seed"), create=True)
    assert seed.patterns == "seed"
    # Either kind asked of a directory of the other is refused with both named, and nothing
    # changes.
    before = snapshot(d)
    with pytest.raises(ValueError, match=r"(?=.*seed)(?=.*descriptor)"):
        msmface.Gallery(d, patterns="seed")
    assert snapshot(d) == before
    with pytest.raises(ValueError, match=r"(?=.*seed)(?=.*descriptor)"):
        msmface.Gallery(str(tmp_path / "seed"), patterns="descriptor")
    with pytest.raises(ValueError, match='patterns: expected "seed" or "descriptor", got "dlib"'):
        msmface.Gallery(str(tmp_path / "x"), create=True, patterns="dlib")
    assert not os.path.exists(tmp_path / "x")
    with pytest.raises(ValueError, match="patterns: expected .* got int"):
        msmface.Gallery(d, patterns=1)


def test_enrol_recognise_stream_constraint_and_remove(three):
    g, d, probe = three
    assert [(p.id, p.name) for p in g.persons] == [(1, "ann"), (2, "ben"), (3, "cat")]
    # What a person is made of is the engine's dictionary files: no face picture exists.
    assert {"ann.dck", "ann.mck", "ben.dck", "cat.mck"} <= set(os.listdir(d))
    for k in range(3):
        r = g.recognise(descriptors=probe(k))
        assert r.best.id == k + 1 and r.frames_used == 8
        assert r.matches[0].score > r.matches[1].score
        # A sequence of sequences is taken like an array.
        assert g.recognise(descriptors=probe(k).tolist()).best.id == k + 1
        assert g.recognise(descriptors=probe(k), method="single").best.id == k + 1

    # A person's own enrolment descriptors span the person's subspace: MSM scores it 1000 but
    # for the rounding of single-precision cosines.
    centres, rng = made_up_persons(1, seed=9)
    own = faces_of(centres[0], rng, 3)
    g.enrol(4, "dan", descriptors=own)
    assert g.recognise(descriptors=own).scores()[4] >= 999

    s = msmface.Stream(g, refresh_time=2)
    state = None
    for row in probe(1, 6):
        state = s.push(descriptor=row)
        assert state.face
    assert state.frames == 6 and state.ranking.best.id == 2
    # Face-less frames beyond the refresh time clear the input.
    for _ in range(2):
        state = s.push_without_face()
        assert not state.face and state.frames == 6
    assert s.push_without_face().frames == 0

    build_widest_constraint(g)
    assert g.has_constraint
    for k in range(3):
        assert g.recognise(descriptors=probe(k), method="cmsm").best.id == k + 1
    g.remove(2)
    assert [p.id for p in msmface.Gallery(d).persons] == [1, 3, 4]
    assert not [f for f in os.listdir(d) if f.startswith("ben")]
    assert g.recognise(descriptors=probe(0)).best.id == 1


def test_bad_descriptors_raise_one_line_and_leave_the_directory_as_it_was(tmp_path, three):
    g, d, probe = three
    before = snapshot(d)
    good = probe(0, 5)
    nan, zero, huge = good.copy(), good.copy(), good.astype(np.float64)
    nan[2, 7] = np.nan
    zero[3] = 0
    huge[1, 0] = 1e300  # beyond float: infinite, not a number the network gives
    bad = {
        "shape (5, 127)": good[:, :127],
        "shape (128,)": good[0],
        "an empty list": [],
        "of real numbers": np.array([["a"] * SIZE]),
    }
    for what, value in bad.items():
        with pytest.raises(ValueError, match=r"^descriptors: expected an array of shape \(n, 128\)"):
            g.enrol(9, "eve", descriptors=value)
        assert snapshot(d) == before, what
    for value in (nan, zero, huge):
        with pytest.raises(ValueError) as e:
            g.enrol(9, "eve", descriptors=value)
        assert "\n" not in str(e.value)
        assert snapshot(d) == before
        with pytest.raises(ValueError):
            g.recognise(descriptors=value)
    with pytest.raises(ValueError, match="frames, descriptors: expected one of the two"):
        g.enrol(9, "eve")
    with pytest.raises(ValueError, match="frames, descriptors: expected one of the two"):
        g.recognise(np.zeros((4, 4), np.uint8), descriptors=good)
    s = msmface.Stream(g)
    for value in (nan[2], zero[3]):
        with pytest.raises(ValueError):
            s.push(descriptor=value)
    with pytest.raises(ValueError, match=r"^descriptor: expected an array of shape \(128,\), "
                                         r"got \(2, 128\)"):
        s.push(descriptor=good[:2])
    with pytest.raises(ValueError, match="frame, descriptor: expected one of the two"):
        s.push()
    assert snapshot(d) == before

    # A gallery of the engine's own patterns takes no descriptors.
    seed = msmface.Gallery(str(tmp_path / "seed"), create=True)
    with pytest.raises(ValueError):
        seed.enrol(1, "ann", descriptors=good)
    assert seed.persons == [] and not [f for f in os.listdir(tmp_path / "seed")
                                       if f.endswith((".dck", ".mck"))]


def test_the_estimator_takes_descriptor_sets(tmp_path):
    centres, rng = made_up_persons(4, seed=11)
    X = [faces_of(centres[k], rng, 6) for k in range(4) for _ in range(3)]
    y = [k for k in range(4) for _ in range(3)]
    # A constraint space of descriptors is at most as wide as the persons' leading vectors span:
    # the default width is refused with the widest that can be built.
    with pytest.raises(ValueError, match=r"expected at most (\d+)") as wide:
        msmface.MSMClassifier(method="cmsm", patterns="descriptor").fit(X, y)
    span = int(re.search(r"expected at most (\d+)", str(wide.value)).group(1))
    assert 4 <= span <= SIZE
    for method in ("single", "msm", "cmsm"):
        clf = msmface.MSMClassifier(method=method, patterns="descriptor",
                                    constraint_dimension=span)
        assert clf.get_params()["patterns"] == "descriptor"
        clf.fit(X, y)
        assert clf.gallery_.patterns == "descriptor"
        probes = [faces_of(centres[k], rng, 6) for k in range(4)]
        assert list(clf.predict(probes)) == [0, 1, 2, 3], method
    assert msmface.MSMClassifier().patterns == "seed"
    with pytest.raises(ValueError, match="patterns: expected one of seed, descriptor, got 'x'"):
        msmface.MSMClassifier(patterns="x").fit(X, y)


# --- the network, on a few shared real faces -------------------------------------------------

have_descriptor = msmface.HAVE_DETECT and getattr(msmface.detect, "HAVE_DESCRIPTOR", False)
needs_descriptor = pytest.mark.skipif(not have_descriptor, reason="built without the descriptor")


@pytest.fixture(scope="module")
def reference_faces(shared_faces):
    """(frame, reference descriptor) of the six reference chips, persons two chips each."""
    base = os.path.dirname(os.path.dirname(os.path.abspath(shared_faces.path)))
    folder = os.path.join(base, "descriptor")
    if not os.path.exists(os.path.join(folder, "descriptors.csv")):
        pytest.skip(f"no reference descriptors in {folder}")
    with open(os.path.join(folder, "descriptors.csv")) as f:
        refs = {r["chip"]: np.array([float(r[f"d{i}"]) for i in range(SIZE)])
                for r in csv.DictReader(f)}
    with open(os.path.join(folder, "landmarks.csv")) as f:
        frames = [(r["chip"], r["frame"]) for r in csv.DictReader(f)]
    faces_dir = os.path.dirname(os.path.abspath(shared_faces.path))
    return [(msmface.read_image(os.path.join(faces_dir, frame)), refs[chip])
            for chip, frame in sorted(frames)]


@needs_descriptor
def test_a_missing_descriptor_model_names_the_command_that_installs_it(tmp_path):
    missing = str(tmp_path / "none")
    with pytest.raises(ValueError, match=re.escape(missing) + ".*tools/fetch_descriptor_model.sh"):
        msmface.detect.Descriptor(missing)
    with pytest.raises(ValueError, match="threads: expected 0 to 1024, got -1"):
        msmface.detect.Descriptor(missing, threads=-1)


def test_descriptors_of_real_faces_match_the_references(network, reference_faces):
    detector, descriptor = network
    got = []
    for frame, reference in reference_faces:
        face = detector.detect(frame)[0]
        d = descriptor.compute(frame, face)
        assert d.shape == (SIZE,) and d.dtype == np.float32
        assert abs(np.linalg.norm(d) - 1) < 1e-5
        # The landmarks found here are the references' own: the chip, and so the descriptor.
        assert float(d @ reference) / np.linalg.norm(reference) >= 0.99
        got.append(d)
    # Chips 1-2, 3-4 and 5-6 are one person each: each closer to its pair than to the others.
    for a in range(0, 6, 2):
        same = got[a] @ got[a + 1]
        others = [got[a] @ got[b] for b in range(6) if b // 2 != a // 2]
        assert same > max(others)
    # A chip of another size than the network's is refused; a face whose chip would lie outside
    # the frame too.
    with pytest.raises(ValueError):
        descriptor.compute_chip(np.zeros((149, 150), np.uint8))
    chip = descriptor.compute_chip(np.full((150, 150, 3), 128, np.uint8))
    assert chip.shape == (SIZE,)
    tiny = detector.detect(reference_faces[0][0])[0]
    with pytest.raises(ValueError):
        descriptor.compute(reference_faces[0][0][:8, :8].copy(), tiny)


def test_a_gallery_of_real_descriptors_recognises_its_persons(tmp_path, network, reference_faces):
    detector, descriptor = network
    d = str(tmp_path / "real")
    g = msmface.Gallery(d, create=True, patterns="descriptor")
    described = [descriptor.compute(f, detector.detect(f)[0]) for f, _ in reference_faces]
    for k in range(3):
        g.enrol(k + 1, f"p{k}", descriptors=np.vstack([described[2 * k]]))
    for k in range(3):
        assert g.recognise(descriptors=described[2 * k + 1][None, :]).best.id == k + 1


def test_frames_alone_are_described_by_a_face_describer(tmp_path, network, reference_faces):
    detector, descriptor = network
    g = msmface.Gallery(str(tmp_path / "frames"), create=True, patterns="descriptor")
    # Without a finder a frame alone has no face; with one, its face is described.
    frames = [f for f, _ in reference_faces]
    with pytest.raises(ValueError):
        g.enrol(1, "p0", [frames[0]])
    g.set_descriptor_finder(msmface.detect.FaceDescriber(detector, redetect_every=1))
    for k in range(3):
        g.enrol(k + 1, f"p{k}", [frames[2 * k]])
    found = msmface.detect.FaceDescriber(detector, redetect_every=1).describe(frames[1])
    assert found is not None
    face, d = found
    assert face.landmarks.shape == (68, 2)
    np.testing.assert_allclose(d, descriptor.compute(frames[1], face), atol=1e-6)
    assert msmface.detect.FaceDescriber(detector).describe(np.zeros((60, 80), np.uint8)) is None
    for k in range(3):
        s = msmface.Stream(g, describer=msmface.detect.FaceDescriber(detector))
        state = s.push(frames[2 * k + 1])
        assert state.face and state.ranking.best.id == k + 1
