// msmface.TrackRecognition over <msmface/tracks.h>: the faces of numbered tracks turned into
// identities, against the gallery's one shared snapshot.
//
// A track recognition refers to its gallery's state as a Stream does: it is made under the
// gallery's lock, and its own calls take only its own lock.
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/tracks.h>

#include "arrays.h"
#include "bindings.h"
#include "gallery_box.h"

namespace msmpy {

namespace {

struct TrackRecognitionBox {
    TrackRecognitionBox(std::shared_ptr<GalleryBox> g, msmface::TrackRecognition r)
        : gallery(std::move(g)), recognition(std::move(r)) {}
    std::shared_ptr<GalleryBox> gallery;  // kept alive as long as the tracks refer to it
    msmface::TrackRecognition recognition;
    std::mutex lock;
};

using Events = msmface::Result<std::vector<msmface::TrackEvent>>;

}  // namespace

void bindTracks(py::module_& m) {
    py::enum_<msmface::TrackEventKind>(m, "TrackEventKind", "What happened to a track.")
        .value("STARTED", msmface::TrackEventKind::Started,
               "The first observation of a track number (or of one that had ended).")
        .value("IDENTIFIED", msmface::TrackEventKind::Identified,
               "The track was named a person; it keeps that person until it ends.")
        .value("ENDED", msmface::TrackEventKind::Ended,
               "end() or end_all(): the track is gone, its number free again.");

    py::class_<msmface::TrackEvent>(m, "TrackEvent", R"doc(
What happened to a track. frame and time: of the call that caused a STARTED or IDENTIFIED event;
of the track's last observation for ENDED. person, name: the person named (IDENTIFIED), the person
the track was identified as (ENDED; 0 and "" when it never was). score: the person's score at that
frame (IDENTIFIED); the best score the track reached (ENDED). frames_seen, faces_used (ENDED): the
frames the track was observed at, and those whose face was recognised. Other fields hold 0 or "".
)doc")
        .def_readonly("kind", &msmface::TrackEvent::kind)
        .def_readonly("track", &msmface::TrackEvent::track)
        .def_readonly("frame", &msmface::TrackEvent::frame)
        .def_readonly("time", &msmface::TrackEvent::time, "Seconds, as the host gave them.")
        .def_readonly("person", &msmface::TrackEvent::person)
        .def_readonly("name", &msmface::TrackEvent::name)
        .def_readonly("score", &msmface::TrackEvent::score, "Thousandths, 0 .. 1000.")
        .def_readonly("frames_seen", &msmface::TrackEvent::framesSeen)
        .def_readonly("faces_used", &msmface::TrackEvent::facesUsed)
        .def("__repr__", [](const msmface::TrackEvent& e) {
            return "TrackEvent(" + enumName(e.kind) + ", track=" + std::to_string(e.track) +
                   ", frame=" + std::to_string(e.frame) + ", time=" + std::to_string(e.time) +
                   ", person=" + std::to_string(e.person) + ", name='" + e.name +
                   "', score=" + std::to_string(e.score) + ")";
        });

    py::class_<msmface::TrackStatus>(m, "TrackStatus", R"doc(
A live track as it stands after its last observation: person and name are 0 and "" while it is
unknown; score is the last recognised face's score of that person (identified) or of its
first-ranked person (unknown), 0 before any face.
)doc")
        .def_readonly("track", &msmface::TrackStatus::track)
        .def_readonly("first_frame", &msmface::TrackStatus::firstFrame)
        .def_readonly("last_frame", &msmface::TrackStatus::lastFrame)
        .def_readonly("first_time", &msmface::TrackStatus::firstTime)
        .def_readonly("last_time", &msmface::TrackStatus::lastTime)
        .def_readonly("frames_seen", &msmface::TrackStatus::framesSeen)
        .def_readonly("faces_used", &msmface::TrackStatus::facesUsed)
        .def_readonly("person", &msmface::TrackStatus::person)
        .def_readonly("name", &msmface::TrackStatus::name)
        .def_readonly("score", &msmface::TrackStatus::score)
        .def_property_readonly(
            "identified", [](const msmface::TrackStatus& s) { return s.person != 0; },
            "True once the track was named a person.")
        .def("__repr__", [](const msmface::TrackStatus& s) {
            return "TrackStatus(track=" + std::to_string(s.track) +
                   ", frames_seen=" + std::to_string(s.framesSeen) +
                   ", person=" + std::to_string(s.person) + ", name='" + s.name +
                   "', score=" + std::to_string(s.score) + ")";
        });

    py::class_<TrackRecognitionBox, std::shared_ptr<TrackRecognitionBox>> r(m, "TrackRecognition",
                                                                            R"doc(
Recognition of many faces at once: every track (a face a tracker follows through a video) gathers
its own input as a Stream does for one face, against the gallery's one shared copy of the
persons' dictionaries (starting a track reads no file and copies no dictionary).

A track is named a person only when the same person ranks first, strictly above the threshold,
at confirm_frames faces in a row; once named it keeps that person until it ends, so a track never
carries one person's name and then another's.

Within a track the frame must rise and the time must not fall; track numbers are 0 or more; a new
track beyond max_tracks, a pattern of the other kind than the gallery's, or a time that is not
finite raise ValueError with one line naming the track, and change no track. Calls release the
GIL; one thread at a time per TrackRecognition (calls from several threads are serialised).
)doc");
    r.def(py::init([](std::shared_ptr<GalleryBox> gallery, const py::handle& method,
                      const py::object& threshold, const py::handle& confirmFrames,
                      const py::handle& maxTracks) {
              msmface::TrackOptions o;
              o.method = methodFrom(method);
              o.threshold = optionalIntArgument(threshold, -1, "threshold");
              o.confirmFrames = intArgument(confirmFrames, "confirm_frames", 1, 1000);
              o.maxTracks = intArgument(maxTracks, "max_tracks", 1, 10000);
              std::optional<msmface::Result<msmface::TrackRecognition>> made;
              {
                  py::gil_scoped_release unlocked;
                  std::unique_lock<std::shared_mutex> l(gallery->lock);
                  made.emplace(msmface::TrackRecognition::create(gallery->gallery, o));
              }
              return std::make_shared<TrackRecognitionBox>(gallery, take(std::move(*made)));
          }),
          py::arg("gallery"), py::kw_only(), py::arg("method") = "msm",
          py::arg("threshold") = py::none(),
          py::arg("confirm_frames") = msmface::TrackOptions{}.confirmFrames,
          py::arg("max_tracks") = msmface::TrackOptions{}.maxTracks,
          "Tracks recognised against gallery. method: 'single', 'msm' or 'cmsm' (the Cmsm\n"
          "methods need the gallery's constraint space); threshold: None (or -1) for the\n"
          "gallery's stored one; confirm_frames: 1 .. 1000; max_tracks: live tracks at once,\n"
          "1 .. 10000.");
    r.def(
        "observe",
        [](TrackRecognitionBox& b, const py::handle& track, const py::handle& frame,
           const py::handle& time, const py::handle& image, const py::handle& points,
           const py::handle& descriptor, const std::string& format) {
            const int64_t t = int64Argument(track, "track");
            const int64_t f = int64Argument(frame, "frame");
            const double s = realArgument(time, "time");
            std::optional<Events> r;
            if (!descriptor.is_none()) {
                if (!image.is_none() || !points.is_none())
                    raiseValueError(
                        "image, points, descriptor: expected a descriptor alone or an image with "
                        "its points");
                const msmface::FaceDescriptor d = descriptorFromArray(descriptor);
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.recognition.observe(t, f, s, d));
            } else {
                if (image.is_none() || points.is_none())
                    raiseValueError(
                        "image, points, descriptor: expected an image with its points, or a "
                        "descriptor");
                FrameArg a = frameFromArray(image, format, "image");
                const msmface::FacePoints p = pointsFromArray(points);
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.recognition.observe(t, f, s, a.view, p));
            }
            return take(std::move(*r));
        },
        py::arg("track"), py::arg("frame"), py::arg("time"), py::kw_only(),
        py::arg("image") = py::none(), py::arg("points") = py::none(),
        py::arg("descriptor") = py::none(), py::arg("format") = "bgr",
        "Track `track` seen at frame `frame` (time in seconds) with a face: in a seed gallery\n"
        "image= (the frame, uint8 (H, W) or (H, W, 3)) and points= (the face's (14, 2)); in a\n"
        "gallery of descriptors descriptor= (128,). A number that is not live starts a new track\n"
        "(STARTED first; numbers may be reused after end()). Returns the call's events: STARTED,\n"
        "IDENTIFIED, or none.");
    r.def(
        "observe_without_face",
        [](TrackRecognitionBox& b, const py::handle& track, const py::handle& frame,
           const py::handle& time) {
            const int64_t t = int64Argument(track, "track");
            const int64_t f = int64Argument(frame, "frame");
            const double s = realArgument(time, "time");
            std::optional<Events> r;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.recognition.observeWithoutFace(t, f, s));
            }
            return take(std::move(*r));
        },
        py::arg("track"), py::arg("frame"), py::arg("time"),
        "The track was followed at this frame but its face could not be used: counted in\n"
        "frames_seen; it neither adds to nor breaks a run of agreeing faces.");
    r.def(
        "end",
        [](TrackRecognitionBox& b, const py::handle& track) {
            const int64_t t = int64Argument(track, "track");
            std::optional<msmface::Result<msmface::TrackEvent>> r;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.recognition.end(t));
            }
            return take(std::move(*r));
        },
        py::arg("track"),
        "The track is gone: its ENDED event. ValueError for a number that is not live.");
    r.def(
        "end_all",
        [](TrackRecognitionBox& b) {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> l(b.lock);
            return b.recognition.endAll();
        },
        "Every live track ends (a cut, the end of a video): their ENDED events, by number.");
    r.def(
        "tracks",
        [](TrackRecognitionBox& b) {
            std::lock_guard<std::mutex> l(b.lock);
            return b.recognition.tracks();
        },
        "The live tracks (TrackStatus), in track number order.");
    r.def_property_readonly("confirm_frames", [](TrackRecognitionBox& b) {
        return b.recognition.options().confirmFrames;
    });
    r.def_property_readonly(
        "max_tracks", [](TrackRecognitionBox& b) { return b.recognition.options().maxTracks; });
    r.def_property_readonly(
        "threshold", [](TrackRecognitionBox& b) { return b.recognition.options().threshold; },
        "As given: -1 stands for the gallery's stored threshold.");
}

}  // namespace msmpy
