// The picture-header reader: the size and depth each format states, exactly, and no size from a
// header cut short (the decoder judges those files).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "tools/msmface/input/picture_header.h"

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

// Big-endian bytes of v, the low `bytes` of its four.
std::string Be(unsigned v, int bytes) {
    std::string b;
    for (int i = bytes - 1; i >= 0; --i) b += static_cast<char>(v >> (8 * i) & 0xFF);
    return b;
}

// A TIFF whose first IFD holds the given entries (tag, type, count, value bytes of four).
std::string Tiff(bool little, const std::vector<std::string>& entries, unsigned ifd = 8) {
    auto n = [&](unsigned v, int bytes) { return little ? Le(v, bytes) : Be(v, bytes); };
    std::string b = std::string(little ? "II" : "MM") + n(42, 2) + n(ifd, 4);
    b += std::string(ifd - 8, '\0') + n(static_cast<unsigned>(entries.size()), 2);
    for (const std::string& e : entries) b += e;
    return b + n(0, 4);
}

std::string TiffEntry(bool little, unsigned tag, unsigned type, unsigned count, unsigned value) {
    auto n = [&](unsigned v, int bytes) { return little ? Le(v, bytes) : Be(v, bytes); };
    // A SHORT value sits in the first two bytes of the field in either byte order.
    const std::string field = type == 3 ? n(value, 2) + std::string(2, '\0') : n(value, 4);
    return n(tag, 2) + n(type, 2) + n(count, 4) + field;
}

std::vector<unsigned char> Encoded(const std::string& ext, int width, int height,
                                   const std::vector<int>& params = {}) {
    cv::Mat picture(height, width, CV_8UC3, cv::Scalar(20, 140, 220));
    std::vector<unsigned char> bytes;
    cv::imencode(ext, picture, bytes, params);
    return bytes;
}

TEST(PictureHeader, TiffStatesItsFirstImagesSizeInEitherByteOrder) {
    for (const bool little : {true, false}) {
        // SHORT width, LONG height, three samples of 8 bits (their SHORTs at an offset).
        const std::string bits =
            little ? Le(8, 2) + Le(8, 2) + Le(8, 2) : Be(8, 2) + Be(8, 2) + Be(8, 2);
        std::string t =
            Tiff(little, {TiffEntry(little, 256, 3, 1, 30000), TiffEntry(little, 257, 4, 1, 70000),
                          TiffEntry(little, 258, 3, 3, 8 + 2 + 3 * 12 + 4)});
        t += bits;
        PictureHeader h = Read(t);
        EXPECT_TRUE(h.known) << little;
        EXPECT_EQ(h.width, 30000);
        EXPECT_EQ(h.height, 70000);
        EXPECT_FALSE(h.deep);
        // 16 bits per sample, one sample, inline; the first IFD further on in the file.
        h = Read(Tiff(little,
                      {TiffEntry(little, 256, 4, 1, 5), TiffEntry(little, 257, 3, 1, 7),
                       TiffEntry(little, 258, 3, 1, 16)},
                      64));
        EXPECT_TRUE(h.known);
        EXPECT_EQ(h.width, 5);
        EXPECT_EQ(h.height, 7);
        EXPECT_TRUE(h.deep);
        // No height, an IFD past the end, entries beyond the file, a wrong magic number.
        EXPECT_FALSE(Read(Tiff(little, {TiffEntry(little, 256, 3, 1, 5)})).known);
        EXPECT_FALSE(
            Read(Tiff(little, {}, 8).substr(0, 4) + (little ? Le(4000, 4) : Be(4000, 4))).known);
        std::string cut =
            Tiff(little, {TiffEntry(little, 256, 3, 1, 5), TiffEntry(little, 257, 3, 1, 7)});
        EXPECT_FALSE(Read(cut.substr(0, cut.size() - 10)).known);
        cut[little ? 2 : 3] = 43;  // BigTIFF: not read
        EXPECT_FALSE(Read(cut).known);
    }
    // What OpenCV itself writes.
    const std::vector<unsigned char> tiff = Encoded(".tiff", 37, 23);
    const PictureHeader h = readPictureHeader(tiff.data(), tiff.size());
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 37);
    EXPECT_EQ(h.height, 23);
    EXPECT_FALSE(h.deep);
}

TEST(PictureHeader, WebPStatesItsSizeInEachOfItsThreeKinds) {
    // Lossy (VP8 ) and lossless (VP8L) as OpenCV writes them.
    for (const int quality : {80, 101}) {
        const std::vector<unsigned char> webp =
            Encoded(".webp", 37, 23, {cv::IMWRITE_WEBP_QUALITY, quality});
        ASSERT_GT(webp.size(), 30u);
        const PictureHeader h = readPictureHeader(webp.data(), webp.size());
        EXPECT_TRUE(h.known) << quality;
        EXPECT_EQ(h.width, 37) << quality;
        EXPECT_EQ(h.height, 23) << quality;
    }
    // The extended header: canvas width and height minus one in 24 bits each.
    const std::string vp8x = "RIFF" + Le(100, 4) + "WEBPVP8X" + Le(10, 4) + Le(0, 4) +
                             Le(30000 - 1, 3) + Le(16777215, 3);
    PictureHeader h = Read(vp8x);
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 30000);
    EXPECT_EQ(h.height, 16777216);
    // A lossy key frame of 16383 x 16383 (the scale bits above the 14 are not size).
    const std::string vp8 = "RIFF" + Le(100, 4) + "WEBPVP8 " + Le(20, 4) + Le(0, 3) +
                            std::string("\x9d\x01\x2a", 3) + Le(0xffff, 2) + Le(0x7fff, 2);
    h = Read(vp8);
    EXPECT_TRUE(h.known);
    EXPECT_EQ(h.width, 16383);
    EXPECT_EQ(h.height, 16383);
    // A lost start code, an unknown first chunk, and a header cut short are not known.
    std::string broken = vp8;
    broken[24] = 0;
    EXPECT_FALSE(Read(broken).known);
    EXPECT_FALSE(Read("RIFF" + Le(100, 4) + "WEBPALPH" + Le(20, 4) + std::string(20, '\0')).known);
    EXPECT_FALSE(Read(vp8x.substr(0, 29)).known);
}

// The fuzzer's seeds of each format are headers it reads, with the sizes their names promise.
TEST(PictureHeader, TheFuzzerSeedsOfEveryFormatAreRead) {
    const std::string seeds = std::string(MSMFACE_SOURCE_DIR) + "/fuzz/corpus/fuzz_picture_header/";
    const struct {
        const char* name;
        long long width, height;
        bool deep;
    } expected[] = {
        {"tiff_le_short.tif", 640, 480, false},  {"tiff_be_long.tif", 30000, 30000, true},
        {"webp_vp8.webp", 640, 480, false},      {"webp_vp8l.webp", 640, 480, false},
        {"webp_vp8x.webp", 30000, 30000, false},
    };
    for (const auto& e : expected) {
        std::ifstream in(seeds + e.name, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>()};
        const PictureHeader h = Read(bytes);
        EXPECT_TRUE(h.known) << e.name;
        EXPECT_EQ(h.width, e.width) << e.name;
        EXPECT_EQ(h.height, e.height) << e.name;
        EXPECT_EQ(h.deep, e.deep) << e.name;
    }
}

}  // namespace
