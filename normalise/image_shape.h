// The one place that decides whether an image shape is acceptable and how many bytes it holds,
// shared by the allocator and the file writers so a hostile shape is refused the same way.
#ifndef MSMFACE_NORMALISE_IMAGE_SHAPE_H
#define MSMFACE_NORMALISE_IMAGE_SHAPE_H

#include <cstdint>

namespace msm {

// Bytes of a pixel buffer of the given shape: (width * height * bitsPerPixel) / 8.
// Returns -1 unless width >= 1, height >= 1, bitsPerPixel is 8 or 24 and the product
// width * height * bitsPerPixel fits a signed 32-bit integer (larger pictures cannot be described
// by the 32-bit fields of the container and the files).
int64_t imageByteCount(int64_t width, int64_t height, int64_t bitsPerPixel);

}  // namespace msm

#endif  // MSMFACE_NORMALISE_IMAGE_SHAPE_H
