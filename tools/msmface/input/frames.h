// The program's frames: decoded pictures with the fourteen points of the face, repeated with
// jitter when a registration needs more of them, and handed to the library as samples.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAMES_H
#define MSMFACE_TOOLS_MSMFACE_FRAMES_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <msmface/gallery.h>

#include "input/image_io.h"

namespace msmcli {

// A camera frame with the fourteen feature points of the face in it.
struct Frame {
    std::shared_ptr<const GreyImage> image;
    std::array<double, 28> points{};
};

// copies x frames.size() frames: copy 0 is the frames as they are, every further copy moves each
// point by up to `pixels` in x and y (uniformly, deterministic in seed), as a live camera's
// detector would from frame to frame.
std::vector<Frame> jitterFrames(const std::vector<Frame>& frames, int copies, double pixels,
                                uint32_t seed);

// Views of the frames for the library. The samples point into the frames' pictures: frames must
// outlive them.
std::vector<msmface::Sample> samplesOf(const std::vector<Frame>& frames);

// Every person's score from a recognition, in the order of persons (the gallery's), -1 where none
// was computed; all -1 when the recognition failed.
std::vector<int> scoresOf(const msmface::Result<msmface::Ranking>& r,
                          const std::vector<msmface::Person>& persons);

// The 64 x 64 normalised face of the first frame whose face the engine can normalise; empty when
// none can.
std::vector<unsigned char> firstNormalisedFace(const std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAMES_H
