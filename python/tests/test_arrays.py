"""Frames and points from NumPy: what is accepted without a copy, what colour means, and the
message every bad array gets."""

import numpy as np
import pytest

import msmface
from conftest import grey_from_bgr


@pytest.fixture(scope="module")
def sample(synth):
    return synth(0, 11, 1)[0]


def crop(frame, points, **kw):
    # A fresh engine per call: the ring and the input subspace must not carry over.
    return msmface.Engine(320, 240).crop(frame, points, **kw)


BAD_FRAMES = [
    (np.zeros((4, 5)), r"frame: expected a uint8 array of shape \(H, W\) or \(H, W, 3\), "
                       r"got float64 \(4, 5\)"),
    (np.zeros((4, 5), np.int16), r"got int16 \(4, 5\)"),
    (np.zeros((4, 5), bool), r"got bool \(4, 5\)"),
    (np.zeros(20, np.uint8), r"got uint8 \(20,\)"),
    (np.zeros((4, 5, 4), np.uint8), r"got uint8 \(4, 5, 4\)"),
    (np.zeros((4, 5, 3, 1), np.uint8), r"got uint8 \(4, 5, 3, 1\)"),
    (np.zeros((1, 5), np.uint8), r"frame: expected at least 2 x 2 pixels, got shape \(1, 5\)"),
    (np.zeros((0, 0), np.uint8), r"at least 2 x 2 pixels, got shape \(0, 0\)"),
    (np.zeros((8, 8), np.uint8)[:, ::2], r"pixels of each row side by side.*strides \(8, 2\)"),
    (np.asfortranarray(np.zeros((8, 6), np.uint8)), r"strides \(1, 8\)"),
    (np.zeros((8, 8), np.uint8)[::-1], r"strides \(-8, 1\)"),
    (np.zeros((8, 8, 3), np.uint8)[:, :, ::-1], r"strides \(24, 3, -1\)"),
    ([[0, 1], [2, 3]], r"frame: expected a uint8 numpy array .* got list"),
]


@pytest.mark.parametrize("frame, message", BAD_FRAMES)
def test_bad_frames_raise_one_clear_value_error(frame, message, sample):
    with pytest.raises(ValueError, match=message):
        crop(frame, sample[1])


BAD_POINTS = [
    (np.zeros((13, 2)), r"points: expected an array of shape \(14, 2\), got \(13, 2\)"),
    (np.zeros((14, 3)), r"got \(14, 3\)"),
    (np.array(["a"] * 28), r"points: expected real numbers of shape \(14, 2\), got <U1"),
    (None, r"points: expected an array of shape \(14, 2\)"),
]


@pytest.mark.parametrize("points, message", BAD_POINTS)
def test_bad_points_raise_one_clear_value_error(points, message, sample):
    with pytest.raises(ValueError, match=message):
        crop(sample[0], points)


def test_points_take_any_real_dtype_and_the_flat_layout(sample):
    frame, points = sample
    rounded = np.round(points.astype(np.float64))
    reference = crop(frame, rounded)
    for variant in (rounded.astype(np.int32), rounded.reshape(28), rounded.tolist()):
        face, patterns = crop(frame, variant)
        np.testing.assert_array_equal(face, reference[0])
        np.testing.assert_array_equal(patterns, reference[1])


def test_a_slice_of_rows_and_columns_reads_as_its_contiguous_copy(sample):
    frame, points = sample
    big = np.zeros((300, 400), np.uint8)
    big[30:270, 50:370] = frame
    view = big[30:270, 50:370]  # row stride 400: taken without a copy
    assert not view.flags.c_contiguous
    a = crop(view, points)
    b = crop(np.ascontiguousarray(view), points)
    c = crop(frame, points)
    for x, y in ((a, b), (a, c)):
        np.testing.assert_array_equal(x[0], y[0])
        np.testing.assert_array_equal(x[1], y[1])


def test_colour_is_mixed_to_grey_in_the_stated_byte_order(sample):
    frame, points = sample
    rng = np.random.default_rng(3)
    # Channels that differ, so that a swapped order changes the grey image.
    bgr = np.stack([frame, np.roll(frame, 7, axis=1), rng.integers(0, 256, frame.shape)],
                   axis=-1).astype(np.uint8)
    grey = crop(grey_from_bgr(bgr), points)
    as_bgr = crop(bgr, points)
    as_rgb = crop(np.ascontiguousarray(bgr[..., ::-1]), points, format="rgb")
    swapped = crop(bgr, points, format="rgb")
    np.testing.assert_array_equal(as_bgr[0], grey[0])
    np.testing.assert_array_equal(as_rgb[0], grey[0])
    assert not np.array_equal(swapped[0], grey[0])
    with pytest.raises(ValueError, match=r'format: expected "bgr" or "rgb", got "bgra"'):
        crop(bgr, points, format="bgra")


def test_the_callers_arrays_are_not_written(sample):
    frame, points = sample
    frame_before, points_before = frame.copy(), points.copy()
    ro = frame.copy()
    ro.setflags(write=False)  # read-only arrays are accepted: the library only reads
    crop(ro, points)
    np.testing.assert_array_equal(frame, frame_before)
    np.testing.assert_array_equal(points, points_before)
