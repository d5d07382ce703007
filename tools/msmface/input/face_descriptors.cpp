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

  private:
    msmface::Detector detector_;
    msmface::FaceDescriber describer_;
};

}  // namespace

bool descriptorsAvailable() {
    return true;
}

std::string makeFrameDescriber(const std::string& modelPath, const std::string&,
                               std::unique_ptr<FrameDescriber>& out) {
    msmface::DetectorOptions options;
    options.modelPath = modelPath;
    auto detector = msmface::Detector::create(options);
    if (!detector) return detector.message();
    auto descriptor = msmface::Descriptor::load();
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
                               std::unique_ptr<FrameDescriber>&) {
    return argument +
           ": face descriptors are not available in this build (built without the detector's "
           "descriptor, which needs libdlib-dev and libopencv-dnn-dev)";
}

#endif

}  // namespace msmcli
