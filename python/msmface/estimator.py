"""MSMClassifier: the recognition methods as an estimator with scikit-learn's conventions.

Usable by scikit-learn's model selection (cross_val_score, GridSearchCV, clone) when it is
installed, without importing it: the conventions are followed, not inherited.
"""

from __future__ import annotations

import inspect
import shutil
import tempfile
import weakref
from typing import Any, Dict, List, Optional, Sequence

import numpy as np

from ._msmface import HAVE_DETECT, Gallery
from .frames import MAX_COPIES, offer_frames

_METHODS = ("single", "msm", "cmsm")
_PATTERNS = ("seed", "descriptor")
_DESCRIPTOR_SIZE = 128


def _detect_module() -> Any:
    """msmface.detect (present with HAVE_DETECT only)."""
    from ._msmface import detect
    return detect


def _descriptor_set(frame_set: Any) -> Optional[np.ndarray]:
    """The set as an (n, 128) array when it is one of descriptors rather than of frames."""
    if isinstance(frame_set, np.ndarray) and frame_set.ndim == 2 and \
            frame_set.shape[1] == _DESCRIPTOR_SIZE and frame_set.dtype.kind == "f":
        return frame_set
    return None


def _as_samples(frame_set: Any, where: str) -> list:
    if isinstance(frame_set, np.ndarray) or not hasattr(frame_set, "__iter__"):
        raise ValueError(f"{where}: expected a frame set (a list of frames or of "
                         f"(frame, points) pairs), got {type(frame_set).__name__}")
    samples = [s if isinstance(s, tuple) else (s, None) for s in frame_set]
    if not samples:
        raise ValueError(f"{where}: a frame set holds at least one frame")
    return samples


class MSMClassifier:
    """Recognises sets of frames (one set: the frames of one video or one camera take) by the
    single-pattern method, MSM or CMSM.

    ``fit(X, y)`` enrols one person per label from all its frame sets (fed with jittered points
    until ``enrol_frames`` are offered) into a gallery in a temporary folder;
    ``decision_function(X)`` gives every set's score (thousandths) against each class in
    ``classes_`` order; ``predict(X)`` the best class.

    Parameters
    ----------
    method : "single", "msm" or "cmsm"
    enrol_frames : frames offered per class at enrolment (a registration uses 50).
    probe_frames : frames offered per set at recognition (jittered copies when fewer).
    jitter : pixels by which the points of the copies are moved.
    constraint_dimension : vectors of the constraint space (method "cmsm"), 1 to 256; with
        descriptors at most as many as the classes' leading vectors span (fit's ValueError says
        how many), and never more than the descriptors' 128.
    seed : seed of the jitter.

    patterns : "seed" (the engine's own patterns, from the points) or "descriptor" (learned face
        descriptors: a gallery created with ``patterns="descriptor"``).

    A frame set holds (frame, points) pairs or frames alone; frames alone need the detector
    (``msmface.HAVE_DETECT``). With ``patterns="descriptor"`` a frame set is an (n, 128) float
    array of descriptors, or frames whose faces the detector finds and
    ``msmface.detect.Descriptor`` describes (points given with them are not used); each
    descriptor is taken once (no jittered copies), at most ``probe_frames`` of a set at
    recognition.
    """

    _estimator_type = "classifier"

    def __init__(self, method: str = "msm", enrol_frames: int = 60, probe_frames: int = 15,
                 jitter: float = 1.5, constraint_dimension: int = 200, seed: int = 0,
                 patterns: str = "seed"):
        self.method = method
        self.enrol_frames = enrol_frames
        self.probe_frames = probe_frames
        self.jitter = jitter
        self.constraint_dimension = constraint_dimension
        self.seed = seed
        self.patterns = patterns

    # --- scikit-learn's parameter conventions -------------------------------------------------
    @classmethod
    def _get_param_names(cls) -> List[str]:
        sig = inspect.signature(cls.__init__)
        return [p.name for p in sig.parameters.values() if p.name != "self"]

    def get_params(self, deep: bool = True) -> Dict[str, Any]:
        """The constructor's parameters by name."""
        return {name: getattr(self, name) for name in self._get_param_names()}

    def set_params(self, **params: Any) -> "MSMClassifier":
        """Sets constructor parameters by name; returns self."""
        valid = self._get_param_names()
        for name, value in params.items():
            if name not in valid:
                raise ValueError(f"Invalid parameter {name!r} for estimator {self!r}; "
                                 f"valid parameters: {', '.join(valid)}")
            setattr(self, name, value)
        return self

    def __repr__(self) -> str:
        args = ", ".join(f"{k}={v!r}" for k, v in self.get_params().items())
        return f"{type(self).__name__}({args})"

    # --- fitting and prediction ---------------------------------------------------------------
    def _check_params(self) -> None:
        if self.method not in _METHODS:
            raise ValueError(f"method: expected one of {', '.join(_METHODS)}, got {self.method!r}")
        if self.patterns not in _PATTERNS:
            raise ValueError(f"patterns: expected one of {', '.join(_PATTERNS)}, "
                             f"got {self.patterns!r}")
        # Frames are offered as jittered copies: beyond the copies jitter makes, a few frames
        # would become a list larger than memory.
        for name, most in (("enrol_frames", MAX_COPIES), ("probe_frames", MAX_COPIES),
                           ("constraint_dimension", 256)):
            value = getattr(self, name)
            if isinstance(value, bool) or not isinstance(value, (int, np.integer)) or \
                    not 1 <= value <= most:
                raise ValueError(f"{name}: expected an integer from 1 to {most}, got {value!r}")

    def fit(self, X: Sequence[Any], y: Sequence[Any]) -> "MSMClassifier":
        """Enrols one person per distinct label of y from its frame sets in X."""
        self._check_params()
        if len(X) != len(y):
            raise ValueError(f"X and y must have the same length, got len(X)={len(X)}, "
                             f"len(y)={len(y)}")
        labels = np.asarray(y)
        classes = np.unique(labels)
        if len(classes) < 1:
            raise ValueError("y: expected at least one label")
        if self.method == "cmsm" and len(classes) < 2:
            raise ValueError("method 'cmsm' needs at least two classes")
        describing = self.patterns == "descriptor"
        sets = [self._described(s, f"X[{i}]") if describing else
                self._with_points(_as_samples(s, f"X[{i}]"), f"X[{i}]") for i, s in enumerate(X)]
        self._release()
        folder = tempfile.mkdtemp(prefix="msmface-estimator-")
        self._cleanup = weakref.finalize(self, shutil.rmtree, folder, True)
        gallery = Gallery(folder + "/gallery", create=True, patterns=self.patterns)
        for k, label in enumerate(classes):
            if describing:
                gallery.enrol(k + 1, f"class{k + 1}", descriptors=np.vstack(
                    [s for s, l in zip(sets, labels) if l == label]))
                continue
            samples = [x for s, l in zip(sets, labels) if l == label for x in s]
            gallery.enrol(k + 1, f"class{k + 1}", offer_frames(samples, self.enrol_frames,
                                                               self.jitter, self.seed + k))
        if self.method == "cmsm":
            # A space of descriptors has 128 dimensions: no more constraint vectors than that.
            most = _DESCRIPTOR_SIZE if describing else self.constraint_dimension
            gallery.rebuild_constraint(min(self.constraint_dimension, most))
        self.classes_ = classes
        self.n_features_in_ = None
        self.gallery_ = gallery
        return self

    def _with_points(self, samples: list, where: str, required: bool = True) -> list:
        """The samples with points: frames given alone are searched once by the detector (and
        then jittered like the others); frames in which it finds no face are left out."""
        if all(p is not None for _, p in samples):
            return samples
        if not HAVE_DETECT:
            raise ValueError(f"{where}: frames without points need the detector, which this "
                             "build lacks (msmface.HAVE_DETECT is False)")
        if getattr(self, "_detector", None) is None:
            from ._msmface import detect
            self._detector = detect.Detector()
        out = []
        for frame, points in samples:
            if points is None:
                faces = self._detector.detect(frame)
                if not faces:
                    continue
                points = faces[0].points
            out.append((frame, points))
        if not out and required:
            raise ValueError(f"{where}: the detector found no face in any frame of the set")
        return out

    def _described(self, frame_set: Any, where: str, required: bool = True) -> np.ndarray:
        """The set's descriptors, (n, 128): given as such, or of the faces the detector finds in
        its frames (frames without a describable face are left out)."""
        given = _descriptor_set(frame_set)
        if given is not None:
            if len(given) == 0 and required:
                raise ValueError(f"{where}: a set of descriptors holds at least one")
            return given
        samples = _as_samples(frame_set, where)
        if not HAVE_DETECT or not getattr(_detect_module(), "HAVE_DESCRIPTOR", False):
            raise ValueError(f"{where}: frames need the detector and the face descriptor to be "
                             "described, which this build lacks; give (n, 128) descriptors")
        if getattr(self, "_detector", None) is None:
            self._detector = _detect_module().Detector()
        if getattr(self, "_descriptor", None) is None:
            self._descriptor = _detect_module().Descriptor()
        out = []
        for frame, _ in samples:
            faces = self._detector.detect(frame)
            if not faces:
                continue
            try:
                out.append(self._descriptor.compute(frame, faces[0]))
            except ValueError:
                continue  # a face too small or too close to the border for a chip
        if not out:
            if required:
                raise ValueError(f"{where}: no face that can be described in any frame of the set")
            return np.zeros((0, _DESCRIPTOR_SIZE), np.float32)
        return np.vstack(out)

    def _check_fitted(self) -> None:
        if not hasattr(self, "gallery_"):
            raise RuntimeError(f"this {type(self).__name__} is not fitted yet; call fit first")

    def decision_function(self, X: Sequence[Any]) -> np.ndarray:
        """Scores in thousandths, shape (len(X), len(classes_)); 0 where nothing was scored."""
        self._check_fitted()
        self._check_params()
        out = np.zeros((len(X), len(self.classes_)), np.float64)
        for i, frame_set in enumerate(X):
            if self.patterns == "descriptor":
                described = self._described(frame_set, f"X[{i}]", required=False)
                if len(described) == 0:
                    continue  # no face in the set: no class scores above 0
                ranking = self.gallery_.recognise(descriptors=described[:self.probe_frames],
                                                  method=self.method)
            else:
                samples = self._with_points(_as_samples(frame_set, f"X[{i}]"), f"X[{i}]",
                                            required=False)
                if not samples:
                    continue  # no face in the set: no class scores above 0
                ranking = self.gallery_.recognise(offer_frames(samples, self.probe_frames,
                                                               self.jitter, self.seed + 7919 + i),
                                                  method=self.method)
            for match in ranking.matches:
                out[i, match.id - 1] = match.score
        return out

    def predict(self, X: Sequence[Any]) -> np.ndarray:
        """The class of each frame set: the best-scoring one."""
        scores = self.decision_function(X)
        return self.classes_[np.argmax(scores, axis=1)]

    def score(self, X: Sequence[Any], y: Sequence[Any]) -> float:
        """Mean accuracy of predict(X) against y."""
        return float(np.mean(self.predict(X) == np.asarray(y)))

    def _release(self) -> None:
        cleanup = getattr(self, "_cleanup", None)
        if cleanup is not None:
            self.__dict__.pop("gallery_", None)
            cleanup()
