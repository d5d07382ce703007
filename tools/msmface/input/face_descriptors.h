// The learned descriptors of the program's frames, computed by the detector library when the
// program is built with its descriptor (MSMFACE_HAVE_DESCRIPTOR); without it every call says that
// descriptors are not available in this build.
#ifndef MSMFACE_TOOLS_MSMFACE_FACE_DESCRIPTORS_H
#define MSMFACE_TOOLS_MSMFACE_FACE_DESCRIPTORS_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/gallery.h>

#include "input/frames.h"

namespace msmcli {

class FrameDescriber {
  public:
    virtual ~FrameDescriber() = default;
    // A still picture, its face found afresh: true when there is one, with its fourteen points
    // and its descriptor (nothing when the face is too small or too near the border to describe).
    virtual bool detect(const GreyImage& image, std::array<double, 28>& points,
                        std::optional<msmface::FaceDescriptor>& descriptor) = 0;
    // The face whose fourteen points are known: the 68 landmarks fitted in the box the points
    // imply (msmface::boxFromPoints), then described. Nothing when the points describe no face or
    // the face cannot be described.
    virtual std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) = 0;
    // The face whose 68 landmarks the program's face finder fitted, described on the frame as it
    // was decoded (colour when it has colour). Nothing when the face cannot be described.
    virtual std::optional<msmface::FaceDescriptor> describeLandmarks(
        const msmface::FrameView& frame, const std::array<float, 136>& landmarks) = 0;
};

// True when the program was built with the descriptor.
bool descriptorsAvailable();

// Loads the landmark model (modelPath empty: the detector's default) and the descriptor model
// (descriptorModel, --descriptor-model; empty: its default folder or MSMFACE_DESCRIPTOR_MODEL).
// argument names the option that asked for descriptors, for the message of a build without them.
// An empty string or a one-line reason.
std::string makeFrameDescriber(const std::string& modelPath, const std::string& argument,
                               std::unique_ptr<FrameDescriber>& out,
                               const std::string& descriptorModel = {});

// Gives each of frames (which came with their points) the descriptor describeAt finds and drops
// the frames without one. what names the frames' list for the message when none is left. An
// empty string or one line.
std::string describeFramesByPoints(FrameDescriber& describer, const std::string& what,
                                   std::vector<Frame>& frames);

// Samples given by their descriptors alone, for a gallery of descriptors.
std::vector<msmface::Sample> descriptorSamples(
    const std::vector<msmface::FaceDescriptor>& descriptors);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FACE_DESCRIPTORS_H
