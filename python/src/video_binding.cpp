// Video files as frames, through the msmface program's own reader (OpenCV's FFmpeg backend), for
// hosts that watch a video from Python without a decoder of their own.
#include "bindings.h"

#ifdef MSMFACE_PYTHON_VIDEO

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <opencv2/core.hpp>

#include "input/picture_source.h"

namespace msmpy {

namespace py = pybind11;

namespace {

class VideoReader {
  public:
    explicit VideoReader(const std::string& path) {
        msmcli::PictureSourceOptions o;
        o.video = path;
        std::string error;
        {
            py::gil_scoped_release unlocked;
            error = msmcli::openPictureSource(o, source_);
        }
        if (!error.empty()) raiseOsError(error);
    }

    double rate() const { return source_->rate(); }
    int taken() const { return source_->taken(); }

    // (frame, seconds) of the next frame; StopIteration at the end, OSError naming the file and
    // the frame when the video stops early (damaged, cut short).
    py::tuple next() {
        cv::Mat frame;
        bool read = false;
        {
            py::gil_scoped_release unlocked;
            read = !done_ && source_->next(frame);
        }
        if (!read) {
            // A damaged video is reported once; the iteration ends after it.
            const bool failed = !done_ && !source_->error().empty();
            done_ = true;
            if (failed) raiseOsError(source_->error());
            throw py::stop_iteration();
        }
        return py::make_tuple(toArray(frame), source_->seconds());
    }

  private:
    [[noreturn]] static void raiseOsError(const std::string& message) {
        PyErr_SetString(PyExc_OSError, message.c_str());
        throw py::error_already_set();
    }

    static py::array toArray(const cv::Mat& m) {
        const int channels = m.channels();
        std::vector<py::ssize_t> shape = {m.rows, m.cols};
        if (channels == 3) shape.push_back(3);
        py::array_t<unsigned char> out(shape);
        const size_t row = static_cast<size_t>(m.cols) * channels;
        for (int y = 0; y < m.rows; ++y)
            std::memcpy(out.mutable_data() + row * y, m.ptr<unsigned char>(y), row);
        return std::move(out);
    }

    std::unique_ptr<msmcli::PictureSource> source_;
    bool done_ = false;
};

}  // namespace

bool bindVideo(py::module_& m) {
    py::class_<VideoReader>(m, "_VideoReader", R"doc(
The frames of a video file as (frame, seconds) pairs: uint8 (H, W, 3) in BGR order (or (H, W)
grey), seconds from the video's frame rate (rate; 25 when the file does not say). OSError naming
the file when it does not open or decode, or when a frame is damaged. Calls release the GIL.
)doc")
        .def(py::init<const std::string&>(), py::arg("path"))
        .def_property_readonly("rate", &VideoReader::rate)
        .def_property_readonly("frames_read", &VideoReader::taken)
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &VideoReader::next);
    return true;
}

}  // namespace msmpy

#else

namespace msmpy {

bool bindVideo(pybind11::module_&) {
    return false;
}

}  // namespace msmpy

#endif
