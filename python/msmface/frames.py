"""Frames for msmface from files: PGM/PPM images, face manifests, and jittered copies.

A registration gathers 50 normalised faces; a host with fewer frames feeds each several times
with the points moved by a pixel or two (``jitter``), the small variation a live camera gives.
"""

from __future__ import annotations

import io
import os
import stat
import warnings
from typing import Dict, Iterable, Iterator, List, Optional, Sequence, Tuple

import numpy as np

from . import _msmface

Sample = Tuple[np.ndarray, Optional[np.ndarray]]

# As the program's --copies: beyond, a few frames would become a list larger than memory.
MAX_COPIES = _msmface.MAX_JITTER_COPIES

# What the program accepts of a picture: no camera or photo comes near these, and a file or header
# beyond them is refused before its pixels cost memory.
MAX_PICTURE_FILE_BYTES = 512 * 1024 * 1024
MAX_PICTURE_SIDE = 16384
MAX_PICTURE_PIXELS = 64 * 1024 * 1024
# A manifest of a million frames is some 200 MB.
MAX_MANIFEST_BYTES = 1024 * 1024 * 1024


def _read_regular_file(path: str, limit: int) -> bytes:
    """The bytes of the regular file at path, of at most `limit` bytes. Opened without blocking
    (a FIFO would wait for a writer forever) and checked to be a regular file of bounded size
    before a byte is read (a device such as /dev/zero never ends). Raises OSError naming the file
    and what was found."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOCTTY)
    except OSError as e:
        raise OSError(e.errno, f"{path}: cannot be read ({e.strerror})") from None
    try:
        st = os.fstat(fd)
        if not stat.S_ISREG(st.st_mode):
            kind = ("a folder" if stat.S_ISDIR(st.st_mode) else
                    "a pipe" if stat.S_ISFIFO(st.st_mode) else
                    "a device" if stat.S_ISCHR(st.st_mode) or stat.S_ISBLK(st.st_mode) else
                    "a socket" if stat.S_ISSOCK(st.st_mode) else "not a file")
            raise OSError(f"{path}: expected a regular file, found {kind}")
        if st.st_size > limit:
            raise OSError(f"{path}: expected at most {limit} bytes, found {st.st_size}")
        chunks = []
        left = st.st_size
        while left > 0:
            chunk = os.read(fd, min(left, 1 << 24))
            if not chunk:
                break  # shortened while read: what is there is parsed and judged
            chunks.append(chunk)
            left -= len(chunk)
        return b"".join(chunks)
    except OSError as e:
        if e.strerror is None:
            raise
        raise OSError(e.errno, f"{path}: cannot be read ({e.strerror})") from None
    finally:
        os.close(fd)


def _pnm_tokens(data: bytes, count: int) -> Tuple[List[int], int]:
    """The first `count` header numbers of a PNM file and the offset after them."""
    values: List[int] = []
    pos = 2
    while len(values) < count:
        while pos < len(data) and data[pos : pos + 1].isspace():
            pos += 1
        if data[pos : pos + 1] == b"#":
            while pos < len(data) and data[pos : pos + 1] not in (b"\n", b"\r"):
                pos += 1
            continue
        start = pos
        while pos < len(data) and data[pos : pos + 1].isdigit():
            pos += 1
        if start == pos:
            raise ValueError("header ends early")
        values.append(int(data[start:pos]))
    return values, pos + 1  # one whitespace byte ends the header


def read_image(path: "os.PathLike[str] | str") -> np.ndarray:
    """Reads an image file as a uint8 array: (H, W) grey, or (H, W, 3) in BGR order.

    Binary PGM (P5) and PPM (P6) with 8-bit samples are read here; other formats through
    Pillow when it is installed. Raises OSError naming the file when it cannot be read, is not
    a regular file, or is larger than a picture can be.
    """
    path = os.fspath(path)
    data = _read_regular_file(path, MAX_PICTURE_FILE_BYTES)
    if data[:2] in (b"P5", b"P6"):
        try:
            (width, height, maxval), offset = _pnm_tokens(data, 3)
        except (ValueError, IndexError):
            raise OSError(f"{path}: not a readable PGM/PPM header") from None
        channels = 3 if data[:2] == b"P6" else 1
        if maxval != 255 or width < 1 or height < 1:
            raise OSError(f"{path}: expected 8-bit samples and a positive size, "
                          f"got {width} x {height}, maximum {maxval}")
        _check_picture_size(path, width, height)
        size = width * height * channels
        if len(data) - offset < size:
            raise OSError(f"{path}: expected {size} bytes of pixels, found {len(data) - offset}")
        pixels = np.frombuffer(data, np.uint8, size, offset)
        if channels == 1:
            return pixels.reshape(height, width).copy()
        return np.ascontiguousarray(pixels.reshape(height, width, 3)[:, :, ::-1])
    try:
        from PIL import Image  # optional: only for formats other than PGM/PPM
    except ImportError:
        raise OSError(f"{path}: only binary PGM/PPM are read without Pillow") from None
    try:
        # Decoded from the bytes checked above, not from the path again; the size is checked
        # here against the program's limits, before decoding, so Pillow's own warning is moot.
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", Image.DecompressionBombWarning)
            im = Image.open(io.BytesIO(data))
        with im:
            _check_picture_size(path, *im.size)
            if im.mode in ("L", "1", "I;16"):
                return np.asarray(im.convert("L"), np.uint8).copy()
            return np.ascontiguousarray(np.asarray(im.convert("RGB"), np.uint8)[:, :, ::-1])
    except OSError as e:
        raise OSError(f"{path}: cannot be decoded ({e})") from None


def _check_picture_size(path: str, width: int, height: int) -> None:
    """Refuses a picture whose header declares more than a picture can be, before decoding."""
    if width > MAX_PICTURE_SIDE or height > MAX_PICTURE_SIDE or \
            width * height > MAX_PICTURE_PIXELS:
        raise OSError(f"{path}: expected at most {MAX_PICTURE_SIDE} pixels a side and "
                      f"{MAX_PICTURE_PIXELS} in all, found {width} x {height}")


def read_video(path: "os.PathLike[str] | str") -> Iterator[Tuple[np.ndarray, float]]:
    """The frames of a video file (MP4, AVI, MKV ... as the msmface program reads them) as
    (frame, seconds) pairs: uint8 (H, W, 3) in BGR order, seconds from the video's frame rate
    (the iterator's ``rate``; 25 when the file does not say). Raises OSError naming the file when
    it does not open or has no decodable frame, or when a later frame is damaged; ValueError when
    the module was built without OpenCV's video reading (``msmface.HAVE_VIDEO``)."""
    if not _msmface.HAVE_VIDEO:
        raise ValueError(f"{os.fspath(path)}: this msmface module was built without video "
                         "reading (OpenCV's videoio); pass the frames as arrays instead")
    return _msmface._VideoReader(os.fspath(path))


def _as_pairs(samples: Iterable[Sample]) -> List[Sample]:
    return [s if isinstance(s, tuple) else (s, None) for s in samples]


def _paired(samples: List[Sample], points: list) -> List[Sample]:
    """The library's points paired again with the frames they came from (in order, repeated)."""
    n = len(samples)
    return [(samples[i % n][0], p) for i, p in enumerate(points)]


def jitter(samples: Iterable[Sample], copies: int, pixels: float = 1.5,
           seed: int = 0) -> List[Sample]:
    """`copies` times the samples: copy 0 as they are, every further copy with each point
    moved by up to `pixels` in x and y (uniformly, deterministic in seed: the library's generator,
    so the msmface program gives the same points for the same seed). Frames are shared, not
    copied. Samples without points are repeated unchanged; absent points stay absent."""
    samples = _as_pairs(samples)
    points = _msmface._jitter_points([p for _, p in samples], copies, pixels, seed)
    return _paired(samples, points)


def offer_frames(samples: Iterable[Sample], wanted: int, pixels: float = 1.5,
                 seed: int = 0) -> List[Sample]:
    """What is offered when `wanted` frames are asked of fewer: the fewest whole jittered copies
    (as ``jitter``) that reach `wanted`, so that every sample is offered equally often; never
    fewer than the samples given. The msmface program offers frames so too."""
    samples = _as_pairs(samples)
    if not samples:
        raise ValueError("frames: expected at least one frame")
    points = _msmface._offer_points([p for _, p in samples], wanted, pixels, seed)
    return _paired(samples, points)


def read_points_file(path: "os.PathLike[str] | str") -> List[dict]:
    """The rows of a points file ("image x0 y0 ... x13 y13" per line, as the program reads it):
    dicts with image (relative to the file's folder unless absolute), line and points (a (14, 2)
    float32 array). OSError when the file cannot be read; ValueError naming the file and the
    line when a row does not parse."""
    path = os.fspath(path)
    data = _read_regular_file(path, MAX_MANIFEST_BYTES)
    try:
        return _msmface._parse_points_file(data)
    except ValueError as e:
        raise ValueError(f"{path}: {e}") from None


class Manifest:
    """A face manifest: a CSV file with a header naming identity, video, image and x0, y0 ...
    x13, y13 (split, frame, width and height are kept when present); images are relative to
    the manifest's folder. Frames are read when first asked for and kept."""

    def __init__(self, path: "os.PathLike[str] | str"):
        self.path = os.fspath(path)
        self._folder = os.path.dirname(os.path.abspath(self.path))
        self._images: Dict[str, np.ndarray] = {}
        data = _read_regular_file(self.path, MAX_MANIFEST_BYTES)
        try:
            # utf-8-sig: a byte order mark (as some editors write) is not part of the first column.
            text = data.decode("utf-8-sig")
        except UnicodeDecodeError as e:
            raise ValueError(f"{self.path}: expected UTF-8 text, found byte 0x{data[e.start]:02x} "
                             f"at offset {e.start}") from None
        try:
            self.rows = _msmface._parse_manifest(text)
        except ValueError as e:
            raise ValueError(f"{self.path}: {e}") from None

    def identities(self) -> List[str]:
        """The identities in order of first appearance."""
        return list(dict.fromkeys(r["identity"] for r in self.rows))

    def videos(self, identity: str) -> List[str]:
        """The videos of one identity in order of first appearance."""
        return list(dict.fromkeys(r["video"] for r in self.rows if r["identity"] == identity))

    def samples(self, identity: str, videos: Optional[Sequence[str]] = None,
                split: Optional[str] = None) -> List[Sample]:
        """(frame, points) of one identity, optionally only of some videos or one split."""
        wanted = None if videos is None else {str(v) for v in videos}
        out = []
        for r in self.rows:
            if r["identity"] != identity:
                continue
            if wanted is not None and r["video"] not in wanted:
                continue
            if split is not None and r["split"] != split:
                continue
            out.append((self._image(r["image"]), r["points"]))
        if not out:
            raise ValueError(f"{self.path}: no frames of identity {identity!r}"
                             + (f" in videos {sorted(wanted)}" if wanted is not None else "")
                             + (f" in split {split!r}" if split is not None else ""))
        return out

    def _image(self, name: str) -> np.ndarray:
        if name not in self._images:
            path = name if os.path.isabs(name) else os.path.join(self._folder, name)
            self._images[name] = read_image(path)
        return self._images[name]
