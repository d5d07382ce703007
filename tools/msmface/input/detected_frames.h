// Frames for enrol and recognise from pictures without points: every frame of the source whose
// face the detector finds, with the points it found.
#ifndef MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H
#define MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H

#include <string>
#include <vector>

#include "input/frames.h"
#include "input/picture_source.h"

namespace msmcli {

class FaceFinder;
class FrameDescriber;

// Reads the source, finds the face in each frame (afresh in each image file, followed through a
// video or a camera) and keeps the frames that have one. With a describer, each kept frame also
// carries its face's descriptor, computed on the picture as decoded (colour when it has colour),
// and a face that cannot be described is no face. A source without any face is an error naming
// it. Returns an empty string or a one-line reason.
std::string gatherDetectedFrames(const PictureSourceOptions& source, const std::string& modelPath,
                                 std::vector<Frame>& out, FrameDescriber* describer = nullptr);

// Replaces the points of frames by those the finder finds in their pictures, and drops the frames
// where it finds no face. Returns how many frames kept a face.
int replaceWithFoundPoints(FaceFinder& finder, std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H
