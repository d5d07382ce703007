#include "input/picture_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include <opencv2/core/utils/logger.hpp>
#include <opencv2/videoio.hpp>

#include "input/image_io.h"

namespace msmcli {
namespace {

// OpenCV reports its backends' trouble on standard error in its own words; the program says
// what went wrong itself, in one line.
void silenceOpenCv() {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
}

int limitOf(int frames, int fallback) {
    return frames > 0 ? frames : fallback;
}

class ImageFiles : public PictureSource {
  public:
    ImageFiles(std::vector<std::string> paths, int limit)
        : paths_(std::move(paths)), limit_(limitOf(limit, static_cast<int>(paths_.size()))) {}
    bool next(cv::Mat& frame) override {
        if (taken_ >= limit_ || taken_ >= static_cast<int>(paths_.size())) return false;
        error_ = loadPicture(paths_[taken_], frame);
        if (!error_.empty()) return false;
        ++taken_;
        return true;
    }
    std::string name() const override { return paths_.empty() ? "--images" : paths_.front(); }
    std::string frameName() const override {
        return taken_ > 0 ? paths_[taken_ - 1] : std::string();
    }
    double seconds() const override { return 0; }
    double rate() const override { return 0; }

  private:
    std::vector<std::string> paths_;
    int limit_;
};

class Capture : public PictureSource {
  public:
    Capture(std::string name, cv::VideoCapture capture, int limit, bool live)
        : name_(std::move(name)), capture_(std::move(capture)), limit_(limit), live_(live) {
        const double fps = capture_.get(cv::CAP_PROP_FPS);
        rate_ = std::isfinite(fps) && fps > 0 && fps < 1000 ? fps : 25.0;
        start_ = std::chrono::steady_clock::now();
    }
    bool next(cv::Mat& frame) override {
        if (limit_ > 0 && taken_ >= limit_) return false;
        bool read = false;
        try {
            read = capture_.read(frame);
        } catch (const cv::Exception&) {
            // The decoder's own words name its internals, not the user's video.
            error_ = name_ + ": frame " + std::to_string(taken_ + 1) +
                     " does not decode (damaged or cut short)";
            return false;
        }
        if (!read || frame.empty()) {
            if (taken_ == 0)
                error_ = name_ + (live_ ? ": the camera gave no frame"
                                        : ": no frame could be decoded; expected a video");
            return false;
        }
        if (frame.depth() != CV_8U || (frame.channels() != 1 && frame.channels() != 3) ||
            frame.cols > kMaxVideoSide || frame.rows > kMaxVideoSide) {
            error_ = name_ + ": frames of " + std::to_string(frame.cols) + " x " +
                     std::to_string(frame.rows) + " pixels, " + std::to_string(frame.channels()) +
                     " channels; expected 8-bit grey or colour frames up to 8192 pixels a side";
            return false;
        }
        ++taken_;
        if (live_)
            seconds_ =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        else
            seconds_ = (taken_ - 1) / rate_;
        return true;
    }
    std::string name() const override { return name_; }
    std::string frameName() const override { return name_ + " frame " + std::to_string(taken_); }
    double seconds() const override { return seconds_; }
    double rate() const override { return rate_; }

  private:
    std::string name_;
    cv::VideoCapture capture_;
    int limit_;
    bool live_;
    double rate_ = 25;
    double seconds_ = 0;
    std::chrono::steady_clock::time_point start_;
};

std::string openVideo(const std::string& path, int limit, std::unique_ptr<PictureSource>& out) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return path + ": cannot open the video (" + std::strerror(errno) + ")";
    if (!S_ISREG(st.st_mode)) return path + ": cannot open the video (expected a file)";
    cv::VideoCapture capture;
    try {
        capture.open(path, cv::CAP_FFMPEG);
    } catch (const cv::Exception&) {
    }
    if (!capture.isOpened())
        return path +
               ": not a video that can be decoded (expected a video file such as MP4, "
               "AVI or MKV)";
    out = std::make_unique<Capture>(path, std::move(capture), limit, false);
    return {};
}

std::string openCamera(int index, int limit, std::unique_ptr<PictureSource>& out) {
    const std::string argument = "--camera " + std::to_string(index);
    const std::string device = "/dev/video" + std::to_string(index);
    struct stat st {};
    if (::stat(device.c_str(), &st) != 0)
        return argument + ": no such camera (" + device + " does not exist)";
    cv::VideoCapture capture;
    try {
        capture.open(index, cv::CAP_V4L2);
    } catch (const cv::Exception&) {
    }
    if (!capture.isOpened()) return argument + ": " + device + " does not open as a camera";
    out = std::make_unique<Capture>(argument, std::move(capture),
                                    limitOf(limit, kDefaultCameraFrames), true);
    return {};
}

}  // namespace

std::string openPictureSource(const PictureSourceOptions& o, std::unique_ptr<PictureSource>& out) {
    silenceOpenCv();
    if (o.camera < -1)
        return "--camera " + std::to_string(o.camera) + ": expected a camera index, 0 or more";
    const int named = (!o.images.empty()) + (!o.video.empty()) + (o.camera >= 0);
    if (named != 1) return "frames: expected one of --images FILE..., --video FILE or --camera N";
    if (o.frames < 0) return "--frames " + std::to_string(o.frames) + ": expected 1 or more";
    if (!o.images.empty()) {
        out = std::make_unique<ImageFiles>(o.images, o.frames);
        return {};
    }
    if (!o.video.empty()) return openVideo(o.video, o.frames, out);
    return openCamera(o.camera, o.frames, out);
}

}  // namespace msmcli
