// _msmface_testing: what the Python tests and the overhead benchmark need beside the package,
// never installed. Synthetic persons (the generator of tools/synth): a take is a live camera's
// run of frames of one person with the exact fourteen points of each frame. And the C++ side of
// the benchmark: the same frames pushed through a Stream without Python in between.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <msmface/gallery.h>

#include "synth/synth_face.h"

#ifdef MSMFACE_TESTING_VIDEO
#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#endif

namespace py = pybind11;

namespace {

// CPU seconds of the calling thread: unlike the wall clock, blind to other processes that share
// the cores.
double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

struct Take {
    std::vector<std::vector<unsigned char>> pixels;
    std::vector<msmface::FacePoints> points;
    int width = 0, height = 0;
};

}  // namespace

PYBIND11_MODULE(_msmface_testing, m) {
    m.doc() = "Synthetic faces and the C++ side of the Python overhead benchmark.";
    m.def(
        "take",
        [](uint32_t population, int person, uint32_t seed, int count, int width, int height) {
            if (count < 0 || count > 10000)
                throw py::value_error("count: expected 0 to 10000, got " + std::to_string(count));
            if (width < 16 || height < 16 || width > 4096 || height > 4096)
                throw py::value_error("width, height: expected 16 to 4096");
            py::list out;
            const msmsynth::SynthPerson p = msmsynth::makePerson(population, person);
            for (const msmsynth::SynthPose& pose :
                 msmsynth::makeSequence(seed, count, width, height)) {
                msmsynth::SynthFrame f = msmsynth::renderFrame(p, pose, width, height);
                if (!f.valid()) continue;
                py::array_t<unsigned char> frame({f.height, f.width});
                std::copy(f.pixels.begin(), f.pixels.end(), frame.mutable_data());
                py::array_t<float> points({14, 2});
                std::copy(f.points.begin(), f.points.end(), points.mutable_data());
                out.append(py::make_tuple(frame, points));
            }
            return out;
        },
        py::arg("population"), py::arg("person"), py::arg("seed"), py::arg("count"),
        py::arg("width") = 320, py::arg("height") = 240,
        "count frames of person number `person` of the population, as (frame, points) pairs: "
        "frame uint8 (height, width), points float32 (14, 2).");

    m.def(
        "time_stream_push",
        [](const std::string& directory, const py::list& samples, int repeats) {
            Take take;
            for (py::handle h : samples) {
                auto pair = h.cast<py::tuple>();
                auto frame = pair[0].cast<py::array_t<unsigned char, py::array::c_style>>();
                auto points = pair[1].cast<py::array_t<float, py::array::c_style>>();
                if (frame.ndim() != 2 || points.size() != 28)
                    throw py::value_error("samples: grey (frame, points) pairs expected");
                take.height = static_cast<int>(frame.shape(0));
                take.width = static_cast<int>(frame.shape(1));
                take.pixels.emplace_back(frame.data(), frame.data() + frame.size());
                msmface::FacePoints p;
                std::copy(points.data(), points.data() + 28, p.xy.begin());
                take.points.push_back(p);
            }
            std::vector<std::pair<double, double>> perFrame;  // wall, thread CPU
            {
                py::gil_scoped_release unlocked;
                auto g = msmface::Gallery::open(directory);
                if (!g.ok()) throw std::runtime_error(g.message());
                auto s = msmface::Stream::create(*g);
                if (!s.ok()) throw std::runtime_error(s.message());
                for (int r = 0; r < repeats; ++r) {
                    s->reset();
                    const auto t0 = std::chrono::steady_clock::now();
                    const double c0 = threadSeconds();
                    for (std::size_t i = 0; i < take.pixels.size(); ++i) {
                        msmface::FrameView v;
                        v.data = take.pixels[i].data();
                        v.width = take.width;
                        v.height = take.height;
                        auto st = s->push(v, take.points[i]);
                        if (!st.ok()) throw std::runtime_error(st.message());
                    }
                    const double c1 = threadSeconds();
                    const auto t1 = std::chrono::steady_clock::now();
                    const double n = static_cast<double>(take.pixels.size());
                    perFrame.emplace_back(std::chrono::duration<double>(t1 - t0).count() / n,
                                          (c1 - c0) / n);
                }
            }
            return perFrame;
        },
        py::arg("directory"), py::arg("samples"), py::arg("repeats"),
        "(wall, thread CPU) seconds per frame of each of `repeats` passes of the samples "
        "through one C++ Stream over the gallery (reset before each pass).");

#ifdef MSMFACE_TESTING_VIDEO
    m.def(
        "write_video",
        [](const std::string& path, const py::list& frames, double fps) {
            // MJPG in AVI: what Debian's OpenCV writes and reads back without further codecs.
            cv::VideoWriter writer;
            for (py::handle h : frames) {
                auto frame = h.cast<py::array_t<unsigned char, py::array::c_style>>();
                if (frame.ndim() != 3 || frame.shape(2) != 3)
                    throw py::value_error("frames: (H, W, 3) BGR frames expected");
                const cv::Mat m(static_cast<int>(frame.shape(0)), static_cast<int>(frame.shape(1)),
                                CV_8UC3, const_cast<unsigned char*>(frame.data()));
                if (!writer.isOpened() &&
                    !writer.open(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'),
                                 fps, m.size(), true))
                    throw std::runtime_error(path + ": the video writer does not open");
                writer.write(m);
            }
        },
        py::arg("path"), py::arg("frames"), py::arg("fps"),
        "Writes BGR frames (H, W, 3) as an MJPG AVI video at fps frames a second.");
#endif
}
