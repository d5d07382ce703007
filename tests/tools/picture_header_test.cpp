// The picture-header reader: the size and depth each format states, exactly, and no size from a
// header cut short (the decoder judges those files).
#include <gtest/gtest.h>

#include <string>

#include "tools/msmface/picture_header.h"

namespace {

using msmcli::PictureHeader;
using msmcli::readPictureHeader;

PictureHeader Read(const std::string& bytes) {
    return readPictureHeader(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string Png(unsigned width, unsigned height, int depth) {
    std::string b("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);
    for (unsigned v : {width, height})
        for (int shift = 24; shift >= 0; shift -= 8) b += static_cast<char>(v >> shift & 0xFF);
    b += static_cast<char>(depth);
    return b + std::string(8, '\0');
}

// Little-endian bytes of v, zero beyond its four.
std::string Le(unsigned v, int bytes) {
    std::string b;
    for (int i = 0; i < bytes; ++i) b += static_cast<char>(i < 4 ? v >> (8 * i) & 0xFF : 0);
    return b;
}

TEST(PictureHeader, StatesTheSizeAndDepthOfEachFormat) {
    PictureHeader h = Read(Png(100000, 3, 8));
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 100000);
    EXPECT_EQ(h.height, 3);
    EXPECT_FALSE(h.deep);
    EXPECT_TRUE(Read(Png(4, 4, 16)).deep);

    // JPEG: an APP0 segment skipped by its length, then the frame header (8 bits, 480 x 640).
    const std::string jpeg = std::string("\xff\xd8\xff\xe0\x00\x04..", 8) +
                             std::string("\xff\xff\xc2\x00\x11\x08\x01\xe0\x02\x80\x03", 11);
    h = Read(jpeg);
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 640);
    EXPECT_EQ(h.height, 480);
    EXPECT_FALSE(h.deep);
    // Huffman tables (C4) are not a frame header.
    EXPECT_FALSE(Read(std::string("\xff\xd8\xff\xc4\x00\x11\x08\x01\xe0\x02\x80\x03", 12)).known);

    // BMP with rows stored top-down (negative height), and the old 12-byte header.
    h = Read("BM" + Le(0, 12) + Le(40, 4) + Le(32, 4) + Le(static_cast<unsigned>(-16), 4) +
             Le(1, 2) + Le(24, 2));
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 32);
    EXPECT_EQ(h.height, 16);
    // A negative width is no picture: it reads as one far too wide, which the loader refuses.
    h = Read("BM" + Le(0, 12) + Le(40, 4) + Le(static_cast<unsigned>(-32), 4) + Le(16, 4) +
             Le(1, 2) + Le(24, 2));
    EXPECT_TRUE(h.known);
    EXPECT_GT(h.width, 1LL << 31);
    h = Read("BM" + Le(0, 12) + Le(12, 4) + Le(20000, 2) + Le(7, 2) + Le(1, 2) + Le(24, 2));
    EXPECT_EQ(h.width, 20000);
    EXPECT_EQ(h.height, 7);

    // PNM with a comment; a maximum above 255 is 16 bits; a bitmap has no maximum.
    h = Read("P5\n# made by hand\n 12 34\n255\n");
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 12);
    EXPECT_EQ(h.height, 34);
    EXPECT_FALSE(h.deep);
    EXPECT_TRUE(Read("P6 2 2 65535 ").deep);
    h = Read("P4 9 3\n");
    EXPECT_EQ(h.width, 9);
    EXPECT_FALSE(h.deep);
}

TEST(PictureHeader, HeadersCutShortOrForeignAreNotKnown) {
    const std::string png = Png(640, 480, 8);
    for (std::size_t n : {0u, 8u, 20u, 24u}) EXPECT_FALSE(Read(png.substr(0, n)).known) << n;
    EXPECT_FALSE(Read(std::string("\xff\xd8\xff\xc0\x00\x11\x08\x01", 8)).known);
    EXPECT_FALSE(Read("BM" + std::string(10, '\0')).known);
    EXPECT_FALSE(Read("P5\n12").known);
    EXPECT_FALSE(Read("P5 twelve").known);
    EXPECT_FALSE(Read("GIF89a").known);
    EXPECT_FALSE(readPictureHeader(nullptr, 10).known);
}

}  // namespace
