// Pictures in and out of the msmface program, all through OpenCV: any common format decoded to
// 8-bit grey or colour, and the program's own pictures written as PNG.
#ifndef MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H
#define MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H

#include <string>
#include <vector>

namespace cv {
class Mat;
}

namespace msmcli {

// Larger pictures are refused before any pixel is decoded: the size is read from the file's
// header (PNG, JPEG, BMP, PGM/PPM, TIFF, WebP), and a file whose header does not state it is not
// decoded at all.
inline constexpr int kMaxPictureSide = 16384;
inline constexpr long long kMaxPicturePixels = 64LL * 1024 * 1024;
// A picture file larger than this is not a camera frame.
inline constexpr long long kMaxPictureFileBytes = 512LL * 1024 * 1024;

struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;  // width * height bytes, rows top-down
};

// Decodes the picture at path (PGM/PPM, PNG, JPEG, BMP, TIFF, WebP, ... as OpenCV reads them; a
// photo's EXIF orientation is applied) into 8-bit BGR when it has colour, else 8-bit grey.
// Returns an empty string, or a one-line reason naming the file: missing or unreadable, not a
// regular file, empty, not a picture, 16 bits per sample, or larger than the limits above.
std::string loadPicture(const std::string& path, cv::Mat& out);

// The same, mixed down to grey ((R*299 + G*587 + B*114) / 1000, as the engine does).
std::string loadGreyImage(const std::string& path, GreyImage& out);

// width x height pixels of `channels` bytes each (1 grey, 3 RGB) encoded as PNG; empty when the
// arguments do not describe a picture.
std::vector<unsigned char> encodePng(int width, int height, int channels,
                                     const unsigned char* pixels);

// Writes such pixels as a PNG file (replaced whole, never left half-written). False when the file
// cannot be written.
bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<unsigned char>& pixels);
// Writes an OpenCV picture (grey or BGR) in the format its name ends with, replaced whole. An
// empty string, or one line naming the file and why it was not written.
std::string writePicture(const std::string& path, const cv::Mat& picture);

// Grey pixels of a picture that is grey or BGR, mixed as the engine mixes colour.
GreyImage greyOf(const cv::Mat& picture);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_IMAGE_IO_H
