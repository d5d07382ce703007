#include "input/face_finder.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#ifdef MSMFACE_HAVE_DETECT
#include <msmface/detect.h>
#endif

namespace msmcli {

namespace {
FinderChoice& finderChoice() {
    static FinderChoice choice = FinderChoice::Hog;
    return choice;
}
}  // namespace

void chooseFinder(FinderChoice choice) {
    finderChoice() = choice;
}

void drawFace(cv::Mat& bgr, const FoundFace& face, const cv::Scalar& colour) {
    const int thickness = std::max(1, bgr.cols / 320);
    const int radius = std::max(1, face.box.width / 60);
    cv::rectangle(bgr, face.box, colour, thickness);
    for (int k = 0; k < 14; ++k) {
        const cv::Point at(static_cast<int>(std::lround(face.points[2 * k])),
                           static_cast<int>(std::lround(face.points[2 * k + 1])));
        cv::circle(bgr, at, radius, cv::Scalar(0, 255, 255), cv::FILLED, cv::LINE_AA);
    }
}

cv::Mat colourCopy(const cv::Mat& picture) {
    cv::Mat bgr;
    if (picture.channels() == 1)
        cv::cvtColor(picture, bgr, cv::COLOR_GRAY2BGR);
    else
        bgr = picture.clone();
    return bgr;
}

#ifdef MSMFACE_HAVE_DETECT
namespace {

FoundFace foundOf(const msmface::DetectedFace& face) {
    FoundFace f;
    f.box = cv::Rect(face.box.left, face.box.top, face.box.width, face.box.height);
    for (int k = 0; k < 28; ++k) f.points[k] = face.points.xy[k];
    f.landmarks = face.landmarks;
    return f;
}

// The Follower as the PointFinder a Stream calls, remembering what it found for the pictures
// the host draws.
class RecordingFinder : public msmface::PointFinder {
  public:
    RecordingFinder(const msmface::Detector& detector, int redetectEvery)
        : follower_(detector, msmface::FollowerOptions{redetectEvery}) {}
    bool findPoints(const msmface::FrameView& frame, msmface::FacePoints& out) override {
        found_ = follower_.track(frame, last_);
        if (found_) out = last_.points;
        return found_;
    }
    void reset() override {
        follower_.reset();
        found_ = false;
    }
    bool last(FoundFace& out) const {
        if (found_) out = foundOf(last_);
        return found_;
    }

  private:
    msmface::Follower follower_;
    msmface::DetectedFace last_{};
    bool found_ = false;
};

class DetectingFinder : public FaceFinder {
  public:
    DetectingFinder(msmface::Detector detector, bool follow)
        : detector_(std::move(detector)),
          // Unrelated pictures are detected afresh each; a video is followed between detections.
          finder_(std::make_shared<RecordingFinder>(
              detector_, follow ? msmface::FollowerOptions{}.redetectEvery : 1)) {}
    bool find(const cv::Mat& frame, FoundFace& out) override {
        msmface::FacePoints points;
        return finder_->findPoints(viewOf(frame), points) && finder_->last(out);
    }
    void reset() override { finder_->reset(); }
    std::shared_ptr<msmface::PointFinder> pointFinder() override { return finder_; }
    bool lastFace(FoundFace& out) const override { return finder_->last(out); }

  private:
    msmface::Detector detector_;  // declared first: the finder's Follower refers to it
    std::shared_ptr<RecordingFinder> finder_;
};

}  // namespace

bool detectionAvailable() {
    return true;
}

std::string makeFaceFinder(const std::string& modelPath, bool follow, const std::string&,
                           std::unique_ptr<FaceFinder>& out) {
    msmface::DetectorOptions options;
    options.modelPath = modelPath;
    if (finderChoice() == FinderChoice::Network) options.finder = msmface::FaceFinder::Network;
    msmface::Result<msmface::Detector> detector = msmface::Detector::create(options);
    if (!detector) return detector.message();
    out = std::make_unique<DetectingFinder>(std::move(detector).value(), follow);
    return {};
}

#else

bool detectionAvailable() {
    return false;
}

std::string makeFaceFinder(const std::string&, bool, const std::string& argument,
                           std::unique_ptr<FaceFinder>&) {
    return argument +
           ": finding faces is not available in this build (built without the detector, which "
           "needs libdlib-dev); give the points with --points or --manifest";
}

#endif

}  // namespace msmcli
