"""Watching a video: every face followed, recognised against a gallery and named, one frame at a
time, as an iterator (``msmface.detect.watch``)."""

from __future__ import annotations

import math
import os
from dataclasses import dataclass, field
from typing import Any, Iterable, Iterator, List, Optional, Tuple, Union

import numpy as np

from . import _msmface
from .frames import read_video

# A video file, or frames: arrays, or (frame, seconds) pairs.
Source = Union[str, "os.PathLike[str]", Iterable[Any]]


@dataclass
class Watched:
    """One step of ``watch``: a frame of the video, or, last of all, the end of it.

    index: the frame's number from 0 (the end: the number of frames). time: its seconds (the
    end: the last frame's). events: what happened in this frame (WatchEvent: ENDED first, then
    STARTED and IDENTIFIED); at the end, the ENDED events of the tracks still alive. tracks: the
    faces seen in this frame with their track numbers, boxes, points and identities
    (WatchedFace; empty at the end). cut: the picture cut to another shot, changed size, or its
    time broke: every track ended. frame: the frame as given (None at the end). finished: True
    for the end alone.
    """

    index: int
    time: float
    events: List[Any] = field(default_factory=list)
    tracks: List[Any] = field(default_factory=list)
    cut: bool = False
    frame: Optional[np.ndarray] = field(default=None, repr=False)
    finished: bool = False


def _frames(source: Source, rate: Optional[float]) -> Iterator[Tuple[np.ndarray, float]]:
    """(frame, seconds) of every frame of the source; a video file is opened at once, so that
    one that does not open is reported by the call, not by the first step."""
    if isinstance(source, (str, bytes, os.PathLike)):
        if rate is not None:
            raise ValueError("rate: a video file's times come from its own frame rate; "
                             "expected None with a file")
        return iter(read_video(os.fsdecode(source)))
    if isinstance(source, np.ndarray) or not hasattr(source, "__iter__"):
        raise ValueError("source: expected a video file's path or an iterable of frames, got "
                         f"{type(source).__name__}")
    return _timed(source, 25.0 if rate is None else rate)


def _timed(source: Iterable[Any], rate: float) -> Iterator[Tuple[np.ndarray, float]]:
    for i, item in enumerate(source):
        if isinstance(item, np.ndarray):
            yield item, i / rate
        elif isinstance(item, (tuple, list)) and len(item) == 2:
            yield item[0], item[1]
        else:
            raise ValueError(f"source[{i}]: expected a frame array or a (frame, seconds) pair, "
                             f"got {type(item).__name__}")


def watch(source: Source, gallery: "_msmface.Gallery", *,
          detector: Optional[Any] = None, rate: Optional[float] = None, format: str = "bgr",
          **options: Any) -> Iterator[Watched]:
    """Every face of a video followed, recognised against gallery and named: an iterator of a
    ``Watched`` per frame, then one last ``Watched`` (finished=True) with the ENDED events of the
    tracks still alive when the frames ran out.

    source: a video file's path (read with ``read_video``; times from its frame rate), or any
    iterable of frames: uint8 arrays (H, W) or (H, W, 3) (their times: index / rate, rate 25 by
    default), or (frame, seconds) pairs. detector: a ``msmface.detect.Detector`` to share (None:
    one is loaded, about half a second). format: the colour order of the frames given ("bgr" or
    "rgb"; a video file's frames are BGR). options: ``msmface.detect.Watcher``'s (threshold,
    confirm_frames, method, max_faces, detect_every, keep_unseen, cut_threshold, min_face_side,
    max_tracks, descriptor_model, threads).

    A track is named only after confirm_frames agreeing faces and never renamed while it lives;
    every track ends at a cut. A time that is not finite or goes backward breaks the video as a
    cut does. Bad options, a gallery the watcher cannot serve and a video file that does not open
    raise at the call (ValueError; OSError naming the file); a bad frame raises ValueError naming
    its number when the iteration reaches it (the frames before it were yielded), and so does a
    video frame that does not decode (OSError).
    """
    detect = _msmface.detect
    if rate is not None and (isinstance(rate, bool) or not isinstance(rate, (int, float)) or
                             not math.isfinite(rate) or rate <= 0):
        raise ValueError(f"rate: expected a positive number of frames a second, got {rate!r}")
    if not isinstance(format, str) or format.lower() not in ("bgr", "rgb"):
        # Grey frames never read it: a wrong one is told at the call, not at the first colour frame.
        raise ValueError(f'format: expected "bgr" or "rgb", got {format!r}')
    frames = _frames(source, rate)
    if detector is None:
        detector = detect.Detector()
    watcher = detect.Watcher(detector, gallery, **options)
    return _steps(watcher, frames, format)


def _steps(watcher: Any, frames: Iterator[Tuple[np.ndarray, float]],
           format: str) -> Iterator[Watched]:
    last_time, count = 0.0, 0
    for count, (frame, seconds) in enumerate(frames, start=1):
        try:
            watched = watcher.update(frame, seconds, format=format)
        except ValueError as e:
            raise ValueError(f"frame {count - 1}: {e}") from None
        last_time = watched.time
        yield Watched(index=watched.index, time=watched.time, events=watched.events,
                      tracks=watched.faces, cut=watched.cut, frame=frame)
    yield Watched(index=count, time=last_time, events=watcher.finish(), finished=True)
