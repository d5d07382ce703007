// Frames and feature points as the modern interface takes them: plain views of the caller's
// pixels (no image library in the interface) and the fourteen points as floats.
#ifndef MSMFACE_FRAME_H
#define MSMFACE_FRAME_H

#include <array>
#include <cmath>
#include <cstdint>

namespace msmface {

enum class PixelFormat : int {
    Grey = 1,  // one byte per pixel
    BGR = 3,   // three bytes per pixel, blue first (OpenCV's order)
    RGB = 4,   // three bytes per pixel, red first
};

inline int bytesPerPixel(PixelFormat f) noexcept {
    return f == PixelFormat::Grey ? 1 : 3;
}

// A camera frame the caller owns; the library reads it during the call and keeps no pointer.
// requires: data points at height rows of stride bytes each; stride >= width * bytesPerPixel
// (0 means exactly that). Colour is mixed down to grey as (R*299 + G*587 + B*114) / 1000.
struct FrameView {
    const unsigned char* data = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;
    PixelFormat format = PixelFormat::Grey;

    int rowBytes() const noexcept { return stride > 0 ? stride : width * bytesPerPixel(format); }
};

inline constexpr int kFacePointCount = 14;

// The engine's value of a coordinate that was not found (<msmface/PartsPosition.h>): every whole
// pixel above 9998 and every negative one read as absent, and this is the one the library writes.
inline constexpr int32_t kAbsentCoordinate = 9999;

// The fourteen feature points in frame pixels, in the order of <msmface/PartsPosition.h>:
// xy[2k] is x (column) and xy[2k+1] is y (row) of point k. A point whose x or y is not a finite
// number or is negative is absent. The engine works in whole pixels: each coordinate is rounded
// to the nearest integer (halves away from zero) when the frame is normalised.
struct FacePoints {
    std::array<float, 2 * kFacePointCount> xy{};
};

// The learned descriptor of a face (<msmface/descriptor.h> computes one from a frame): what a
// gallery of descriptors takes instead of points. Compared by direction: any finite values of
// non-zero length.
inline constexpr int kDescriptorSize = 128;
using FaceDescriptor = std::array<float, kDescriptorSize>;

// Finds the face's fourteen points in a frame, for the calls that accept frames without points.
// The detector library (<msmface/detect.h>) provides one; a host may bring its own. Called on
// the thread of the call that received the frame; one finder is used by one caller at a time.
class PointFinder {
  public:
    virtual ~PointFinder() = default;
    // True and the points of the most prominent face, or false when the frame shows no face.
    virtual bool findPoints(const FrameView& frame, FacePoints& out) = 0;
    // Forget what was learnt from earlier frames (a new video or a jump in time).
    virtual void reset() {}
};

// Finds the descriptor of the face in a frame, for galleries of descriptors that receive frames
// alone. The detector library provides one (<msmface/descriptor.h>); a host may bring its own.
// Called on the thread of the call that received the frame; one finder is used by one caller at a
// time.
class DescriptorFinder {
  public:
    virtual ~DescriptorFinder() = default;
    // True and the descriptor of the most prominent face, or false when the frame shows no face.
    virtual bool findDescriptor(const FrameView& frame, FaceDescriptor& out) = 0;
    // Forget what was learnt from earlier frames (a new video or a jump in time).
    virtual void reset() {}
};

}  // namespace msmface

#endif  // MSMFACE_FRAME_H
