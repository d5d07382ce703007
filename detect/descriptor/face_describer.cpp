// The FaceDescriber: a Follower's face, described.
#include <msmface/descriptor.h>

#include <utility>

namespace msmface {

FaceDescriber::FaceDescriber(const Detector& detector, Descriptor descriptor,
                             const FollowerOptions& options)
    : follower_(detector, options), descriptor_(std::move(descriptor)) {}

FaceDescriber::~FaceDescriber() = default;

bool FaceDescriber::describe(const FrameView& frame, DetectedFace& face,
                             std::optional<FaceDescriptor>& out) {
    out.reset();
    if (!follower_.track(frame, face)) return false;
    // A face too small or too near the border is followed still (it may come closer) but gives
    // no descriptor for this frame.
    if (auto described = descriptor_.compute(frame, face)) out = *described;
    return true;
}

bool FaceDescriber::findDescriptor(const FrameView& frame, FaceDescriptor& out) {
    DetectedFace face;
    std::optional<FaceDescriptor> described;
    if (!describe(frame, face, described) || !described) return false;
    out = *described;
    return true;
}

void FaceDescriber::reset() {
    follower_.reset();
}

Result<std::shared_ptr<FaceDescriber>> makeDescriptorFinder(
    const DescriptorFinderOptions& options) {
    auto detector = Detector::create(options.detector);
    if (!detector) return detector.status();
    auto descriptor = Descriptor::load(options.descriptor);
    if (!descriptor) return descriptor.status();
    return std::make_shared<FaceDescriber>(*detector, std::move(descriptor).value(),
                                           options.follower);
}

}  // namespace msmface
