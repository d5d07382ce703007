#include "input/face_descriptors.h"

#include <utility>

#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#endif

namespace msmcli {

std::vector<msmface::Sample> descriptorSamples(
    const std::vector<msmface::FaceDescriptor>& descriptors) {
    std::vector<msmface::Sample> samples(descriptors.size());
    for (std::size_t i = 0; i < descriptors.size(); ++i) samples[i].descriptor = descriptors[i];
    return samples;
}

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
namespace {

msmface::FrameView viewOf(const GreyImage& image) {
    return {image.pixels.data(), image.width, image.height, 0, msmface::PixelFormat::Grey};
}

class LibraryDescriber : public FrameDescriber {
  public:
    LibraryDescriber(msmface::Detector detector, msmface::Descriptor descriptor)
        : detector_(std::move(detector)),
          // Stills: every picture searched afresh, as the program's face finder searches them.
          describer_(detector_, std::move(descriptor), msmface::FollowerOptions{1}) {}

    bool detect(const GreyImage& image, std::array<double, 28>& points,
                std::optional<msmface::FaceDescriptor>& descriptor) override {
        msmface::DetectedFace face;
        if (!describer_.describe(viewOf(image), face, descriptor)) return false;
        for (int k = 0; k < 28; ++k) points[k] = face.points.xy[k];
        return true;
    }

    std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) override {
        const msmface::FrameView view = viewOf(image);
        msmface::FacePoints p;
        for (int k = 0; k < 28; ++k) p.xy[k] = static_cast<float>(points[k]);
        const auto box = msmface::boxFromPoints(p);
        if (!box) return std::nullopt;
        const auto fitted = detector_.fit(view, *box);
        if (!fitted) return std::nullopt;
        auto described = describer_.descriptor().compute(view, *fitted);
        if (!described) return std::nullopt;
        return *described;
    }

    std::optional<msmface::FaceDescriptor> describeLandmarks(
        const msmface::FrameView& frame, const std::array<float, 136>& landmarks) override {
        msmface::DetectedFace face;
        face.landmarks = landmarks;
        auto described = describer_.descriptor().compute(frame, face);
        if (!described) return std::nullopt;
        return *described;
    }

  private:
    msmface::Detector detector_;
    msmface::FaceDescriber describer_;
};

}  // namespace

bool descriptorsAvailable() {
    return true;
}

std::string makeFrameDescriber(const std::string& modelPath, const std::string&,
                               std::unique_ptr<FrameDescriber>& out,
                               const std::string& descriptorModel) {
    msmface::DetectorOptions options;
    options.modelPath = modelPath;
    auto detector = msmface::Detector::create(options);
    if (!detector) return detector.message();
    msmface::DescriptorOptions descriptorOptions;
    descriptorOptions.modelPath = descriptorModel;
    auto descriptor = msmface::Descriptor::load(descriptorOptions);
    if (!descriptor) return descriptor.message();
    out = std::make_unique<LibraryDescriber>(std::move(detector).value(),
                                             std::move(descriptor).value());
    return {};
}

#else

bool descriptorsAvailable() {
    return false;
}

std::string makeFrameDescriber(const std::string&, const std::string& argument,
                               std::unique_ptr<FrameDescriber>&, const std::string&) {
    return argument +
           ": face descriptors are not available in this build (built without the detector's "
           "descriptor, which needs libdlib-dev and libopencv-dnn-dev)";
}

#endif

}  // namespace msmcli
