// msmface.detect: the detector library's Detector and Follower, where it was built.
#include "bindings.h"

#ifdef MSMFACE_PYTHON_DETECT

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/detect.h>
#ifdef MSMFACE_PYTHON_DESCRIPTOR
#include <msmface/descriptor.h>
#endif

#include "arrays.h"
#include "detect_boxes.h"

namespace msmpy {

namespace {

// A Follower that keeps its Detector alive and serialises Python threads on it.
class PyFollower : public msmface::Follower {
  public:
    PyFollower(std::shared_ptr<DetectorBox> d, const msmface::FollowerOptions& o)
        : msmface::Follower(d->detector, o), detector_(std::move(d)) {}

    bool trackLocked(const msmface::FrameView& frame, msmface::DetectedFace& out) {
        std::lock_guard<std::recursive_mutex> l(lock_);
        return track(frame, out);
    }
    bool findPoints(const msmface::FrameView& frame, msmface::FacePoints& out) override {
        std::lock_guard<std::recursive_mutex> l(lock_);
        return msmface::Follower::findPoints(frame, out);
    }
    void reset() override {
        std::lock_guard<std::recursive_mutex> l(lock_);
        msmface::Follower::reset();
    }

  private:
    std::shared_ptr<DetectorBox> detector_;
    // A stream may use the follower while a Python thread calls it directly; recursive, as the
    // follower resets itself from inside its own calls.
    std::recursive_mutex lock_;
};

py::array_t<float> landmarksArray(const std::array<float, 136>& l) {
    py::array_t<float> out({68, 2});
    std::copy(l.begin(), l.end(), out.mutable_data());
    return out;
}

#ifdef MSMFACE_PYTHON_DESCRIPTOR
// A FaceDescriber that keeps its Detector alive and serialises Python threads on it, as
// PyFollower does for the Follower.
class PyDescriber : public msmface::FaceDescriber {
  public:
    PyDescriber(std::shared_ptr<DetectorBox> d, msmface::Descriptor descriptor,
                const msmface::FollowerOptions& o)
        : msmface::FaceDescriber(d->detector, std::move(descriptor), o), detector_(std::move(d)) {}

    bool describeLocked(const msmface::FrameView& frame, msmface::DetectedFace& face,
                        std::optional<msmface::FaceDescriptor>& out) {
        std::lock_guard<std::recursive_mutex> l(lock_);
        return describe(frame, face, out);
    }
    bool findDescriptor(const msmface::FrameView& frame, msmface::FaceDescriptor& out) override {
        std::lock_guard<std::recursive_mutex> l(lock_);
        return msmface::FaceDescriber::findDescriptor(frame, out);
    }
    void reset() override {
        std::lock_guard<std::recursive_mutex> l(lock_);
        msmface::FaceDescriber::reset();
    }

  private:
    std::shared_ptr<DetectorBox> detector_;
    std::recursive_mutex lock_;
};

void bindDescriptor(py::module_& d) {
    d.attr("DESCRIPTOR_SIZE") = msmface::kDescriptorSize;
    d.attr("DESCRIPTOR_CHIP_SIDE") = msmface::kDescriptorChipSide;
    d.attr("DESCRIPTOR_MODEL_ENVIRONMENT") = msmface::kDescriptorModelEnvironment;
    d.def("default_descriptor_model_folder", &msmface::defaultDescriptorModelFolder,
          "Where the descriptor model is looked for when neither the argument nor "
          "$MSMFACE_DESCRIPTOR_MODEL names it.");
    py::class_<DescriptorBox, std::shared_ptr<DescriptorBox>>(d, "Descriptor", R"doc(
A learned face descriptor: 128 numbers per face (float32, unit length) whose cosines tell persons
apart, for galleries created with patterns="descriptor". model: the model's folder or its
manifest (None: $MSMFACE_DESCRIPTOR_MODEL, else default_descriptor_model_folder(), where
tools/fetch_descriptor_model.sh installs it). threads: OpenCV's thread count for the whole
process as loading leaves it (1: the calling thread alone; 0: untouched). A missing model raises
ValueError naming the command that installs it; a damaged one OSError. Calls release the GIL.
)doc")
        .def(py::init([](const py::object& model, const py::handle& threads) {
                 msmface::DescriptorOptions o;
                 if (!model.is_none()) o.modelPath = py::str(model).cast<std::string>();
                 o.threads = intArgument(threads, "threads", 0, 1024);
                 std::optional<msmface::Result<msmface::Descriptor>> r;
                 {
                     py::gil_scoped_release unlocked;
                     r.emplace(msmface::Descriptor::load(o));
                 }
                 return std::make_shared<DescriptorBox>(take(std::move(*r)));
             }),
             py::arg("model") = py::none(), py::kw_only(), py::arg("threads") = 1)
        .def(
            "compute",
            [](DescriptorBox& b, const py::handle& frame, const msmface::DetectedFace& face,
               const std::string& format) {
                FrameArg f = frameFromArray(frame, format);
                std::optional<msmface::Result<msmface::FaceDescriptor>> r;
                {
                    py::gil_scoped_release unlocked;
                    std::lock_guard<std::mutex> l(b.lock);
                    r.emplace(b.descriptor.compute(f.view, face));
                }
                return descriptorToArray(take(std::move(*r)));
            },
            py::arg("frame"), py::arg("face"), py::kw_only(), py::arg("format") = "bgr",
            "The descriptor (128,) of a face Detector.detect, Detector.fit or Follower.track "
            "found\n"
            "in frame. ValueError for a face too small or too close to the border for a chip.")
        .def(
            "compute_chip",
            [](DescriptorBox& b, const py::handle& chip, const std::string& format) {
                FrameArg f = frameFromArray(chip, format, "chip");
                std::optional<msmface::Result<msmface::FaceDescriptor>> r;
                {
                    py::gil_scoped_release unlocked;
                    std::lock_guard<std::mutex> l(b.lock);
                    r.emplace(b.descriptor.computeChip(f.view));
                }
                return descriptorToArray(take(std::move(*r)));
            },
            py::arg("chip"), py::kw_only(), py::arg("format") = "bgr",
            "The descriptor (128,) of a face chip already cut: 150 x 150, grey or colour.");

    py::class_<PyDescriber, msmface::DescriptorFinder, std::shared_ptr<PyDescriber>>(
        d, "FaceDescriber", R"doc(
The descriptor of the face of each frame of a video: the detector's Follower finds it, the
descriptor model (loaded here: model, threads as Descriptor's) describes it. Pass it as the
describer of a Stream (or Gallery.set_descriptor_finder) of a gallery of descriptors to push
frames alone; a face too small or too close to the border counts as no face.
)doc")
        .def(py::init([](std::shared_ptr<DetectorBox> detector, const py::object& model,
                         const py::handle& redetect, const py::handle& threads) {
                 msmface::FollowerOptions o;
                 o.redetectEvery = intArgument(redetect, "redetect_every", 1);
                 msmface::DescriptorOptions options;
                 if (!model.is_none()) options.modelPath = py::str(model).cast<std::string>();
                 options.threads = intArgument(threads, "threads", 0, 1024);
                 std::optional<msmface::Result<msmface::Descriptor>> r;
                 {
                     py::gil_scoped_release unlocked;
                     r.emplace(msmface::Descriptor::load(options));
                 }
                 return std::make_shared<PyDescriber>(std::move(detector), take(std::move(*r)), o);
             }),
             py::arg("detector"), py::arg("model") = py::none(), py::kw_only(),
             py::arg("redetect_every") = msmface::FollowerOptions{}.redetectEvery,
             py::arg("threads") = 1)
        .def(
            "describe",
            [](PyDescriber& f, const py::handle& frame, const std::string& format) -> py::object {
                FrameArg a = frameFromArray(frame, format);
                msmface::DetectedFace face;
                std::optional<msmface::FaceDescriptor> described;
                bool found = false;
                {
                    py::gil_scoped_release unlocked;
                    found = f.describeLocked(a.view, face, described);
                }
                if (!found) return py::none();
                return py::make_tuple(face, described ? py::object(descriptorToArray(*described))
                                                      : py::object(py::none()));
            },
            py::arg("frame"), py::kw_only(), py::arg("format") = "bgr",
            "(face, descriptor) of this frame, the descriptor None when the face cannot be\n"
            "described; None when there is no face.")
        .def(
            "reset", [](PyDescriber& f) { f.reset(); },
            "Forgets the previous frames (a new video).");
}
#endif

}  // namespace

bool bindDetect(py::module_& m) {
    py::module_ d = m.def_submodule("detect", "Faces and their fourteen points found in frames.");
    d.attr("DEFAULT_MODEL") = msmface::kDefaultLandmarkModel;
    d.attr("MODEL_ENVIRONMENT") = msmface::kLandmarkModelEnvironment;

    py::class_<msmface::FaceBox>(d, "FaceBox")
        .def_readonly("left", &msmface::FaceBox::left)
        .def_readonly("top", &msmface::FaceBox::top)
        .def_readonly("width", &msmface::FaceBox::width)
        .def_readonly("height", &msmface::FaceBox::height)
        .def("__iter__",
             [](const msmface::FaceBox& b) {
                 return py::iter(py::make_tuple(b.left, b.top, b.width, b.height));
             })
        .def("__repr__", [](const msmface::FaceBox& b) {
            return "FaceBox(left=" + std::to_string(b.left) + ", top=" + std::to_string(b.top) +
                   ", width=" + std::to_string(b.width) + ", height=" + std::to_string(b.height) +
                   ")";
        });

    py::class_<msmface::DetectedFace>(d, "Face", "A face found in a frame.")
        .def_readonly("box", &msmface::DetectedFace::box, "In frame pixels.")
        .def_readonly("score", &msmface::DetectedFace::score,
                      "The detector's confidence; larger is surer.")
        .def_property_readonly(
            "landmarks", [](const msmface::DetectedFace& f) { return landmarksArray(f.landmarks); },
            "The 68 landmarks (iBUG 300-W order), float32 of shape (68, 2).")
        .def_property_readonly(
            "points", [](const msmface::DetectedFace& f) { return pointsToArray(f.points); },
            "The engine's fourteen points, float32 of shape (14, 2).")
        .def("__repr__", [](const msmface::DetectedFace& f) {
            return "Face(box=(" + std::to_string(f.box.left) + ", " + std::to_string(f.box.top) +
                   ", " + std::to_string(f.box.width) + ", " + std::to_string(f.box.height) +
                   "), score=" + std::to_string(f.score) + ")";
        });

    py::class_<DetectorBox, std::shared_ptr<DetectorBox>>(d, "Detector", R"doc(
The face detector and the 68-landmark model (about 100 MB loaded). model: the landmark model
file (None: $MSMFACE_LANDMARK_MODEL, else Debian libdlib-data's). Calls release the GIL.
)doc")
        .def(py::init([](const py::object& model, const py::handle& upsampleBelowWidth) {
                 msmface::DetectorOptions o;
                 if (!model.is_none()) o.modelPath = py::str(model).cast<std::string>();
                 o.upsampleBelowWidth = intArgument(upsampleBelowWidth, "upsample_below_width");
                 std::optional<msmface::Result<msmface::Detector>> r;
                 {
                     py::gil_scoped_release unlocked;
                     r.emplace(msmface::Detector::create(o));
                 }
                 return std::make_shared<DetectorBox>(take(std::move(*r)));
             }),
             py::arg("model") = py::none(), py::kw_only(),
             py::arg("upsample_below_width") = msmface::DetectorOptions{}.upsampleBelowWidth)
        .def(
            "detect",
            [](DetectorBox& b, const py::handle& frame, const std::string& format) {
                FrameArg f = frameFromArray(frame, format);
                std::optional<msmface::Result<std::vector<msmface::DetectedFace>>> r;
                {
                    py::gil_scoped_release unlocked;
                    std::lock_guard<std::mutex> l(b.lock);
                    r.emplace(b.detector.detect(f.view));
                }
                return take(std::move(*r));
            },
            py::arg("frame"), py::kw_only(), py::arg("format") = "bgr",
            "Every face in the frame, the largest first.")
        .def(
            "fit",
            [](DetectorBox& b, const py::handle& frame, const py::handle& box,
               const std::string& format) {
                FrameArg f = frameFromArray(frame, format);
                msmface::FaceBox fb;
                try {
                    auto t = py::reinterpret_borrow<py::sequence>(box);
                    if (py::len(t) != 4) throw py::value_error("");
                    fb = {t[0].cast<int>(), t[1].cast<int>(), t[2].cast<int>(), t[3].cast<int>()};
                } catch (const std::exception&) {
                    raiseValueError("box: expected (left, top, width, height) as integers");
                }
                std::optional<msmface::Result<msmface::DetectedFace>> r;
                {
                    py::gil_scoped_release unlocked;
                    std::lock_guard<std::mutex> l(b.lock);
                    r.emplace(b.detector.fit(f.view, fb));
                }
                return take(std::move(*r));
            },
            py::arg("frame"), py::arg("box"), py::kw_only(), py::arg("format") = "bgr",
            "The landmarks of the face inside box (left, top, width, height), no detection.");

    py::class_<PyFollower, msmface::PointFinder, std::shared_ptr<PyFollower>>(d, "Follower", R"doc(
Follows the largest face of a video between full detections. Pass it as the finder of a Stream
(or Gallery.set_point_finder) to push frames without points.
)doc")
        .def(py::init([](std::shared_ptr<DetectorBox> detector, const py::handle& redetect) {
                 const int redetectEvery = intArgument(redetect, "redetect_every");
                 if (redetectEvery < 1)
                     raiseValueError("redetect_every: expected 1 or more, got " +
                                     std::to_string(redetectEvery));
                 msmface::FollowerOptions o;
                 o.redetectEvery = redetectEvery;
                 return std::make_shared<PyFollower>(std::move(detector), o);
             }),
             py::arg("detector"), py::kw_only(),
             py::arg("redetect_every") = msmface::FollowerOptions{}.redetectEvery)
        .def(
            "track",
            [](PyFollower& f, const py::handle& frame,
               const std::string& format) -> std::optional<msmface::DetectedFace> {
                FrameArg a = frameFromArray(frame, format);
                msmface::DetectedFace face;
                bool found = false;
                {
                    py::gil_scoped_release unlocked;
                    found = f.trackLocked(a.view, face);
                }
                if (!found) return std::nullopt;
                return face;
            },
            py::arg("frame"), py::kw_only(), py::arg("format") = "bgr",
            "The face in this frame of the video, or None.")
        .def(
            "reset", [](PyFollower& f) { f.reset(); },
            "Forgets the previous frames (a new video).");

#ifdef MSMFACE_PYTHON_DESCRIPTOR
    bindDescriptor(d);
    d.attr("HAVE_DESCRIPTOR") = true;
#else
    d.attr("HAVE_DESCRIPTOR") = false;
#endif
    bindTracker(d);
    bindWatcher(d);
    d.def(
        "points_from_landmarks",
        [](const py::handle& landmarks) {
            auto a =
                py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(landmarks);
            if (!a || a.size() != 136)
                raiseValueError("landmarks: expected an array of shape (68, 2)");
            std::array<float, 136> l{};
            std::copy(a.data(), a.data() + 136, l.begin());
            return pointsToArray(msmface::pointsFromLandmarks(l));
        },
        py::arg("landmarks"), "The engine's fourteen points (14, 2) from the 68 landmarks.");
    return true;
}

}  // namespace msmpy

#else

namespace msmpy {

bool bindDetect(pybind11::module_&) {
    return false;
}

}  // namespace msmpy

#endif
