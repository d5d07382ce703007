// msmface.detect.Watcher over <msmface/watcher.h>: every face of a video followed, recognised
// and named, frame by frame, with one stream of events.
#include "detect_boxes.h"

#ifdef MSMFACE_PYTHON_DETECT

#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/watcher.h>

#include "arrays.h"
#include "gallery_box.h"

namespace msmpy {

namespace {

// A Watcher that keeps its Detector and its gallery's box alive (the watcher refers to the
// detector's model and the gallery's state); its frames are serialised by its own lock.
struct WatcherBox {
    WatcherBox(std::shared_ptr<DetectorBox> d, std::shared_ptr<GalleryBox> g, msmface::Watcher w)
        : detector(std::move(d)), gallery(std::move(g)), watcher(std::move(w)) {}
    std::shared_ptr<DetectorBox> detector;
    std::shared_ptr<GalleryBox> gallery;
    msmface::Watcher watcher;
    std::mutex lock;
};

std::string nameText(int person, const std::string& name) {
    return person == 0 ? std::string("unknown") : "'" + name + "'";
}

}  // namespace

void bindWatcher(py::module_& d) {
    // The events and the tracks are the recognition's (msmface.TrackEvent, msmface.TrackStatus,
    // their kinds msmface.TrackEventKind) with where the face was.
    py::class_<msmface::WatchEvent, msmface::TrackEvent>(d, "WatchEvent", R"doc(
A TrackEvent of a watched video with the face's box: where it was first seen (STARTED), where it
is (IDENTIFIED), where it was last seen (ENDED). frames_seen (ENDED): the frames its face was seen
in.
)doc")
        .def_readonly("box", &msmface::WatchEvent::box)
        .def("__repr__", [](const msmface::WatchEvent& e) {
            return std::string("WatchEvent(") + enumName(e.kind) +
                   ", track=" + std::to_string(e.track) + ", frame=" + std::to_string(e.frame) +
                   ", time=" + std::to_string(e.time) + ", box=" + boxText(e.box) +
                   ", person=" + nameText(e.person, e.name) + ", score=" + std::to_string(e.score) +
                   ")";
        });

    py::class_<msmface::WatchedFace>(d, "WatchedFace", R"doc(
A face of the current frame and what its track is known as: person and name (0 and "" while
unknown), score (the track's last recognised face's score of that person, or of its first-ranked
person while unknown; 0 before any), used (this frame's face was recognised).
)doc")
        .def_readonly("track", &msmface::WatchedFace::track)
        .def_readonly("box", &msmface::WatchedFace::box)
        .def_property_readonly(
            "points", [](const msmface::WatchedFace& f) { return pointsToArray(f.points); },
            "The fourteen points, float32 (14, 2), in this frame's pixels.")
        .def_readonly("person", &msmface::WatchedFace::person)
        .def_readonly("name", &msmface::WatchedFace::name)
        .def_readonly("score", &msmface::WatchedFace::score)
        .def_readonly("used", &msmface::WatchedFace::used)
        .def_property_readonly("identified",
                               [](const msmface::WatchedFace& f) { return f.person != 0; })
        .def("__repr__", [](const msmface::WatchedFace& f) {
            return "WatchedFace(track=" + std::to_string(f.track) + ", box=" + boxText(f.box) +
                   ", person=" + nameText(f.person, f.name) + ", score=" + std::to_string(f.score) +
                   ")";
        });

    py::class_<msmface::WatchedTrack, msmface::TrackStatus>(
        d, "WatchedTrack",
        "A live track after the last frame: its TrackStatus (a track the recognition had no\n"
        "room for is unknown, with frames_seen and faces_used 0) and where it was last seen.")
        .def_readonly("box", &msmface::WatchedTrack::box)
        .def("__repr__", [](const msmface::WatchedTrack& t) {
            return "WatchedTrack(track=" + std::to_string(t.track) + ", box=" + boxText(t.box) +
                   ", person=" + nameText(t.person, t.name) + ", score=" + std::to_string(t.score) +
                   ")";
        });

    py::class_<msmface::WatchedFrame>(d, "WatchedFrame", "What Watcher.update makes of a frame.")
        .def_readonly("index", &msmface::WatchedFrame::index,
                      "Frames given to update() so far, from 0 (failed calls are not counted).")
        .def_readonly("time", &msmface::WatchedFrame::time, "The frame's time as recorded.")
        .def_readonly("change", &msmface::WatchedFrame::change,
                      "How different the frame is from the previous one, 0 to 1.")
        .def_readonly("cut", &msmface::WatchedFrame::cut,
                      "A cut, a change of size or a time break: every track ended.")
        .def_readonly("time_break", &msmface::WatchedFrame::timeBreak,
                      "The time was not finite or went backward.")
        .def_readonly("faces", &msmface::WatchedFrame::faces,
                      "The tracks seen in this frame, by track number.")
        .def_readonly("events", &msmface::WatchedFrame::events,
                      "ENDED first (by track number), then STARTED, IDENTIFIED.")
        .def("__repr__", [](const msmface::WatchedFrame& f) {
            return "WatchedFrame(index=" + std::to_string(f.index) +
                   ", time=" + std::to_string(f.time) + ", cut=" + (f.cut ? "True" : "False") +
                   ", faces=" + std::to_string(f.faces.size()) +
                   ", events=" + std::to_string(f.events.size()) + ")";
        });

    const msmface::TrackerOptions tracker;
    const msmface::TrackOptions recognition;
    py::class_<WatcherBox, std::shared_ptr<WatcherBox>> w(d, "Watcher", R"doc(
Every face of a video, named: a Tracker follows the faces, each track is recognised against the
gallery (its fourteen points for a seed gallery, the face's descriptor for a gallery of
descriptors, with the descriptor model at descriptor_model: None for $MSMFACE_DESCRIPTOR_MODEL or
the default folder), and update() hands back each frame's faces with their identities and the
events. The options are Tracker's (max_faces, detect_every, keep_unseen, cut_threshold,
min_face_side) and TrackRecognition's (method, threshold, confirm_frames, max_tracks); threads:
threads describing the faces of a frame (0: the machine's cores, at most 4). A time that is not
finite or goes backward breaks the video as a cut does. One video per Watcher; calls release the
GIL.
)doc");
    w.def(
        py::init([](std::shared_ptr<DetectorBox> detector, std::shared_ptr<GalleryBox> gallery,
                    const py::object& descriptorModel, const py::handle& threads,
                    const py::handle& method, const py::object& threshold,
                    const py::handle& confirmFrames, const py::handle& maxTracks,
                    const py::handle& maxFaces, const py::handle& detectEvery,
                    const py::handle& keepUnseen, const py::handle& cutThreshold,
                    const py::handle& minFaceSide) {
            msmface::WatcherOptions o;
            if (!descriptorModel.is_none())
                o.descriptorModel = py::str(descriptorModel).cast<std::string>();
            o.threads = intArgument(threads, "threads", 0, 16);
            o.recognition.method = methodFrom(method);
            o.recognition.threshold = optionalIntArgument(threshold, -1, "threshold");
            o.recognition.confirmFrames = intArgument(confirmFrames, "confirm_frames", 1, 1000);
            o.recognition.maxTracks = intArgument(maxTracks, "max_tracks", 1, 10000);
            o.tracker.maxFaces = intArgument(maxFaces, "max_faces", 1, 64);
            o.tracker.detectEvery = intArgument(detectEvery, "detect_every", 1, 1000);
            o.tracker.keepUnseen = intArgument(keepUnseen, "keep_unseen", 0, 1000);
            o.tracker.cutThreshold = realArgument(cutThreshold, "cut_threshold");
            o.tracker.minFaceSide = intArgument(minFaceSide, "min_face_side", 0, 16384);
            std::optional<msmface::Result<msmface::Watcher>> made;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(gallery->lock);
                made.emplace(msmface::Watcher::create(detector->detector, gallery->gallery, o));
            }
            return std::make_shared<WatcherBox>(std::move(detector), std::move(gallery),
                                                take(std::move(*made)));
        }),
        py::arg("detector"), py::arg("gallery"), py::kw_only(),
        py::arg("descriptor_model") = py::none(), py::arg("threads") = 0, py::arg("method") = "msm",
        py::arg("threshold") = py::none(), py::arg("confirm_frames") = recognition.confirmFrames,
        py::arg("max_tracks") = recognition.maxTracks, py::arg("max_faces") = tracker.maxFaces,
        py::arg("detect_every") = tracker.detectEvery, py::arg("keep_unseen") = tracker.keepUnseen,
        py::arg("cut_threshold") = tracker.cutThreshold,
        py::arg("min_face_side") = tracker.minFaceSide);
    w.def(
        "update",
        [](WatcherBox& b, const py::handle& frame, const py::handle& time,
           const std::string& format) {
            FrameArg a = frameFromArray(frame, format);
            const double seconds = realArgument(time, "time");
            std::optional<msmface::Result<msmface::WatchedFrame>> r;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.watcher.update(a.view, seconds));
            }
            return take(std::move(*r));
        },
        py::arg("frame"), py::arg("time"), py::kw_only(), py::arg("format") = "bgr",
        "The next frame (uint8 (H, W) or (H, W, 3)) at `time` seconds: a WatchedFrame. A bad\n"
        "frame raises ValueError and changes nothing.");
    w.def(
        "finish",
        [](WatcherBox& b) {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> l(b.lock);
            return b.watcher.finish();
        },
        "The video is over: the ENDED events of every live track, by number; the next frame\n"
        "starts afresh.");
    w.def_property_readonly(
        "tracks",
        [](WatcherBox& b) {
            std::lock_guard<std::mutex> l(b.lock);
            return b.watcher.tracks();
        },
        "The live tracks (WatchedTrack), by track number.");
    w.def_property_readonly("threads", [](WatcherBox& b) {
        std::lock_guard<std::mutex> l(b.lock);
        return b.watcher.threads();
    });
}

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_DETECT
