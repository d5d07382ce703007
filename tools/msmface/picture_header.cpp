#include "picture_header.h"

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

}  // namespace

PictureHeader readPictureHeader(const unsigned char* data, std::size_t size) {
    if (data == nullptr) return {};
    const Bytes b{data, size};
    for (PictureHeader (*reader)(Bytes) : {pngHeader, jpegHeader, bmpHeader, pnmHeader}) {
        const PictureHeader h = reader(b);
        if (h.known) return h;
    }
    return {};
}

}  // namespace msmcli
