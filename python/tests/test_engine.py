"""msmface.Engine: the engine's frame cycle, the normalised face and the pattern vectors."""

import numpy as np
import pytest

import msmface


def test_crop_returns_the_face_and_patterns_kept_in_the_ring(synth):
    e = msmface.Engine(320, 240)
    take = synth(0, 21, 3)
    for k, (frame, points) in enumerate(take):
        face, patterns = e.crop(frame, points)
        assert face.shape == (64, 64) and face.dtype == np.uint8
        assert patterns.shape == (5, 256) and patterns.dtype == np.float32
        assert np.isfinite(patterns).all() and face.std() > 5
        assert e.newest_slot == k
        np.testing.assert_array_equal(e.face(k), face)
        np.testing.assert_array_equal(e.patterns(k), patterns)
    # Different frames give different faces; the same frame in another engine the same bytes.
    assert not np.array_equal(e.face(0), e.face(1))
    again = msmface.Engine(320, 240).crop(*take[1])
    np.testing.assert_array_equal(again[0], e.face(1))
    np.testing.assert_array_equal(again[1], e.patterns(1))


def test_a_frame_without_points_is_still_a_frame_of_the_legacy_cycle(synth):
    # Kept by the engine: fewer than four present points give an all-zero face whose pattern
    # vectors are not numbers, rather than a refusal.
    frame, points = synth(0, 22, 1)[0]
    for absent in (np.full((14, 2), np.nan), np.full((14, 2), -1.0), np.full((14, 2), 1e9)):
        face, patterns = msmface.Engine(320, 240).crop(frame, absent)
        assert not face.any() and np.isnan(patterns).all()
    three = np.full((14, 2), np.nan)
    three[:3] = points[:3]
    face, patterns = msmface.Engine(320, 240).crop(frame, three)
    assert not face.any()


def test_settings_read_back_and_refuse_what_the_engine_refuses():
    e = msmface.Engine(160, 120)
    assert (e.mode, e.method, e.threshold, e.eigen_count) == (0, 1, 850, 7)
    e.mode, e.method, e.threshold, e.refresh_time, e.acquisition_frames = 1, 0, 600, 3, 20
    settings = (e.mode, e.method, e.threshold, e.refresh_time, e.acquisition_frames)
    assert settings == (1, 0, 600, 3, 20)
    e.eigen_count = 5
    assert e.eigen_count == 5
    with pytest.raises(ValueError, match="eigen_count: expected 3 to 20, got 2"):
        e.eigen_count = 2
    assert e.eigen_count == 5
    with pytest.raises(ValueError, match="slot: expected 0 to 500, got 501"):
        e.face(501)
    with pytest.raises(ValueError, match=r"Engine: expected a frame size .* got 0 x 10"):
        msmface.Engine(0, 10)


def test_the_frame_cycle_ranks_the_persons_of_a_gallery(synth, two_person_gallery_dir):
    g = msmface.Gallery(two_person_gallery_dir)
    e = msmface.Engine(320, 240)
    e.load(g.directory, [(p.id, p.name) for p in g.persons])
    assert e.person_count == 2
    e.mode = 1
    codes = []
    for frame, points in synth(1, 301, 10):  # a fresh take of bob, inside number 1
        assert e.crop(frame, points) is not None
        codes.append(e.frame_process(2))
    assert codes == [13] * 10
    assert e.frames == 10
    ranked = e.results()
    assert [inside for inside, _ in ranked] == [1, 0]
    assert ranked[0][1] > ranked[1][1]
    # Face-less frames clear the input after the refresh time.
    for _ in range(e.refresh_time + 1):
        assert e.frame_process(0) == 10
    assert e.frames == 0
    with pytest.raises(OSError, match="do not load"):
        e.load(g.directory, [(9, "nobody")])


def test_crop_and_frame_process_release_the_gil(synth, gil_probe):
    e = msmface.Engine(320, 240)
    take = synth(0, 23, 40)

    def work():
        for frame, points in take:
            e.crop(frame, points)
            e.frame_process(2)

    assert gil_probe(work)
