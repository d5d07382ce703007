// Repeated frames with their points moved a little, as a live camera's detector moves them from
// frame to frame: how a host with few frames offers an enrolment (50 normalised faces) or a
// recognition the frames it asks for. The program and the Python module both use this one
// generator, so the same seed gives the same points in either, and their runs reproduce each
// other's.
//
// The generator, fixed so that any host can reproduce it: the 32-bit Mersenne twister MT19937
// (std::mt19937) seeded with the seed; each shift takes two of its numbers a, then b, forms
// u = (a + b * 2^32) / 2^64 in double precision (the largest double below 1 should that round to
// 1) and gives -pixels + u * (2 * pixels). A sample's points take 28 shifts, x0, y0 ... x13, y13
// in order, each added to its coordinate in double precision and rounded to float; the shifts of
// an absent point (<msmface/frame.h>) are drawn and not applied, so that it stays absent.
//
// Threads. A Jitter is used by one thread at a time; the functions keep no state.
#ifndef MSMFACE_JITTER_H
#define MSMFACE_JITTER_H

#include <cstdint>
#include <random>
#include <vector>

#include <msmface/export.h>
#include <msmface/frame.h>
#include <msmface/gallery.h>
#include <msmface/result.h>

namespace msmface {

// A run of copies or of offered frames larger than these would be a list larger than memory
// made from a few frames.
inline constexpr int kMaxJitterCopies = 1000;
inline constexpr int kMaxOfferedFrames = 1000000;
// Shifts beyond this are no camera's jitter but a mistake.
inline constexpr double kMaxJitterPixels = 1000.0;

class MSMFACE_API Jitter {
  public:
    // requires: 0 <= pixels <= kMaxJitterPixels (jitterFrames and offerFrames check it).
    Jitter(uint32_t seed, double pixels);

    // The next shift, in [-pixels, pixels).
    double nextShift();
    // The points moved by the next 28 shifts (see above).
    FacePoints moved(const FacePoints& points);

  private:
    std::mt19937 generator_;
    double pixels_;
};

// copies x frames.size() samples: copy 0 is the frames as they are, every further copy repeats
// them in order with their points moved by one Jitter(seed, pixels) (samples without points are
// repeated unchanged and take no shifts). The samples view the caller's frames: those must
// outlive them. Fails (Argument) for copies outside 1 .. kMaxJitterCopies ("copies 0: ...") or
// pixels outside 0 .. kMaxJitterPixels ("pixels -1: ...").
MSMFACE_API Result<std::vector<Sample>> jitterFrames(const std::vector<Sample>& frames, int copies,
                                                     double pixels, uint32_t seed);

// What a host offers when it wants `wanted` frames from frames: as many whole jittered copies as
// reach wanted, ceil(wanted / frames.size()) of them (jitterFrames), so that every frame is
// offered equally often and weighs alike in the input; never fewer than the frames given. Fails
// (Argument) for no frames ("frames: ..."), wanted outside 1 .. kMaxOfferedFrames or needing
// more than kMaxJitterCopies copies ("wanted 0: ..."), or pixels as above.
MSMFACE_API Result<std::vector<Sample>> offerFrames(const std::vector<Sample>& frames, int wanted,
                                                    double pixels, uint32_t seed);

}  // namespace msmface

#endif  // MSMFACE_JITTER_H
