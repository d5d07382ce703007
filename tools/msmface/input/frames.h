// The program's frames: decoded pictures with the fourteen points of the face, handed to the
// library as samples (which the library repeats with jitter when more are wanted).
#ifndef MSMFACE_TOOLS_MSMFACE_FRAMES_H
#define MSMFACE_TOOLS_MSMFACE_FRAMES_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/gallery.h>

#include "input/image_io.h"

namespace msmcli {

// A camera frame with the fourteen feature points of the face in it, and for a directory of
// descriptors the face's descriptor (input/frame_descriptors.h).
struct Frame {
    std::shared_ptr<const GreyImage> image;
    std::array<double, 28> points{};
    std::optional<msmface::FaceDescriptor> descriptor;
};

// Views of the frames for the library. The samples point into the frames' pictures: frames must
// outlive them.
std::vector<msmface::Sample> samplesOf(const std::vector<Frame>& frames);

// Every person's score from a recognition, in the order of persons (the gallery's), -1 where none
// was computed; all -1 when the recognition failed.
std::vector<int> scoresOf(const msmface::Result<msmface::Ranking>& r,
                          const std::vector<msmface::Person>& persons);

// The 64 x 64 normalised face of the first frame whose face the library can normalise; empty
// when none can.
std::vector<unsigned char> firstNormalisedFace(const std::vector<Frame>& frames);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAMES_H
