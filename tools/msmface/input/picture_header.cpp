#include "input/picture_header.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace msmcli {
namespace {

struct Bytes {
    const unsigned char* data;
    std::size_t n;
    std::size_t size() const { return n; }
    unsigned char operator[](std::size_t i) const { return data[i]; }
    const unsigned char* at(std::size_t i) const { return data + i; }
};

uint32_t bigEndian(const unsigned char* p, int bytes) {
    uint32_t v = 0;
    for (int i = 0; i < bytes; ++i) v = v << 8 | p[i];
    return v;
}

uint32_t littleEndian(const unsigned char* p, int bytes) {
    uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

PictureHeader pngHeader(Bytes b) {
    PictureHeader h;
    static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (b.size() < 26 || std::memcmp(b.data, kSignature, 8) != 0 ||
        std::memcmp(b.data + 12, "IHDR", 4) != 0)
        return h;
    h.known = true;
    h.width = bigEndian(b.at(16), 4);
    h.height = bigEndian(b.at(20), 4);
    h.deep = b[24] > 8;
    return h;
}

PictureHeader jpegHeader(Bytes b) {
    PictureHeader h;
    if (b.size() < 4 || b[0] != 0xFF || b[1] != 0xD8) return h;
    std::size_t at = 2;
    while (at + 4 <= b.size()) {
        if (b[at] != 0xFF) return h;  // not at a marker: let the decoder judge
        const unsigned char marker = b[at + 1];
        if (marker == 0xFF) {  // fill byte
            ++at;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD9)) {  // markers without a length
            at += 2;
            continue;
        }
        const std::size_t length = bigEndian(b.at(at + 2), 2);
        const bool frame =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (frame && at + 9 <= b.size()) {
            h.known = true;
            h.deep = b[at + 4] > 8;
            h.height = bigEndian(b.at(at + 5), 2);
            h.width = bigEndian(b.at(at + 7), 2);
            return h;
        }
        if (length < 2) return h;
        at += 2 + length;
    }
    return h;
}

PictureHeader bmpHeader(Bytes b) {
    PictureHeader h;
    if (b.size() < 26 || b[0] != 'B' || b[1] != 'M') return h;
    const uint32_t infoSize = littleEndian(b.at(14), 4);
    if (infoSize == 12) {  // the old OS/2 header: 16-bit sizes
        h.width = littleEndian(b.at(18), 2);
        h.height = littleEndian(b.at(20), 2);
    } else {
        if (b.size() < 30) return h;
        h.width = littleEndian(b.at(18), 4);  // a negative width reads as a huge one: refused
        h.height = static_cast<int32_t>(littleEndian(b.at(22), 4));
        if (h.height < 0) h.height = -h.height;  // rows stored top-down
    }
    h.known = true;
    return h;
}

PictureHeader pnmHeader(Bytes b) {
    PictureHeader h;
    if (b.size() < 3 || b[0] != 'P' || b[1] < '1' || b[1] > '6') return h;
    const bool bitmap = b[1] == '1' || b[1] == '4';
    long long values[3] = {0, 0, 255};
    std::size_t at = 2;
    for (int k = 0; k < (bitmap ? 2 : 3); ++k) {
        while (at < b.size() && (std::isspace(b[at]) || b[at] == '#')) {
            if (b[at] == '#')
                while (at < b.size() && b[at] != '\n') ++at;
            else
                ++at;
        }
        if (at >= b.size() || !std::isdigit(b[at])) return h;
        long long v = 0;
        while (at < b.size() && std::isdigit(b[at]) && v < (1LL << 40))
            v = v * 10 + (b[at++] - '0');
        values[k] = v;
    }
    h.known = true;
    h.width = values[0];
    h.height = values[1];
    h.deep = values[2] > 255;
    return h;
}

// Baseline TIFF: the first image's ImageWidth (256) and ImageLength (257), each a SHORT or a
// LONG, and its BitsPerSample (258). Either byte order. BigTIFF is left unknown.
PictureHeader tiffHeader(Bytes b) {
    PictureHeader h;
    if (b.size() < 8) return h;
    const bool little = b[0] == 'I' && b[1] == 'I';
    if (!little && !(b[0] == 'M' && b[1] == 'M')) return h;
    auto number = [&](std::size_t at, int bytes) {
        return little ? littleEndian(b.at(at), bytes) : bigEndian(b.at(at), bytes);
    };
    if (number(2, 2) != 42) return h;
    const std::size_t ifd = number(4, 4);
    if (ifd < 8 || ifd > b.size() || b.size() - ifd < 2) return h;
    const std::size_t entries = number(ifd, 2);
    if (entries > (b.size() - ifd - 2) / 12) return h;
    bool width = false, height = false;
    for (std::size_t e = 0; e < entries; ++e) {
        const std::size_t at = ifd + 2 + 12 * e;
        const uint32_t tag = number(at, 2), type = number(at + 2, 2), count = number(at + 4, 4);
        // A SHORT is left-justified in the value field in either byte order.
        const int valueBytes = type == 3 ? 2 : type == 4 ? 4 : 0;
        if (valueBytes == 0 || count == 0) continue;
        if (tag == 256 || tag == 257) {
            if (count != 1) return h;
            (tag == 256 ? h.width : h.height) = number(at + 8, valueBytes);
            (tag == 256 ? width : height) = true;
        } else if (tag == 258 && type == 3) {
            // One SHORT per sample: inline up to two, else at the offset the field holds.
            std::size_t values = at + 8;
            if (count > 2) {
                values = number(at + 8, 4);
                if (values > b.size() || (b.size() - values) / 2 < count) continue;
            }
            for (uint32_t k = 0; k < count; ++k)
                if (number(values + 2 * k, 2) > 8) h.deep = true;
        }
    }
    h.known = width && height;
    return h;
}

// WebP: the first chunk of the RIFF container tells the size, as a lossy key frame (VP8 ), a
// lossless stream (VP8L) or the extended header's canvas (VP8X).
PictureHeader webpHeader(Bytes b) {
    PictureHeader h;
    if (b.size() < 30 || std::memcmp(b.data, "RIFF", 4) != 0 ||
        std::memcmp(b.data + 8, "WEBP", 4) != 0)
        return h;
    const unsigned char* chunk = b.at(12);
    if (std::memcmp(chunk, "VP8 ", 4) == 0) {
        // Frame tag (3 bytes), start code 9d 01 2a, then 14-bit width and height.
        if (b[23] != 0x9d || b[24] != 0x01 || b[25] != 0x2a) return h;
        h.width = littleEndian(b.at(26), 2) & 0x3fff;
        h.height = littleEndian(b.at(28), 2) & 0x3fff;
    } else if (std::memcmp(chunk, "VP8L", 4) == 0) {
        if (b[20] != 0x2f) return h;
        const uint32_t bits = littleEndian(b.at(21), 4);
        h.width = (bits & 0x3fff) + 1;
        h.height = ((bits >> 14) & 0x3fff) + 1;
    } else if (std::memcmp(chunk, "VP8X", 4) == 0) {
        h.width = static_cast<long long>(littleEndian(b.at(24), 3)) + 1;
        h.height = static_cast<long long>(littleEndian(b.at(27), 3)) + 1;
    } else {
        return h;
    }
    h.known = true;
    return h;
}

}  // namespace

PictureHeader readPictureHeader(const unsigned char* data, std::size_t size) {
    if (data == nullptr) return {};
    const Bytes b{data, size};
    for (PictureHeader (*reader)(Bytes) :
         {pngHeader, jpegHeader, bmpHeader, pnmHeader, tiffHeader, webpHeader}) {
        const PictureHeader h = reader(b);
        if (h.known) return h;
    }
    return {};
}

}  // namespace msmcli
