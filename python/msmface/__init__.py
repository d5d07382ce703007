"""msmface: face recognition by the mutual subspace method.

A ``Gallery`` keeps persons in a dictionary directory; ``Stream`` recognises one camera's
frames against it; ``Engine`` is the engine's own frame cycle for studying the method;
``msmface.detect`` (where the detector library was built, ``HAVE_DETECT``) finds faces and
their fourteen points, follows every face of a video as a track (``Tracker``) and names them
(``Watcher``, and ``watch``, an iterator over a video file or frames); ``TrackRecognition``
names the faces of a host's own tracks; ``MSMClassifier`` compares the methods with scikit-learn's conventions.
``jitter``, ``offer_frames``, ``Manifest``, ``read_points_file``, ``calibrate`` and
``normalised_face`` are the library's own, as the msmface program uses them.

Frames are NumPy uint8 arrays, (H, W) grey or (H, W, 3) colour in BGR order (pass
``format="rgb"`` for red first); points are (14, 2) arrays (x, y) in the order of
<msmface/PartsPosition.h>. Errors raise ValueError (bad arguments, unknown persons), OSError
(files, a busy directory) or RuntimeError, with the library's one-line message.
"""

from ._msmface import (
    HAVE_DETECT,
    HAVE_VIDEO,
    DescriptorFinder,
    Engine,
    FalseAcceptPoint,
    Gallery,
    Match,
    Method,
    Person,
    PointFinder,
    Ranking,
    Stream,
    StreamState,
    TrackEvent,
    TrackEventKind,
    TrackRecognition,
    TrackStatus,
    __version__,
    calibrate,
    normalised_face,
)
from .frames import Manifest, jitter, offer_frames, read_image, read_points_file, read_video
from .estimator import MSMClassifier

if HAVE_DETECT:
    import sys as _sys

    from ._msmface import detect
    from .watching import Watched, watch

    detect.watch = watch
    detect.Watched = Watched

    # So that `import msmface.detect` and `from msmface.detect import Detector` work too.
    _sys.modules[__name__ + ".detect"] = detect

__all__ = [
    "HAVE_DETECT",
    "HAVE_VIDEO",
    "DescriptorFinder",
    "Engine",
    "FalseAcceptPoint",
    "Gallery",
    "Manifest",
    "Match",
    "Method",
    "MSMClassifier",
    "Person",
    "PointFinder",
    "Ranking",
    "Stream",
    "StreamState",
    "TrackEvent",
    "TrackEventKind",
    "TrackRecognition",
    "TrackStatus",
    "__version__",
    "calibrate",
    "jitter",
    "normalised_face",
    "offer_frames",
    "read_image",
    "read_points_file",
    "read_video",
]
if HAVE_DETECT:
    __all__.append("detect")
