// Pictures in and out of the msmface program: any common format decoded to 8-bit grey, and the
// program's own pictures written as PNG.
#ifndef MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H
#define MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H

#include <string>
#include <vector>

namespace msmcli {

// Larger pictures are refused before any pixel is decoded.
inline constexpr int kMaxPictureSide = 16384;
inline constexpr long long kMaxPicturePixels = 64LL * 1024 * 1024;

struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;  // width * height bytes, rows top-down
};

// Decodes PGM/PPM (binary), PNG, JPEG or BMP at path into 8-bit grey (colour is mixed down).
// Returns an empty string, or a one-line reason naming the file: missing or unreadable, not a
// picture, 16 bits per sample, or larger than the limits above.
std::string loadGreyImage(const std::string& path, GreyImage& out);

// Writes width x height pixels of `channels` bytes each (1 grey, 3 RGB) as PNG. False when the
// file cannot be written.
bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<unsigned char>& pixels);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H
