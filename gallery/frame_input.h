// Frames of the modern interface turned into what the engine reads: an 8-bit grey
// BasicImageFile (the points: toPartsPosition of <msmface/face_input.h>).
#ifndef MSMFACE_GALLERY_FRAME_INPUT_H
#define MSMFACE_GALLERY_FRAME_INPUT_H

#include <string>

#include <msmface/BasicImage.h>
#include <msmface/face_input.h>
#include <msmface/frame.h>

namespace msmface::detail {

// Larger frames are refused before a byte is read: no camera delivers them, and a view that
// claims them is more likely a mistake than a picture.
inline constexpr int kMaxFrameSide = 16384;
inline constexpr long long kMaxFramePixels = 64LL * 1024 * 1024;

// An empty string, or what is wrong with the view (without naming the frame): no pixels, a side
// under 2 pixels, a size beyond the limits, an unknown pixel format, a stride under one row.
std::string checkFrame(const FrameView& frame);

// The view mixed down to grey into out, which is reallocated only when its size differs.
// requires: checkFrame(frame) is empty. False only when out cannot be allocated.
bool toGrey(const FrameView& frame, BasicImageFile& out);

}  // namespace msmface::detail

#endif  // MSMFACE_GALLERY_FRAME_INPUT_H
