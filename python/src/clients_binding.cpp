// What a host needs around the gallery, taken from the library so that Python and the msmface
// program do the same thing: jittered copies and the frames offered, the frame lists, the
// threshold at a false-accept rate and the normalised face of a frame.
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/calibration.h>
#include <msmface/face_input.h>
#include <msmface/frame_lists.h>
#include <msmface/jitter.h>

#include "arrays.h"
#include "bindings.h"

namespace msmpy {
namespace {

// The points of samples only: the frames stay on the Python side and are paired again there.
std::vector<msmface::Sample> pointSamples(const py::list& points) {
    std::vector<msmface::Sample> samples(points.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const py::handle p = points[i];
        if (!p.is_none())
            samples[i].points =
                pointsFromArray(p, ("samples[" + std::to_string(i) + "] points").c_str());
    }
    return samples;
}

py::list pointsOf(const std::vector<msmface::Sample>& samples) {
    py::list out;
    for (const msmface::Sample& s : samples)
        out.append(s.points ? py::object(pointsToArray(*s.points)) : py::object(py::none()));
    return out;
}

double pixelsArgument(const py::handle& value) {
    if (PyBool_Check(value.ptr()) || !PyNumber_Check(value.ptr()))
        raiseValueError("pixels: expected a number of pixels, got " +
                        py::str(py::type::handle_of(value).attr("__name__")).cast<std::string>());
    return py::float_(py::reinterpret_borrow<py::object>(value)).cast<double>();
}

uint32_t seedArgument(const py::handle& value) {
    return static_cast<uint32_t>(intArgument(value, "seed", 0, 0xFFFFFFFFLL) & 0xFFFFFFFFLL);
}

py::list rowsOf(const std::vector<msmface::FrameRow>& rows) {
    py::list out;
    for (const msmface::FrameRow& r : rows) {
        py::array_t<float> points({msmface::kFacePointCount, 2});
        const msmface::FacePoints p = msmface::toFacePoints(r.points);
        std::copy(p.xy.begin(), p.xy.end(), points.mutable_data());
        py::dict row;
        row["identity"] = r.identity;
        row["video"] = r.video;
        row["split"] = r.split;
        // As os.fsdecode gives file names: bytes that are no UTF-8 survive the round trip.
        row["image"] = py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(
            r.image.data(), static_cast<Py_ssize_t>(r.image.size()), "surrogateescape"));
        row["width"] = r.width;
        row["height"] = r.height;
        row["line"] = r.line;
        row["points"] = points;
        out.append(row);
    }
    return out;
}

// A list's parse error as ValueError (its text is wrong, not its file): "line N: ...".
py::list rowsOrValueError(msmface::Result<std::vector<msmface::FrameRow>>&& r) {
    if (!r.ok()) raiseValueError(r.message());
    return rowsOf(r.value());
}

}  // namespace

void bindClients(py::module_& m) {
    m.attr("MAX_JITTER_COPIES") = msmface::kMaxJitterCopies;
    m.def(
        "_jitter_points",
        [](const py::list& points, const py::handle& copies, const py::handle& pixels,
           const py::handle& seed) {
            const int c = intArgument(copies, "copies", 1, msmface::kMaxJitterCopies);
            return pointsOf(take(msmface::jitterFrames(
                pointSamples(points), c, pixelsArgument(pixels), seedArgument(seed))));
        },
        py::arg("points"), py::arg("copies"), py::arg("pixels"), py::arg("seed"),
        "The points of msmface.jitter: one entry per sample, None for a sample without points.");
    m.def(
        "_offer_points",
        [](const py::list& points, const py::handle& wanted, const py::handle& pixels,
           const py::handle& seed) {
            const int w = intArgument(wanted, "wanted", 1, msmface::kMaxOfferedFrames);
            return pointsOf(take(msmface::offerFrames(pointSamples(points), w,
                                                      pixelsArgument(pixels), seedArgument(seed))));
        },
        py::arg("points"), py::arg("wanted"), py::arg("pixels"), py::arg("seed"),
        "The points of msmface.offer_frames.");
    m.def(
        "_parse_manifest",
        [](const std::string& text) { return rowsOrValueError(msmface::parseManifest(text)); },
        py::arg("text"), "The rows of a face manifest's text; ValueError \"line N: ...\".");
    m.def(
        "_parse_points_file",
        [](const py::bytes& data) {
            return rowsOrValueError(msmface::parsePointsFile(std::string(data)));
        },
        py::arg("data"), "The rows of a points file's bytes; ValueError \"line N: ...\".");

    py::class_<msmface::FalseAcceptPoint>(
        m, "FalseAcceptPoint", "The threshold that holds a false-accept rate, and its rates.")
        .def_readonly("rate", &msmface::FalseAcceptPoint::rate, "The rate asked for.")
        .def_readonly("threshold", &msmface::FalseAcceptPoint::threshold)
        .def_readonly("false_accept", &msmface::FalseAcceptPoint::falseAccept,
                      "Share of impostor scores strictly above the threshold.")
        .def_readonly("true_accept", &msmface::FalseAcceptPoint::trueAccept,
                      "Share of genuine scores strictly above the threshold.")
        .def("__repr__", [](const msmface::FalseAcceptPoint& p) {
            return "FalseAcceptPoint(rate=" + py::repr(py::float_(p.rate)).cast<std::string>() +
                   ", threshold=" + std::to_string(p.threshold) +
                   ", false_accept=" + py::repr(py::float_(p.falseAccept)).cast<std::string>() +
                   ", true_accept=" + py::repr(py::float_(p.trueAccept)).cast<std::string>() + ")";
        });
    m.def(
        "calibrate",
        [](const std::vector<int>& genuine, const std::vector<int>& impostor, double rate) {
            return take(msmface::thresholdAtFalseAcceptRate(genuine, impostor, rate));
        },
        py::arg("genuine"), py::arg("impostor"), py::arg("rate") = 0.01,
        "The identify threshold for a false-accept rate, as `msmface calibrate` finds it: the\n"
        "smallest whole threshold (-1 .. 1000) with at most floor(rate x len(impostor)) impostor\n"
        "scores strictly above it, and the rates it gives. Scores in thousandths, as recognise\n"
        "gives them; store it with gallery.threshold = point.threshold.");
    m.def(
        "normalised_face",
        [](const py::handle& frame, const py::handle& points, const std::string& format) {
            FrameArg f = frameFromArray(frame, format);
            const msmface::FacePoints p = pointsFromArray(points);
            msmface::Result<std::vector<unsigned char>> face = [&] {
                py::gil_scoped_release unlocked;
                return msmface::normalisedFace(f.view, p);
            }();
            const std::vector<unsigned char> pixels = take(std::move(face));
            py::array_t<unsigned char> out(
                {msmface::kNormalisedFaceSide, msmface::kNormalisedFaceSide});
            std::copy(pixels.begin(), pixels.end(), out.mutable_data());
            return out;
        },
        py::arg("frame"), py::arg("points"), py::kw_only(), py::arg("format") = "bgr",
        "The 64 x 64 uint8 normalised face of a frame with its points: what enrolment and\n"
        "recognition make their patterns from. ValueError naming the frame or the points when\n"
        "it cannot be made.");
}

}  // namespace msmpy
