#include "support/shared_faces.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include <msmface/face_input.h>
#include <msmface/frame_lists.h>

#include "io/byte_reader.h"

namespace msmbench {
namespace {

// The grey value at (x, y) of src between its pixel centres; positions outside are clamped to the
// border pixels.
double sampleAt(const GreyPicture& src, double x, double y) {
    const double cx = std::clamp(x, 0.0, src.width - 1.0);
    const double cy = std::clamp(y, 0.0, src.height - 1.0);
    const int x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
    const int x1 = std::min(x0 + 1, src.width - 1), y1 = std::min(y0 + 1, src.height - 1);
    const double ax = cx - x0, ay = cy - y0;
    const auto at = [&](int px, int py) {
        return static_cast<double>(src.pixels[static_cast<std::size_t>(py) * src.width + px]);
    };
    const double top = (1 - ax) * at(x0, y0) + ax * at(x1, y0);
    const double bottom = (1 - ax) * at(x0, y1) + ax * at(x1, y1);
    return (1 - ay) * top + ay * bottom;
}

}  // namespace

std::string facesFolder() {
    return std::string(MSMFACE_SHARED_DIR) + "/faces";
}

std::vector<FaceRow> readFaceManifest(std::string& error) {
    // The library's own reader: the benchmarks read the manifest as every host does.
    const auto list = msmface::readManifest(facesFolder() + "/manifest.csv");
    if (!list.ok()) {
        error = list.message();
        return {};
    }
    std::vector<FaceRow> rows;
    for (const msmface::FrameRow& r : list.value()) {
        FaceRow row;
        row.identity = r.identity;
        row.video = r.video;
        row.image = r.image;
        row.points = msmface::toFacePoints(r.points).xy;
        rows.push_back(std::move(row));
    }
    return rows;
}

bool readPgm(const std::string& path, GreyPicture& out) {
    std::vector<unsigned char> bytes;
    if (!msm::readWholeFile(path.c_str(), bytes) || bytes.size() < 3 || bytes[0] != 'P' ||
        bytes[1] != '5')
        return false;
    msm::TextReader header(bytes.data() + 2, bytes.size() - 2);
    int32_t width = 0, height = 0, maxValue = 0;
    if (!header.readInt(width) || !header.readInt(height) || !header.readInt(maxValue) ||
        maxValue != 255 || width < 1 || height < 1 || width > 16384 || height > 16384)
        return false;
    // One white-space byte separates the header from the pixels.
    const std::size_t start = bytes.size() - header.remaining() + 1;
    const std::size_t count = static_cast<std::size_t>(width) * height;
    if (start > bytes.size() || bytes.size() - start < count) return false;
    out.width = width;
    out.height = height;
    out.pixels.assign(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                      bytes.begin() + static_cast<std::ptrdiff_t>(start + count));
    return true;
}

std::vector<FacePicture> readFacePictures(std::string& error) {
    std::vector<FacePicture> pictures;
    for (FaceRow& row : readFaceManifest(error)) {
        FacePicture p;
        if (!readPgm(facesFolder() + "/" + row.image, p.picture)) continue;
        p.row = std::move(row);
        pictures.push_back(std::move(p));
    }
    if (pictures.empty() && error.empty()) error = facesFolder() + ": no picture reads";
    return pictures;
}

GreyPicture canvas(int width, int height, unsigned char value) {
    GreyPicture p;
    p.width = width;
    p.height = height;
    p.pixels.assign(static_cast<std::size_t>(width) * height, value);
    return p;
}

// A pixel x of dst shows src at (x - left + 0.5) / scale - 0.5, so a point p of src lands at
// left + (p + 0.5) * scale - 0.5.
void paste(const GreyPicture& src, double scale, double left, double top, GreyPicture& dst) {
    for (int y = 0; y < dst.height; ++y) {
        const double sy = (y - top + 0.5) / scale - 0.5;
        if (sy < -0.5 || sy > src.height - 0.5) continue;
        for (int x = 0; x < dst.width; ++x) {
            const double sx = (x - left + 0.5) / scale - 0.5;
            if (sx < -0.5 || sx > src.width - 0.5) continue;
            dst.pixels[static_cast<std::size_t>(y) * dst.width + x] =
                static_cast<unsigned char>(std::lround(sampleAt(src, sx, sy)));
        }
    }
}

}  // namespace msmbench
