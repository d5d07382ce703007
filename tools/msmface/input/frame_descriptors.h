// The descriptor of the face in each of the program's frames, for the commands on directories of
// descriptors (enrol, recognise, calibrate, watch). A face the program's face finder found is
// described from the 68 landmarks it fitted, on the frame as decoded (colour when it has colour);
// a frame that comes with its fourteen points (a points file, a manifest) has the landmark model
// fitted in the box the points imply (msmface::boxFromPoints), where the detector would have put
// it. Built with the detector library's descriptor only (MSMFACE_HAVE_DESCRIPTOR); without it
// every call says that descriptors are not available in this build.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H
#define MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/frame.h>
#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#include <msmface/detect.h>
#endif

#include "input/frames.h"

namespace msmcli {

class FrameDescriber {
  public:
    virtual ~FrameDescriber() = default;
    // The face whose fourteen points are known. Nothing when the points place no face, or the
    // face is too small or too close to the border to describe. requires: the describer was made
    // withPoints.
    virtual std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) = 0;
    // The face whose 68 landmarks the program's face finder fitted. Nothing when the face cannot
    // be described.
    virtual std::optional<msmface::FaceDescriptor> describeLandmarks(
        const msmface::FrameView& frame, const std::array<float, 136>& landmarks) = 0;
};

struct DescriberOptions {
    std::string landmarkModel;    // --model; empty: the detector's default
    std::string descriptorModel;  // --descriptor-model; empty: MSMFACE_DESCRIPTOR_MODEL, else the
                                  // descriptor's default folder
    bool withPoints = false;      // frames come with points: the landmark model is loaded too
    std::string argument;  // what asked for descriptors, for the message of a build without them
};

#ifdef MSMFACE_HAVE_DESCRIPTOR
// The descriptor of the face whose fourteen points are known: the landmark model fitted in the
// box the points imply, where the detector would have put it, and the face described from those
// landmarks. Nothing when the points place no face or the face cannot be described.
std::optional<msmface::FaceDescriptor> describeByPoints(const msmface::Detector& detector,
                                                        const msmface::Descriptor& descriptor,
                                                        const GreyImage& image,
                                                        const std::array<double, 28>& points);
#endif

// Loads the models. An empty string or one line (a missing model names what installs it).
std::string makeFrameDescriber(const DescriberOptions& options,
                               std::unique_ptr<FrameDescriber>& out);

// Gives each of frames (which came with their points) its descriptor and drops the frames without
// one. what names the frames' list for the message when none is left. An empty string or one
// line.
std::string describeFramesByPoints(FrameDescriber& describer, const std::string& what,
                                   std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H
