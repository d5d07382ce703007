#include "input/frame_descriptors.h"

#include <cmath>
#include <utility>

#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#include <msmface/detect.h>
#endif

namespace msmcli {
namespace {

bool present(double x, double y) {
    const auto inside = [](double v) {
        return std::isfinite(v) && v >= 0 && v < msmface::kAbsentCoordinate;
    };
    return inside(x) && inside(y);
}

}  // namespace

std::optional<PointsBox> faceBoxOfPoints(const std::array<double, 28>& p) {
    constexpr int kLeftEye = 0, kRightEye = 1, kMouth = 13;
    for (int k : {kLeftEye, kRightEye, kMouth})
        if (!present(p[2 * k], p[2 * k + 1])) return std::nullopt;
    const double ex = (p[2 * kLeftEye] + p[2 * kRightEye]) / 2;
    const double ey = (p[2 * kLeftEye + 1] + p[2 * kRightEye + 1]) / 2;
    const double mx = p[2 * kMouth], my = p[2 * kMouth + 1];
    const double eyes =
        std::hypot(p[2 * kRightEye] - p[2 * kLeftEye], p[2 * kRightEye + 1] - p[2 * kLeftEye + 1]);
    const double mouth = std::hypot(mx - ex, my - ey);
    const double side = 1.06 * eyes + 1.29 * mouth;
    if (!(side >= 1.0)) return std::nullopt;
    const double cx = ex + 0.43 * (mx - ex), cy = ey + 0.43 * (my - ey);
    PointsBox box;
    box.left = static_cast<int>(std::lround(cx - side / 2));
    box.top = static_cast<int>(std::lround(cy - side / 2));
    box.side = static_cast<int>(std::lround(side));
    return box;
}

std::string describeFramesByPoints(FrameDescriber& describer, const std::string& what,
                                   std::vector<Frame>& frames) {
    const std::size_t given = frames.size();
    std::vector<Frame> kept;
    for (Frame& frame : frames) {
        msmface::FaceDescriptor d;
        if (!describer.describePoints(frame, d)) continue;
        frame.descriptor = d;
        kept.push_back(std::move(frame));
    }
    frames = std::move(kept);
    if (!frames.empty()) return {};
    return what + ": none of the " + std::to_string(given) +
           " frames has a face its points place that is large enough and far enough from the "
           "border for a descriptor; expected frames showing a face";
}

#ifdef MSMFACE_HAVE_DESCRIPTOR
namespace {

class NetworkDescriber : public FrameDescriber {
  public:
    NetworkDescriber(msmface::Descriptor descriptor, std::optional<msmface::Detector> detector)
        : descriptor_(std::move(descriptor)), detector_(std::move(detector)) {}

    bool describeFound(const cv::Mat& picture, const FoundFace& face,
                       msmface::FaceDescriptor& out) override {
        return describe(viewOf(picture), face.landmarks, out);
    }

    bool describePoints(const Frame& frame, msmface::FaceDescriptor& out) override {
        if (!frame.image || !detector_) return false;
        const std::optional<PointsBox> box = faceBoxOfPoints(frame.points);
        if (!box) return false;
        const msmface::FrameView view{frame.image->pixels.data(), frame.image->width,
                                      frame.image->height, 0, msmface::PixelFormat::Grey};
        // A box reaching past the frame is the detector's too; fit() wants it to overlap only.
        const auto fitted = detector_->fit(view, {box->left, box->top, box->side, box->side});
        return fitted && describe(view, fitted->landmarks, out);
    }

  private:
    bool describe(const msmface::FrameView& view, const std::array<float, 136>& landmarks,
                  msmface::FaceDescriptor& out) const {
        msmface::DetectedFace face;
        face.landmarks = landmarks;
        const auto described = descriptor_.compute(view, face);
        if (!described) return false;
        out = *described;
        return true;
    }

    msmface::Descriptor descriptor_;
    std::optional<msmface::Detector> detector_;
};

}  // namespace

std::string makeFrameDescriber(const DescriberOptions& options,
                               std::unique_ptr<FrameDescriber>& out) {
    msmface::DescriptorOptions descriptorOptions;
    descriptorOptions.modelPath = options.descriptorModel;
    auto descriptor = msmface::Descriptor::load(descriptorOptions);
    if (!descriptor) return descriptor.message();
    std::optional<msmface::Detector> detector;
    if (options.withPoints) {
        msmface::DetectorOptions detectorOptions;
        detectorOptions.modelPath = options.landmarkModel;
        auto created = msmface::Detector::create(detectorOptions);
        if (!created) return created.message();
        detector.emplace(std::move(created).value());
    }
    out = std::make_unique<NetworkDescriber>(std::move(descriptor).value(), std::move(detector));
    return {};
}

#else

std::string makeFrameDescriber(const DescriberOptions&, std::unique_ptr<FrameDescriber>&) {
    return "descriptors: the face descriptor is not available in this build (built without the "
           "detector or OpenCV's dnn module: libdlib-dev, libopencv-dnn-dev)";
}

#endif

}  // namespace msmcli
