#include "input/frame_descriptors.h"

#include <optional>
#include <utility>

#include <msmface/face_input.h>

#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#include <msmface/detect.h>
#endif

namespace msmcli {

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
        const auto box = msmface::boxFromPoints(msmface::toFacePoints(frame.points));
        if (!box) return false;
        const msmface::FrameView view{frame.image->pixels.data(), frame.image->width,
                                      frame.image->height, 0, msmface::PixelFormat::Grey};
        const auto fitted = detector_->fit(view, *box);
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
