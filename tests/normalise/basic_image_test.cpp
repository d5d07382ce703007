#include <msmface/BasicImage.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "normalise/image_session.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// A folder of its own under MSMFACE_TEST_TMP (or /tmp), removed with the fixture.
class ImageFiles : public testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("MSMFACE_TEST_TMP");
        fs::path root = base != nullptr ? fs::path(base) : fs::temp_directory_path();
        fs::create_directories(root);
        std::string pattern = (root / "image-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr) << "cannot make a folder under " << root;
        dir_ = pattern;
    }
    void TearDown() override {
        if (!dir_.empty()) fs::remove_all(dir_);
    }
    std::string file(const char* name) const { return (dir_ / name).string(); }

    fs::path dir_;
};

Bytes readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Distinct values per position so that any misplaced byte shows.
void fillPattern(BasicImageData& image, unsigned seed) {
    std::size_t n = static_cast<std::size_t>(image.width) * image.height * image.bitsPerPixel / 8;
    for (std::size_t i = 0; i < n; ++i) image.pixels[i] = static_cast<unsigned char>(i * 7 + seed);
}

Bytes pixelsOf(const BasicImageData& image) {
    std::size_t n = static_cast<std::size_t>(image.width) * image.height * image.bitsPerPixel / 8;
    return Bytes(image.pixels, image.pixels + n);
}

char* newText(const char* text) {
    char* copy = new char[std::strlen(text) + 1];
    std::strcpy(copy, text);
    return copy;
}

uint32_t u32(const Bytes& b, std::size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t{b[at + 3]} << 24;
}
uint32_t u16(const Bytes& b, std::size_t at) {
    return b[at] | b[at + 1] << 8;
}

// Reads a BMP as written here back into the container's layout: rows top-down, grey values
// through the palette, colour bytes in the order the host filled them.
struct DecodedBmp {
    uint32_t stride = 0;
    Bytes pixels;
};

DecodedBmp decodeBmp(const Bytes& file) {
    DecodedBmp out;
    const uint32_t width = u32(file, 18), height = u32(file, 22), bits = u16(file, 28);
    const uint32_t offset = u32(file, 10);
    out.stride = (file.size() - offset) / height;
    for (uint32_t r = 0; r < height; ++r) {
        std::size_t row = offset + std::size_t{out.stride} * (height - 1 - r);
        for (uint32_t x = 0; x < width; ++x) {
            if (bits == 8) {
                unsigned index = file.at(row + x);
                out.pixels.push_back(file.at(54 + 4 * index));
            } else {
                std::size_t p = row + 3 * x;
                out.pixels.push_back(file.at(p + 2));
                out.pixels.push_back(file.at(p + 1));
                out.pixels.push_back(file.at(p));
            }
        }
    }
    return out;
}

TEST(BasicImage, AllocateSizesTheBufferAndReleaseEmptiesIt) {
    BasicImageData grey(5, 3, 8), colour(5, 3, 24), none;
    EXPECT_EQ(none.pixels, nullptr);
    EXPECT_EQ(none.comment, nullptr);
    EXPECT_EQ(none.width + none.height + none.bitsPerPixel, 0);
    ASSERT_NE(grey.pixels, nullptr);
    ASSERT_NE(colour.pixels, nullptr);
    EXPECT_EQ(colour.width, 5);
    EXPECT_EQ(colour.height, 3);
    EXPECT_EQ(colour.bitsPerPixel, 24);
    fillPattern(colour, 1);  // 45 writable bytes; the sanitizer build catches a short buffer

    colour.comment = newText("kept until released");
    colour.Release();
    EXPECT_EQ(colour.pixels, nullptr);
    EXPECT_EQ(colour.comment, nullptr);
    EXPECT_EQ(colour.width + colour.height + colour.bitsPerPixel, 0);

    // Reallocating replaces both buffers.
    grey.comment = newText("old");
    ASSERT_TRUE(grey.Allocate(2, 2, 24));
    EXPECT_EQ(grey.comment, nullptr);
    EXPECT_EQ(grey.width * grey.height * grey.bitsPerPixel, 96);
    fillPattern(grey, 2);
}

TEST(BasicImage, RejectedShapesLeaveThePreviousImageIntact) {
    BasicImageData image(4, 3, 8);
    ASSERT_NE(image.pixels, nullptr);
    fillPattern(image, 9);
    image.comment = newText("stays");
    unsigned char* before = image.pixels;
    const Bytes content = pixelsOf(image);

    const int rejected[][3] = {
        {0, 5, 8},          {5, 0, 8},
        {-1, 5, 8},         {5, -7, 24},
        {5, 5, 16},         {5, 5, 32},
        {5, 5, 0},          {5, 5, 1},
        {5, 5, -8},         // depths other than 8 and 24
        {16384, 16384, 8},  // exactly 2^31 bits: one past the limit
        {65536, 65536, 24}, {2147483647, 2147483647, 24},
    };
    for (const auto& shape : rejected) {
        SCOPED_TRACE(testing::Message() << shape[0] << "x" << shape[1] << "x" << shape[2]);
        EXPECT_FALSE(image.Allocate(shape[0], shape[1], shape[2]));
        EXPECT_EQ(image.pixels, before);
        EXPECT_EQ(image.width, 4);
        EXPECT_EQ(image.height, 3);
        EXPECT_EQ(image.bitsPerPixel, 8);
        ASSERT_NE(image.comment, nullptr);
        EXPECT_STREQ(image.comment, "stays");
    }
    EXPECT_EQ(pixelsOf(image), content);

    BasicImageData refused(0, 0, 8);
    EXPECT_EQ(refused.pixels, nullptr);
    EXPECT_EQ(refused.width + refused.height + refused.bitsPerPixel, 0);
}

TEST_F(ImageFiles, PgmHeaderAndPixelsAreExact) {
    BasicImageFile image(64, 64, 8);
    fillPattern(image, 3);
    const Bytes body = pixelsOf(image);
    const std::string path = file("face.pgm");

    ASSERT_TRUE(image.WritePnm(path.c_str()));
    EXPECT_EQ(readAll(path), concat(bytesOf("P5\n64 64\n255\n"), body));

    struct Case {
        const char* comment;
        const char* headerLine;
    };
    // A comment gets exactly one line feed, whether or not it brought its own.
    for (Case c : {Case{"abc", "# abc\n"}, Case{"ends in a line feed\n", "# ends in a line feed\n"},
                   Case{"", "# \n"}, Case{"two\nlines", "# two\nlines\n"}}) {
        SCOPED_TRACE(c.comment);
        delete[] image.comment;
        image.comment = newText(c.comment);
        ASSERT_TRUE(image.WritePnm(path.c_str()));
        EXPECT_EQ(readAll(path),
                  concat(bytesOf(std::string("P5\n") + c.headerLine + "64 64\n255\n"), body));
    }
}

TEST_F(ImageFiles, ColourPnmKeepsBufferOrderAndEmptyImageWritesHeaderOnly) {
    BasicImageFile colour(3, 2, 24);
    fillPattern(colour, 5);
    const std::string path = file("colour.ppm");
    ASSERT_TRUE(colour.WritePnm(path.c_str()));
    EXPECT_EQ(readAll(path), concat(bytesOf("P6\n3 2\n255\n"), pixelsOf(colour)));

    BasicImageFile empty;
    ASSERT_TRUE(empty.WritePnm(path.c_str()));
    EXPECT_EQ(readAll(path), bytesOf("P6\n0 0\n255\n"));
}

TEST_F(ImageFiles, WritersReportFilesTheyCannotWrite) {
    BasicImageFile image(8, 8, 8);
    fillPattern(image, 0);
    const std::string missing = file("no-such-folder/x.img");
    EXPECT_FALSE(image.WritePnm(missing.c_str()));
    EXPECT_FALSE(image.WriteBmp(missing.c_str()));
    EXPECT_FALSE(fs::exists(fs::path(missing).parent_path()));

    // A full device accepts the open and fails the writes.
    if (std::FILE* probe = std::fopen("/dev/full", "wb")) {
        std::fclose(probe);
        EXPECT_FALSE(image.WritePnm("/dev/full"));
    }
}

// A link in the place of the file written is replaced by the file; what it pointed at stays as
// it was, and the bytes written are those of a plain target.
TEST_F(ImageFiles, WritersReplaceALinkInsteadOfWritingThroughIt) {
    BasicImageFile image(8, 8, 8);
    fillPattern(image, 0);
    const std::string outside = file("outside");
    const Bytes kept = bytesOf("the user's own file\n");
    for (const char* name : {"face.bmp", "face.pgm"}) {
        const bool bmp = std::string(name).find(".bmp") != std::string::npos;
        const std::string plain = file((std::string("plain-") + name).c_str());
        ASSERT_TRUE(bmp ? image.WriteBmp(plain.c_str()) : image.WritePnm(plain.c_str()));
        {
            std::ofstream(outside, std::ios::binary | std::ios::trunc)
                .write(reinterpret_cast<const char*>(kept.data()),
                       static_cast<std::streamsize>(kept.size()));
        }
        const std::string linked = file(name);
        fs::create_symlink(outside, linked);
        ASSERT_TRUE(bmp ? image.WriteBmp(linked.c_str()) : image.WritePnm(linked.c_str()));
        EXPECT_EQ(readAll(outside), kept) << name;
        EXPECT_FALSE(fs::is_symlink(linked)) << name;
        EXPECT_EQ(readAll(linked), readAll(plain)) << name;
    }
}

TEST_F(ImageFiles, BmpWithoutPixelsOrWithBrokenFieldsCreatesNoFile) {
    const std::string path = file("none.bmp");
    BasicImageFile empty;
    EXPECT_FALSE(empty.WriteBmp(path.c_str()));
    EXPECT_FALSE(fs::exists(path));

    BasicImageFile tampered(2, 2, 8);
    tampered.width = -2;  // the host owns the fields; a nonsense shape must not reach the writer
    EXPECT_FALSE(tampered.WriteBmp(path.c_str()));
    EXPECT_FALSE(tampered.WritePnm(path.c_str()));
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ImageFiles, GreyBmpHeaderPaletteAndPaddedRows) {
    BasicImageFile image(3, 2, 8);
    const unsigned char source[] = {10, 11, 12, 20, 21, 22};
    std::memcpy(image.pixels, source, sizeof source);
    const std::string path = file("grey.bmp");
    ASSERT_TRUE(image.WriteBmp(path.c_str()));
    const Bytes f = readAll(path);

    ASSERT_EQ(f.size(), 54u + 1024 + 4 * 2);
    EXPECT_EQ(f[0], 'B');
    EXPECT_EQ(f[1], 'M');
    EXPECT_EQ(u32(f, 2), f.size());
    EXPECT_EQ(u32(f, 6), 0u);  // both reserved words
    EXPECT_EQ(u32(f, 10), 1078u);
    EXPECT_EQ(u32(f, 14), 40u);
    EXPECT_EQ(u32(f, 18), 3u);
    EXPECT_EQ(u32(f, 22), 2u);
    EXPECT_EQ(u16(f, 26), 1u);
    EXPECT_EQ(u16(f, 28), 8u);
    for (std::size_t at : {30, 34, 38, 42, 50}) EXPECT_EQ(u32(f, at), 0u) << "offset " << at;
    EXPECT_EQ(u32(f, 46), 256u);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(u32(f, 54 + 4 * i), i | i << 8 | i << 16) << "palette entry " << i;
    }
    // Bottom row first, each padded with one zero to 4 bytes.
    const Bytes rows(f.begin() + 1078, f.end());
    EXPECT_EQ(rows, (Bytes{20, 21, 22, 0, 10, 11, 12, 0}));
}

TEST_F(ImageFiles, ColourBmpSwapsEachPixelAndStoresRowsBottomUp) {
    BasicImageFile image(3, 2, 24);
    const unsigned char rgb[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14, 15, 16, 17, 18, 19};
    std::memcpy(image.pixels, rgb, sizeof rgb);
    const std::string path = file("colour.bmp");
    ASSERT_TRUE(image.WriteBmp(path.c_str()));
    const Bytes f = readAll(path);

    ASSERT_EQ(f.size(), 54u + 12 * 2);
    EXPECT_EQ(u32(f, 2), f.size());
    EXPECT_EQ(u32(f, 10), 54u);
    EXPECT_EQ(u16(f, 28), 24u);
    EXPECT_EQ(u32(f, 46), 0u);
    const Bytes rows(f.begin() + 54, f.end());
    // Nine bytes of pixels padded to twelve per row.
    EXPECT_EQ(rows, (Bytes{13, 12, 11, 16, 15, 14, 19, 18, 17, 0, 0, 0,  //
                           3,  2,  1,  6,  5,  4,  9,  8,  7,  0, 0, 0}));
}

TEST_F(ImageFiles, BmpReadsBackForEveryRowPadding) {
    const std::string path = file("sweep.bmp");
    for (int bits : {8, 24}) {
        for (int width = 1; width <= 6; ++width) {
            for (int height : {1, 2, 5}) {
                SCOPED_TRACE(testing::Message() << width << "x" << height << "x" << bits);
                BasicImageFile image(width, height, bits);
                fillPattern(image, static_cast<unsigned>(width * 31 + height));
                ASSERT_TRUE(image.WriteBmp(path.c_str()));
                const Bytes f = readAll(path);
                const uint32_t row = static_cast<uint32_t>(width * bits / 8);
                const uint32_t stride = (row + 3) / 4 * 4;
                const uint32_t header = bits == 8 ? 1078 : 54;
                ASSERT_EQ(f.size(), header + stride * height);
                const DecodedBmp back = decodeBmp(f);
                EXPECT_EQ(back.stride, stride);
                EXPECT_EQ(back.pixels, pixelsOf(image));
                for (int r = 0; r < height; ++r) {
                    for (uint32_t pad = row; pad < stride; ++pad) {
                        EXPECT_EQ(f[header + r * stride + pad], 0) << "row " << r;
                    }
                }
            }
        }
    }
}

// The session tests share process-wide state with every other image in this program; they keep
// their own images and restore the token they found.
class ImageSession : public testing::Test {
  protected:
    void SetUp() override { start_ = msm::imageSessionSnapshot(); }
    void TearDown() override { msm::storeImageSessionToken(start_.token); }
    msm::ImageSessionSnapshot start_{};
};

TEST_F(ImageSession, LastImageClosesAnOpenSessionOnce) {
    auto first = std::make_unique<BasicImageFile>(4, 4, 8);
    // Deleted through the base: the count must still see it go.
    std::unique_ptr<BasicImageData> second = std::make_unique<BasicImageFile>();
    EXPECT_EQ(msm::imageSessionSnapshot().liveImages, start_.liveImages + 2);

    msm::storeImageSessionToken(0x5eed);
    second.reset();
    auto now = msm::imageSessionSnapshot();
    EXPECT_EQ(now.liveImages, start_.liveImages + 1);
    EXPECT_EQ(now.token, 0x5eedu);
    EXPECT_EQ(now.shutdowns, start_.shutdowns);

    const bool lastOne = start_.liveImages == 0;
    first.reset();
    now = msm::imageSessionSnapshot();
    EXPECT_EQ(now.liveImages, start_.liveImages);
    if (lastOne) {
        EXPECT_EQ(now.token, 0u);
        EXPECT_EQ(now.shutdowns, start_.shutdowns + 1);
    }

    // With no session open, the count falling to zero closes nothing.
    msm::storeImageSessionToken(0);
    { BasicImageFile brief; }
    EXPECT_EQ(msm::imageSessionSnapshot().shutdowns, now.shutdowns);
}

TEST_F(ImageSession, UnloadClosesAnOpenSessionWhateverTheCount) {
    BasicImageFile alive;
    msm::storeImageSessionToken(0x77);
    msm::shutdownImageSessionAtUnload();
    auto after = msm::imageSessionSnapshot();
    EXPECT_EQ(after.token, 0u);
    EXPECT_EQ(after.shutdowns, start_.shutdowns + 1);
    msm::shutdownImageSessionAtUnload();  // nothing open: nothing to close
    EXPECT_EQ(msm::imageSessionSnapshot().shutdowns, start_.shutdowns + 1);
}

TEST_F(ImageSession, ImagesMadeAndDroppedOnManyThreadsKeepTheCountExact) {
    ASSERT_EQ(start_.liveImages, 0) << "another test left images alive";
    constexpr int kThreads = 8;
    constexpr int kRounds = 20000;
    // Mostly empty images: construction costs next to nothing, so the threads meet in the count.
    auto churn = [] {
        for (int i = 0; i < kRounds; ++i) {
            BasicImageFile a;
            auto b = std::make_unique<BasicImageFile>(i % 3 + 1, 1, 8);
            BasicImageFile c;
        }
    };
    auto runAll = [&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) threads.emplace_back(churn);
        for (auto& t : threads) t.join();
    };

    // While one image stays alive the count never reaches zero, so an open session survives.
    {
        BasicImageFile holder;
        msm::storeImageSessionToken(0xabc);
        runAll();
        auto held = msm::imageSessionSnapshot();
        EXPECT_EQ(held.liveImages, 1);
        EXPECT_EQ(held.token, 0xabcu);
        EXPECT_EQ(held.shutdowns, start_.shutdowns);
    }
    auto closed = msm::imageSessionSnapshot();
    EXPECT_EQ(closed.liveImages, 0);
    EXPECT_EQ(closed.token, 0u);
    EXPECT_EQ(closed.shutdowns, start_.shutdowns + 1);

    // Without a holder the count touches zero many times, but one session closes only once.
    msm::storeImageSessionToken(0xdef);
    runAll();
    auto end = msm::imageSessionSnapshot();
    EXPECT_EQ(end.liveImages, 0);
    EXPECT_EQ(end.token, 0u);
    EXPECT_EQ(end.shutdowns, start_.shutdowns + 2);
}

}  // namespace
