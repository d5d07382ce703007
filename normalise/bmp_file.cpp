// Uncompressed BMP output: the picture stored with each enrolled person.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>

#include <msmface/BasicImage.h>

#include "io/atomic_file.h"
#include "normalise/image_shape.h"

namespace {

constexpr uint32_t kFileHeaderBytes = 14;
constexpr uint32_t kInfoHeaderBytes = 40;
constexpr uint32_t kGreyPaletteBytes = 256 * 4;

void putU16(unsigned char* at, uint32_t value) {
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
}

void putU32(unsigned char* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Rows are padded to whole 32-bit words.
uint32_t strideOf(uint32_t width, uint32_t bitsPerPixel) {
    return (width * bitsPerPixel / 8 + 3) & ~uint32_t{3};
}

// Bottom row first, colour pixels reversed: BMP wants blue, green, red where hosts hand us red,
// green, blue. Padding stays zero.
void fillBottomUp(const BasicImageData& image, uint32_t stride, unsigned char* rows) {
    const uint32_t width = static_cast<uint32_t>(image.width);
    const uint32_t height = static_cast<uint32_t>(image.height);
    const uint32_t bytesPerPixel = static_cast<uint32_t>(image.bitsPerPixel) / 8;
    const std::size_t sourceRow = std::size_t{width} * bytesPerPixel;
    for (uint32_t r = 0; r < height; ++r) {
        const unsigned char* from = image.pixels + sourceRow * r;
        unsigned char* to = rows + std::size_t{stride} * (height - 1 - r);
        if (bytesPerPixel == 1) {
            std::copy(from, from + width, to);
            continue;
        }
        for (uint32_t x = 0; x < width; ++x, from += 3, to += 3) {
            to[0] = from[2];
            to[1] = from[1];
            to[2] = from[0];
        }
    }
}

std::array<unsigned char, kFileHeaderBytes> fileHeader(uint32_t fileBytes, uint32_t dataOffset) {
    std::array<unsigned char, kFileHeaderBytes> h{};
    h[0] = 'B';
    h[1] = 'M';
    putU32(&h[2], fileBytes);
    putU32(&h[10], dataOffset);
    return h;
}

std::array<unsigned char, kInfoHeaderBytes> infoHeader(const BasicImageData& image) {
    std::array<unsigned char, kInfoHeaderBytes> h{};
    putU32(&h[0], kInfoHeaderBytes);
    putU32(&h[4], static_cast<uint32_t>(image.width));
    putU32(&h[8], static_cast<uint32_t>(image.height));  // positive: rows stored bottom-up
    putU16(&h[12], 1);
    putU16(&h[14], static_cast<uint32_t>(image.bitsPerPixel));
    // Compression, image size and resolutions stay 0; only the colour count is filled in.
    putU32(&h[32], image.bitsPerPixel == 8 ? 256 : 0);
    return h;
}

std::array<unsigned char, kGreyPaletteBytes> greyPalette() {
    std::array<unsigned char, kGreyPaletteBytes> p{};
    for (uint32_t i = 0; i < 256; ++i) {
        p[4 * i] = p[4 * i + 1] = p[4 * i + 2] = static_cast<unsigned char>(i);
    }
    return p;
}

}  // namespace

bool BasicImageFile::WriteBmp(const char* path) {
    if (pixels == nullptr) return false;
    // Fields changed by hand that no longer describe a picture are refused before any file exists.
    if (msm::imageByteCount(width, height, bitsPerPixel) < 0) return false;

    // Beside the target and renamed over it: a link put where the picture goes is replaced, never
    // followed, and a failed write leaves whatever was there before.
    msm::AtomicFile file(path);
    if (file.stream() == nullptr) return false;  // the failure is noted by the writer

    const uint32_t stride =
        strideOf(static_cast<uint32_t>(width), static_cast<uint32_t>(bitsPerPixel));
    const uint32_t paletteBytes = bitsPerPixel == 8 ? kGreyPaletteBytes : 0;
    // An accepted shape keeps this under 2^30 bytes, so the 32-bit size fields cannot wrap.
    const std::size_t rowBytes = std::size_t{stride} * static_cast<uint32_t>(height);
    std::unique_ptr<unsigned char[]> rows(new (std::nothrow) unsigned char[rowBytes]());
    if (rows == nullptr) {
        file.Commit();  // an empty file is left behind, as it always was
        return false;
    }
    fillBottomUp(*this, stride, rows.get());

    const uint32_t dataOffset = kFileHeaderBytes + kInfoHeaderBytes + paletteBytes;
    const auto head = fileHeader(dataOffset + static_cast<uint32_t>(rowBytes), dataOffset);
    const auto info = infoHeader(*this);
    std::FILE* out = file.stream();
    bool complete = msm::writeAll(out, head.data(), head.size()) &&
                    msm::writeAll(out, info.data(), info.size());
    if (complete && paletteBytes != 0) {
        const auto palette = greyPalette();
        complete = msm::writeAll(out, palette.data(), palette.size());
    }
    complete = complete && msm::writeAll(out, rows.get(), rowBytes);
    // kept: write errors do not change the result; enrolment does not depend on the picture. A host
    // that keeps the picture asks lastWriteFailure(), where the writer notes what failed.
    if (complete) file.Commit();
    return true;
}
