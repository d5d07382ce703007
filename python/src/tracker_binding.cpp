// msmface.detect.Tracker over <msmface/tracker.h>: every face of a video as a numbered track.
#include "detect_boxes.h"

#ifdef MSMFACE_PYTHON_DETECT

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/tracker.h>

#include "arrays.h"

namespace msmpy {

namespace {

// A Tracker that keeps its Detector alive. The tracker shares the detector's model, which
// several trackers may read at once; a tracker's own frames are serialised by its lock.
struct TrackerBox {
    TrackerBox(std::shared_ptr<DetectorBox> d, msmface::Tracker t)
        : detector(std::move(d)), tracker(std::move(t)) {}
    std::shared_ptr<DetectorBox> detector;
    msmface::Tracker tracker;
    std::mutex lock;
};

}  // namespace

void bindTracker(py::module_& d) {
    using Event = msmface::TrackerEvent;
    py::enum_<Event::Kind>(d, "TrackerEventKind", "What happened to a tracker's track.")
        .value("STARTED", Event::Kind::Started, "A face got a new track number.")
        .value("ENDED", Event::Kind::Ended,
               "The track's face was not seen for longer than keep_unseen frames, the picture "
               "cut to another shot, or finish() was called.");

    py::class_<Event>(d, "TrackerEvent", R"doc(
A track started or ended. frame: the frame of the event (STARTED: the track's first frame).
box: where the face started (STARTED) or was last seen (ENDED). frames_seen and last_frame
(ENDED): the frames the face was seen in, and the last of them.
)doc")
        .def_readonly("kind", &Event::kind)
        .def_readonly("track", &Event::track)
        .def_readonly("frame", &Event::frame)
        .def_readonly("box", &Event::box)
        .def_readonly("frames_seen", &Event::framesSeen)
        .def_readonly("last_frame", &Event::lastFrame)
        .def("__repr__", [](const Event& e) {
            return "TrackerEvent(" + enumName(e.kind) + ", track=" + std::to_string(e.track) +
                   ", frame=" + std::to_string(e.frame) + ", box=" + boxText(e.box) + ")";
        });

    py::class_<msmface::TrackedFace>(d, "TrackedFace", "A face of the current frame.")
        .def_readonly("track", &msmface::TrackedFace::track,
                      "From 1 upward; never given to another face within one Tracker.")
        .def_readonly("face", &msmface::TrackedFace::face,
                      "Box, score, the 68 landmarks and the fourteen points, in this frame.")
        .def_readonly("detected", &msmface::TrackedFace::detected,
                      "Found by this frame's whole-frame search (else followed near its last "
                      "place).")
        .def("__repr__", [](const msmface::TrackedFace& f) {
            return "TrackedFace(track=" + std::to_string(f.track) + ", box=" + boxText(f.face.box) +
                   ", detected=" + (f.detected ? "True" : "False") + ")";
        });

    py::class_<msmface::TrackerFrame>(d, "TrackerFrame", "What Tracker.update makes of a frame.")
        .def_readonly("index", &msmface::TrackerFrame::index,
                      "Frames given to update() so far, from 0 (failed calls are not counted).")
        .def_readonly("change", &msmface::TrackerFrame::change,
                      "How different the frame is from the previous one, 0 (alike) to 1.")
        .def_readonly("cut", &msmface::TrackerFrame::cut,
                      "A cut to another shot (or another frame size): every track ended.")
        .def_readonly("faces", &msmface::TrackerFrame::faces,
                      "The tracks seen in this frame, by track number (a new list at each "
                      "access).")
        .def_readonly("events", &msmface::TrackerFrame::events,
                      "ENDED first (by track number), then STARTED.")
        .def("__repr__", [](const msmface::TrackerFrame& f) {
            return "TrackerFrame(index=" + std::to_string(f.index) +
                   ", cut=" + (f.cut ? "True" : "False") +
                   ", faces=" + std::to_string(f.faces.size()) +
                   ", events=" + std::to_string(f.events.size()) + ")";
        });

    const msmface::TrackerOptions defaults;
    py::class_<TrackerBox, std::shared_ptr<TrackerBox>> t(d, "Tracker", R"doc(
Every face of a video as a track of its own: each face is detected, given a track number that
stays with it while it is in the picture, followed between detections, and its track ends when
it has not been seen for keep_unseen frames or when the picture cuts to another shot.

max_faces: faces fitted and followed per frame, the largest first (1 .. 64). detect_every: frames
between whole-frame searches while every track is seen (1 .. 1000). keep_unseen: frames a track
lives without its face (0 .. 1000). cut_threshold: a frame whose change from the previous one is
above this is a cut (1 or more: only a change of size is). min_face_side: smaller faces are not
tracked (0 .. 16384). An option out of its range raises ValueError naming it. One video per
Tracker; calls release the GIL, and several Trackers of one Detector may run on several threads.
)doc");
    t.def(py::init([](std::shared_ptr<DetectorBox> detector, const py::handle& maxFaces,
                      const py::handle& detectEvery, const py::handle& keepUnseen,
                      const py::handle& cutThreshold, const py::handle& minFaceSide) {
              msmface::TrackerOptions o;
              o.maxFaces = intArgument(maxFaces, "max_faces", 1, 64);
              o.detectEvery = intArgument(detectEvery, "detect_every", 1, 1000);
              o.keepUnseen = intArgument(keepUnseen, "keep_unseen", 0, 1000);
              o.cutThreshold = realArgument(cutThreshold, "cut_threshold");
              o.minFaceSide = intArgument(minFaceSide, "min_face_side", 0, 16384);
              auto made = msmface::Tracker::create(detector->detector, o);
              return std::make_shared<TrackerBox>(std::move(detector), take(std::move(made)));
          }),
          py::arg("detector"), py::kw_only(), py::arg("max_faces") = defaults.maxFaces,
          py::arg("detect_every") = defaults.detectEvery,
          py::arg("keep_unseen") = defaults.keepUnseen,
          py::arg("cut_threshold") = defaults.cutThreshold,
          py::arg("min_face_side") = defaults.minFaceSide);
    t.def(
        "update",
        [](TrackerBox& b, const py::handle& frame, const std::string& format) {
            FrameArg a = frameFromArray(frame, format);
            std::optional<msmface::Result<msmface::TrackerFrame>> r;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.tracker.update(a.view));
            }
            return take(std::move(*r));
        },
        py::arg("frame"), py::kw_only(), py::arg("format") = "bgr",
        "The next frame of the video (uint8 (H, W) or (H, W, 3)): a TrackerFrame. A frame of\n"
        "another size than the previous one is a cut. A bad frame raises ValueError and leaves\n"
        "the tracks as they were.");
    t.def(
        "finish",
        [](TrackerBox& b) {
            std::lock_guard<std::mutex> l(b.lock);
            return b.tracker.finish();
        },
        "The video is over: the ENDED events of every live track, by number; the next frame\n"
        "starts afresh (track numbers still go on upward).");
    t.def_property_readonly(
        "live_tracks",
        [](TrackerBox& b) {
            std::lock_guard<std::mutex> l(b.lock);
            return b.tracker.liveTracks();
        },
        "Tracks living now (seen in the last frame or not yet ended).");
}

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_DETECT
