// The shared real faces (MSMFACE_SHARED_DIR/faces) for the benchmarks: the manifest's rows, their
// 8-bit PGM pictures, and camera-sized frames composed from them. The benchmarks measure the
// library on these, reading the manifest with the library's reader.
#ifndef MSMFACE_BENCH_SUPPORT_SHARED_FACES_H
#define MSMFACE_BENCH_SUPPORT_SHARED_FACES_H

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include <msmface/frame.h>

namespace msmbench {

// The folder of the manifest; its rows name their pictures relative to it.
std::string facesFolder();

struct FaceRow {
    std::string identity;
    std::string video;
    std::string image;               // path relative to facesFolder()
    std::array<float, 28> points{};  // x0, y0 ... x13, y13
    double eyeDistance() const { return std::hypot(points[2] - points[0], points[3] - points[1]); }
};

// Every row of the manifest, in its order. Empty with error saying why (in one line naming the
// file and the line) when the manifest is absent or does not parse.
std::vector<FaceRow> readFaceManifest(std::string& error);

struct GreyPicture {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;
    msmface::FrameView view() const {
        return {pixels.data(), width, height, 0, msmface::PixelFormat::Grey};
    }
};

// A binary 8-bit PGM file ("P5", maximum 255). False when the file is anything else.
bool readPgm(const std::string& path, GreyPicture& out);

struct FacePicture {
    FaceRow row;
    GreyPicture picture;
};

// Every row of the manifest with its picture, rows whose picture does not read left out. Empty
// with error saying why when the manifest cannot be read or no picture reads.
std::vector<FacePicture> readFacePictures(std::string& error);

// A width x height picture of one grey value, into which faces are pasted.
GreyPicture canvas(int width, int height, unsigned char value = 96);

// src scaled by scale (bilinear, pixel centres aligned) with its pixel (0, 0) corner at
// (left, top) of dst; the part outside dst is dropped.
void paste(const GreyPicture& src, double scale, double left, double top, GreyPicture& dst);

}  // namespace msmbench

#endif  // MSMFACE_BENCH_SUPPORT_SHARED_FACES_H
