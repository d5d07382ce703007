#include "gallery/frame_input.h"

#include <cmath>
#include <cstring>

namespace msmface::detail {
namespace {

bool knownFormat(PixelFormat f) {
    return f == PixelFormat::Grey || f == PixelFormat::BGR || f == PixelFormat::RGB;
}

}  // namespace

std::string checkFrame(const FrameView& frame) {
    if (frame.data == nullptr) return "no pixels (data is null)";
    if (!knownFormat(frame.format))
        return "unknown pixel format " + std::to_string(static_cast<int>(frame.format)) +
               "; expected Grey, BGR or RGB";
    const std::string size = std::to_string(frame.width) + " x " + std::to_string(frame.height);
    if (frame.width < 2 || frame.height < 2) return size + " pixels; expected at least 2 x 2";
    if (frame.width > kMaxFrameSide || frame.height > kMaxFrameSide ||
        static_cast<long long>(frame.width) * frame.height > kMaxFramePixels)
        return size + " pixels; expected at most 16384 on a side and 64 Mi pixels";
    const int bytes = bytesPerPixel(frame.format);
    if (frame.stride != 0 && frame.stride < frame.width * bytes)
        return "stride " + std::to_string(frame.stride) + " is less than a row of " +
               std::to_string(frame.width) + " pixels of " + std::to_string(bytes) + " byte" +
               (bytes == 1 ? "" : "s");
    return {};
}

bool toGrey(const FrameView& frame, BasicImageFile& out) {
    if (out.pixels == nullptr || out.width != frame.width || out.height != frame.height ||
        out.bitsPerPixel != 8) {
        if (!out.Allocate(frame.width, frame.height, 8)) return false;
    }
    const std::size_t stride = static_cast<std::size_t>(frame.rowBytes());
    const std::size_t width = static_cast<std::size_t>(frame.width);
    for (int y = 0; y < frame.height; ++y) {
        const unsigned char* row = frame.data + static_cast<std::size_t>(y) * stride;
        unsigned char* dst = out.pixels + static_cast<std::size_t>(y) * width;
        if (frame.format == PixelFormat::Grey) {
            std::memcpy(dst, row, width);
            continue;
        }
        const bool bgr = frame.format == PixelFormat::BGR;
        for (std::size_t x = 0; x < width; ++x) {
            const unsigned char* p = row + 3 * x;
            const unsigned r = bgr ? p[2] : p[0], g = p[1], b = bgr ? p[0] : p[2];
            dst[x] = static_cast<unsigned char>((r * 299 + g * 587 + b * 114) / 1000);
        }
    }
    return true;
}

}  // namespace msmface::detail
