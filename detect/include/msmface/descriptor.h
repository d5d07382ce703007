// A learned face descriptor: 128 numbers per face from a residual network trained on millions of
// faces, whose cosines tell persons apart far better than hand-made patterns. A component of the
// detector library, usable alone: a frame and a DetectedFace (or a ready 150x150 chip) in,
// an L2-normalised std::array<float, 128> out. The network runs on OpenCV's dnn module, built at
// load time from the published weights (two files that tools/fetch_descriptor_model.sh installs).
//
// Ownership and threads. A Descriptor holds the network (about 6 MB of weights and the layers'
// buffers); it is movable, not copyable, and one thread at a time uses it. Two Descriptors are
// independent and may run on two threads.
//
// How many cores a descriptor uses. OpenCV keeps one thread count for the whole process
// (cv::setNumThreads), shared by every OpenCV call of the host, so the library cannot give a
// single network its own count. DescriptorOptions::threads therefore says what load() does to
// that process-wide setting, in the open: 1 (the default) makes OpenCV run on the calling thread
// alone, n > 1 allows n threads, 0 leaves the host's setting untouched. A host that uses OpenCV
// itself and has chosen its own count passes 0. The other way to use more cores is the host's:
// one Descriptor per thread of its own, each face or frame on its own core, which scales with
// faces and changes nothing for anyone else.
#ifndef MSMFACE_DESCRIPTOR_H
#define MSMFACE_DESCRIPTOR_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/detect.h>
#include <msmface/frame.h>
#include <msmface/result.h>

namespace msmface {

// kDescriptorSize and FaceDescriptor: <msmface/frame.h>.
inline constexpr int kDescriptorChipSide = 150;

// The two files of the model, as tools/fetch_descriptor_model.sh installs them.
inline constexpr const char* kDescriptorManifestFile =
    "face_recognition_model-weights_manifest.json";
inline constexpr const char* kDescriptorWeightsFile = "face_recognition_model.bin";
// Names the model's folder (or its manifest) when DescriptorOptions::modelPath is empty.
inline constexpr const char* kDescriptorModelEnvironment = "MSMFACE_DESCRIPTOR_MODEL";

// Where the model is looked for when neither the option nor the environment names it:
// $XDG_DATA_HOME/msmface/descriptor, with XDG_DATA_HOME defaulting to ~/.local/share (the user's
// data, shared by every build folder and by an installed library; writable without root). An
// XDG_DATA_HOME that is not an absolute path is ignored.
MSMFACE_DETECT_API std::string defaultDescriptorModelFolder();

struct DescriptorOptions {
    // The model's folder (holding kDescriptorManifestFile and the weights it names) or the
    // manifest itself; empty: MSMFACE_DESCRIPTOR_MODEL, else defaultDescriptorModelFolder().
    std::string modelPath;
    // OpenCV's process-wide thread count as load() leaves it: 0 untouched, n >= 1 set to n (see
    // the header's first comment).
    int threads = 1;
};

// The chip the network sees: kDescriptorChipSide square, RGB, three bytes per pixel, no padding.
struct FaceChip {
    std::vector<unsigned char> rgb;
    FrameView view() const {
        return {rgb.data(), kDescriptorChipSide, kDescriptorChipSide, 0, PixelFormat::RGB};
    }
};

// The chip of a face, cut from the 68 landmarks: the face turned upright and scaled so that its
// points land where the network was trained to see them, with a quarter of the face's size as
// margin (area outside the frame is black). A Grey frame is replicated to R, G and B. Argument
// failures: a view that breaks FrameView's requirements, landmarks that are not finite, a face
// whose centre lies outside the frame, a face whose chip would come from fewer than
// kMinChipSourceSide pixels across (too small to describe), or a chip of which less than half lies
// inside the frame (too close to the border).
inline constexpr int kMinChipSourceSide = 40;
MSMFACE_DETECT_API Result<FaceChip> cutFaceChip(const FrameView& frame,
                                                const std::array<float, 136>& landmarks);

class MSMFACE_DETECT_API Descriptor {
  public:
    // Builds the network from the model's files (a fraction of a second). A missing model is a
    // NotFound failure naming the command that installs it; a damaged one (a manifest that does
    // not parse or does not describe this network, weights shorter or longer than the manifest
    // says, values that are not finite numbers) a File failure naming the file.
    static Result<Descriptor> load(const DescriptorOptions& options = {});

    Descriptor(Descriptor&&) noexcept;
    Descriptor& operator=(Descriptor&&) noexcept;
    ~Descriptor();

    // The descriptor of a detected face: cutFaceChip(frame, face.landmarks), then computeChip.
    Result<FaceDescriptor> compute(const FrameView& frame, const DetectedFace& face) const;
    // The descriptor of a chip already cut: a kDescriptorChipSide square view of any pixel
    // format (Grey replicated to RGB); another size is an Argument failure.
    Result<FaceDescriptor> computeChip(const FrameView& chip) const;

    class Impl;

  private:
    explicit Descriptor(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// The descriptor of the most prominent face of each frame, from pixels alone: the detector finds
// the face (following it from frame to frame through a Follower, or afresh in every frame with
// FollowerOptions::redetectEvery = 1 for unrelated pictures), fits the 68 landmarks and the
// descriptor describes the chip cut from them. A DescriptorFinder, so it can be handed to a
// Gallery (setDescriptorFinder) or a Stream (StreamOptions::describer) of descriptors.
//
// A face the detector finds but whose chip cutFaceChip refuses (too small to describe, or too
// close to the border) is no face for the finder: the frame counts as a frame without a face.
// Shares the Detector's landmark model (the Detector may go before it); owns its Descriptor. Used
// by one thread at a time, as a Follower is.
class MSMFACE_DETECT_API FaceDescriber : public DescriptorFinder {
  public:
    FaceDescriber(const Detector& detector, Descriptor descriptor,
                  const FollowerOptions& options = {});
    ~FaceDescriber() override;

    // True and the face found in this frame, with its descriptor in out, or with out empty when
    // the face cannot be described (its chip would be too small or too far outside the frame: the
    // face is still followed). False when there is no face (face and out then unspecified).
    bool describe(const FrameView& frame, DetectedFace& face, std::optional<FaceDescriptor>& out);
    // True and the descriptor when describe() found a face and described it.

    bool findDescriptor(const FrameView& frame, FaceDescriptor& out) override;
    // Forgets the face followed.
    void reset() override;
    // The descriptor it describes with, for faces the host finds otherwise.
    const Descriptor& descriptor() const { return descriptor_; }

  private:
    Follower follower_;
    Descriptor descriptor_;
};

// A host's whole setup in one call: the landmark model and the descriptor model loaded (with
// their own options; each failure is Detector::create's or Descriptor::load's) and a
// FaceDescriber over them.
struct DescriptorFinderOptions {
    DetectorOptions detector;
    DescriptorOptions descriptor;
    FollowerOptions follower;  // redetectEvery = 1: unrelated pictures rather than a video
};
MSMFACE_DETECT_API Result<std::shared_ptr<FaceDescriber>> makeDescriptorFinder(
    const DescriptorFinderOptions& options = {});

}  // namespace msmface

#endif  // MSMFACE_DESCRIPTOR_H
