"""Frames for msmface from files: PGM/PPM images, face manifests, and jittered copies.

A registration gathers 50 normalised faces; a host with fewer frames feeds each several times
with the points moved by a pixel or two (``jitter``), the small variation a live camera gives.
"""

from __future__ import annotations

import csv
import os
from typing import Dict, Iterable, List, Optional, Sequence, Tuple

import numpy as np

Sample = Tuple[np.ndarray, Optional[np.ndarray]]

_POINT_COLUMNS = [f"{axis}{k}" for k in range(14) for axis in ("x", "y")]


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
    Pillow when it is installed. Raises OSError naming the file when it cannot be read.
    """
    path = os.fspath(path)
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError as e:
        raise OSError(f"{path}: cannot be read ({e.strerror})") from None
    if data[:2] in (b"P5", b"P6"):
        try:
            (width, height, maxval), offset = _pnm_tokens(data, 3)
        except (ValueError, IndexError):
            raise OSError(f"{path}: not a readable PGM/PPM header") from None
        channels = 3 if data[:2] == b"P6" else 1
        if maxval != 255 or width < 1 or height < 1:
            raise OSError(f"{path}: expected 8-bit samples and a positive size, "
                          f"got {width} x {height}, maximum {maxval}")
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
        with Image.open(path) as im:
            if im.mode in ("L", "1", "I;16"):
                return np.asarray(im.convert("L"), np.uint8).copy()
            return np.ascontiguousarray(np.asarray(im.convert("RGB"), np.uint8)[:, :, ::-1])
    except OSError as e:
        raise OSError(f"{path}: cannot be decoded ({e})") from None


def jitter(samples: Iterable[Sample], copies: int, pixels: float = 1.5,
           seed: int = 0) -> List[Sample]:
    """`copies` times the samples: copy 0 as they are, every further copy with each point
    moved by up to `pixels` in x and y (uniformly, deterministic in seed). Frames are shared,
    not copied. Samples without points are repeated unchanged."""
    if copies < 1:
        raise ValueError(f"copies: expected 1 or more, got {copies}")
    if not pixels >= 0:
        raise ValueError(f"pixels: expected 0 or more, got {pixels}")
    samples = [s if isinstance(s, tuple) else (s, None) for s in samples]
    rng = np.random.default_rng(seed)
    out: List[Sample] = list(samples)
    for _ in range(copies - 1):
        for frame, points in samples:
            if points is None:
                out.append((frame, None))
                continue
            p = np.asarray(points, np.float32).reshape(14, 2)
            out.append((frame, p + rng.uniform(-pixels, pixels, p.shape).astype(np.float32)))
    return out


class Manifest:
    """A face manifest: a CSV file with a header naming identity, video, image and x0, y0 ...
    x13, y13 (split, frame, width and height are kept when present); images are relative to
    the manifest's folder. Frames are read when first asked for and kept."""

    def __init__(self, path: "os.PathLike[str] | str"):
        self.path = os.fspath(path)
        self._folder = os.path.dirname(os.path.abspath(self.path))
        self._images: Dict[str, np.ndarray] = {}
        try:
            with open(self.path, newline="") as f:
                reader = csv.DictReader(f)
                missing = [c for c in ["identity", "video", "image"] + _POINT_COLUMNS
                           if c not in (reader.fieldnames or [])]
                if missing:
                    raise ValueError(f"{self.path}: the header lacks {', '.join(missing[:3])}")
                self.rows = []
                for line, row in enumerate(reader, start=2):
                    try:
                        points = np.array([float(row[c]) for c in _POINT_COLUMNS],
                                          np.float32).reshape(14, 2)
                    except (TypeError, ValueError):
                        raise ValueError(f"{self.path}: line {line}: expected 28 numbers "
                                         "x0, y0 ... x13, y13") from None
                    self.rows.append(dict(row, points=points))
        except OSError as e:
            raise OSError(f"{self.path}: cannot be read ({e.strerror})") from None

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
            if split is not None and r.get("split") != split:
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
