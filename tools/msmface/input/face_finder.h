// The face and its points in the program's pictures, found by the detector library when the
// program is built with it (MSMFACE_HAVE_DETECT); without it every call says that detection is
// not available in this build.
#ifndef MSMFACE_TOOLS_MSMFACE_FACE_FINDER_H
#define MSMFACE_TOOLS_MSMFACE_FACE_FINDER_H

#include <array>
#include <memory>
#include <string>

#include <msmface/frame.h>
#include <opencv2/core.hpp>

namespace msmcli {

struct FoundFace {
    cv::Rect box;
    std::array<double, 28> points{};  // x0, y0 ... x13, y13 in frame pixels
    // The 68 landmarks the points come from (x0, y0 ... x67, y67): what a descriptor's chip is cut
    // from.
    std::array<float, 136> landmarks{};
};

// A view of an OpenCV picture (8-bit grey or BGR) for the library; valid while the picture is.
// Inline so that the benchmarks, which do not link the program, share it.
inline msmface::FrameView viewOf(const cv::Mat& picture) {
    msmface::FrameView v;
    v.data = picture.data;
    v.width = picture.cols;
    v.height = picture.rows;
    v.stride = static_cast<int>(picture.step[0]);
    v.format = picture.channels() == 1 ? msmface::PixelFormat::Grey : msmface::PixelFormat::BGR;
    return v;
}

// Finds the largest face of each frame: afresh in every frame for unrelated pictures, or
// following it from frame to frame for a video or a camera.
class FaceFinder {
  public:
    virtual ~FaceFinder() = default;
    // The face of this frame; false when there is none.
    virtual bool find(const cv::Mat& frame, FoundFace& out) = 0;
    // Forget the followed face.
    virtual void reset() = 0;
    // The same finder as the library's PointFinder (for msmface::Stream); the last face it found
    // is what lastFace() returns.
    virtual std::shared_ptr<msmface::PointFinder> pointFinder() = 0;
    virtual bool lastFace(FoundFace& out) const = 0;
};

// The face drawn on a BGR picture: its box and its fourteen points, numbered.
void drawFace(cv::Mat& bgr, const FoundFace& face, const cv::Scalar& colour);
// A grey or BGR picture as a BGR copy to draw on.
cv::Mat colourCopy(const cv::Mat& picture);

// True when the program was built with the detector.
bool detectionAvailable();

// The finder of the faces whose points makeFaceFinder's detector fits: dlib's HOG detector (the
// default) or the network (--detector network). Set while the command line is read, before any
// finder is made.
enum class FinderChoice { Hog, Network };
void chooseFinder(FinderChoice choice);

// Loads the landmark model (modelPath empty: the detector's default) and, with
// FinderChoice::Network, the network's weights. argument names the option
// that asked for detection, for the message of a build without the detector. Returns an empty
// string or a one-line reason.
std::string makeFaceFinder(const std::string& modelPath, bool follow, const std::string& argument,
                           std::unique_ptr<FaceFinder>& out);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FACE_FINDER_H
