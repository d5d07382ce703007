// The descriptor of the face in each of the program's frames, for directories of descriptors
// (msmface enrol --patterns descriptor). A frame whose face was found by the detector is
// described from the 68 landmarks the detector fitted; a frame that comes with its fourteen
// points (a points file, a manifest) has no landmarks, so the landmark model is fitted in the box
// the points imply (msmface::boxFromPoints), where the detector would have put it. Built with the
// face descriptor only (MSMFACE_HAVE_DESCRIPTOR); without it every call says so.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H
#define MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H

#include <memory>
#include <string>
#include <vector>

#include <msmface/frame.h>
#include <opencv2/core.hpp>

#include "input/face_finder.h"
#include "input/frames.h"

namespace msmcli {

class FrameDescriber {
  public:
    virtual ~FrameDescriber() = default;
    // The descriptor of a face the FaceFinder found in picture (grey or BGR). False when its chip
    // cannot be cut (a face too small or too close to the border).
    virtual bool describeFound(const cv::Mat& picture, const FoundFace& face,
                               msmface::FaceDescriptor& out) = 0;
    // The descriptor of the face a frame's fourteen points place. False when the points do not
    // place one, or its chip cannot be cut. requires: the describer was made withPoints.
    virtual bool describePoints(const Frame& frame, msmface::FaceDescriptor& out) = 0;
};

struct DescriberOptions {
    std::string landmarkModel;    // --model; empty: the detector's default
    std::string descriptorModel;  // --descriptor-model; empty: the descriptor's default
    bool withPoints = false;      // frames come with points: the landmark model is loaded too
};

// Loads the descriptor model (and with withPoints the landmark model). An empty string or one
// line: a missing model names the command that installs it.
std::string makeFrameDescriber(const DescriberOptions& options,
                               std::unique_ptr<FrameDescriber>& out);

// Gives each of frames (which came with points) its descriptor and drops the frames without one.
// what names the frames' source for the message when none is left. An empty string or one line.
std::string describeFramesByPoints(FrameDescriber& describer, const std::string& what,
                                   std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAME_DESCRIPTORS_H
