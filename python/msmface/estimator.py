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
    constraint_dimension : vectors of the constraint space (method "cmsm"), 1 to 256.
    seed : seed of the jitter.

    A frame set holds (frame, points) pairs or frames alone; frames alone need the detector
    (``msmface.HAVE_DETECT``).
    """

    _estimator_type = "classifier"

    def __init__(self, method: str = "msm", enrol_frames: int = 60, probe_frames: int = 15,
                 jitter: float = 1.5, constraint_dimension: int = 200, seed: int = 0):
        self.method = method
        self.enrol_frames = enrol_frames
        self.probe_frames = probe_frames
        self.jitter = jitter
        self.constraint_dimension = constraint_dimension
        self.seed = seed

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
        sets = [self._with_points(_as_samples(s, f"X[{i}]"), f"X[{i}]") for i, s in enumerate(X)]
        self._release()
        folder = tempfile.mkdtemp(prefix="msmface-estimator-")
        self._cleanup = weakref.finalize(self, shutil.rmtree, folder, True)
        gallery = Gallery(folder + "/gallery", create=True)
        for k, label in enumerate(classes):
            samples = [x for s, l in zip(sets, labels) if l == label for x in s]
            gallery.enrol(k + 1, f"class{k + 1}", offer_frames(samples, self.enrol_frames,
                                                               self.jitter, self.seed + k))
        if self.method == "cmsm":
            gallery.rebuild_constraint(self.constraint_dimension)
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

    def _check_fitted(self) -> None:
        if not hasattr(self, "gallery_"):
            raise RuntimeError(f"this {type(self).__name__} is not fitted yet; call fit first")

    def decision_function(self, X: Sequence[Any]) -> np.ndarray:
        """Scores in thousandths, shape (len(X), len(classes_)); 0 where nothing was scored."""
        self._check_fitted()
        self._check_params()
        out = np.zeros((len(X), len(self.classes_)), np.float64)
        for i, frame_set in enumerate(X):
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
