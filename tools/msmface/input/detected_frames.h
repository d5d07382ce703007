// Frames for enrol and recognise from pictures without points: every frame of the source whose
// face the detector finds, with the points it found.
#ifndef MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H
#define MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H

#include <string>
#include <vector>

#include "input/frames.h"
#include "input/picture_source.h"

namespace msmcli {

// Reads the source, finds the face in each frame (afresh in each image file, followed through a
// video or a camera) and keeps the frames that have one. A source without any face is an error
// naming it. Returns an empty string or a one-line reason.
std::string gatherDetectedFrames(const PictureSourceOptions& source, const std::string& modelPath,
                                 std::vector<Frame>& out);

class FaceFinder;

// Replaces the points of frames by those the finder finds in their pictures, and drops the frames
// where it finds no face. Returns how many frames kept a face.
int replaceWithFoundPoints(FaceFinder& finder, std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_DETECTED_FRAMES_H
