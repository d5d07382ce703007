#include "input/frame_descriptors.h"

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
        if (!frame.image) continue;
        frame.descriptor = describer.describeAt(*frame.image, frame.points);
        if (frame.descriptor) kept.push_back(std::move(frame));
    }
    frames = std::move(kept);
    if (!frames.empty()) return {};
    return what + ": none of the " + std::to_string(given) +
           " frames has a face its points place that is large enough and far enough from the "
           "border for a descriptor; expected frames showing a face";
}

#ifdef MSMFACE_HAVE_DESCRIPTOR
std::optional<msmface::FaceDescriptor> describeByPoints(const msmface::Detector& detector,
                                                        const msmface::Descriptor& descriptor,
                                                        const GreyImage& image,
                                                        const std::array<double, 28>& points) {
    const msmface::FrameView view{image.pixels.data(), image.width, image.height, 0,
                                  msmface::PixelFormat::Grey};
    const auto box = msmface::boxFromPoints(msmface::toFacePoints(points));
    if (!box) return std::nullopt;
    const auto fitted = detector.fit(view, *box);
    if (!fitted) return std::nullopt;
    auto described = descriptor.compute(view, *fitted);
    if (!described) return std::nullopt;
    return *described;
}

namespace {

class NetworkDescriber : public FrameDescriber {
  public:
    NetworkDescriber(msmface::Descriptor descriptor, std::optional<msmface::Detector> detector)
        : descriptor_(std::move(descriptor)), detector_(std::move(detector)) {}

    std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) override {
        if (!detector_) return std::nullopt;
        return describeByPoints(*detector_, descriptor_, image, points);
    }

    std::optional<msmface::FaceDescriptor> describeLandmarks(
        const msmface::FrameView& frame, const std::array<float, 136>& landmarks) override {
        msmface::DetectedFace face;
        face.landmarks = landmarks;
        auto described = descriptor_.compute(frame, face);
        if (!described) return std::nullopt;
        return *described;
    }

  private:
    msmface::Descriptor descriptor_;
    std::optional<msmface::Detector> detector_;  // withPoints only
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

std::string makeFrameDescriber(const DescriberOptions& options, std::unique_ptr<FrameDescriber>&) {
    return options.argument +
           ": face descriptors are not available in this build (built without the detector's "
           "descriptor, which needs libdlib-dev and libopencv-dnn-dev)";
}

#endif

}  // namespace msmcli
