#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/BasicImage.h>

#include "normalise/face_cropping.h"
#include "normalise/feature_extraction.h"
#include "normalise_test_support.h"

namespace {

constexpr int kW = 160, kH = 120;

// A frame and points that give a textured, non-degenerate face.
struct Scene {
    BasicImageFile frame{kW, kH, 8};
    PartsPosition parts = testsupport::ReferencePoints();
    explicit Scene(unsigned seed = 1) {
        const auto noise = testsupport::NoiseFrame(kW, kH, seed);
        std::memcpy(frame.pixels, noise.data(), noise.size());
        for (int32_t& p : parts.points) p = p / 3 + 20;
    }
};

TEST(FeatureExtraction, StartsWithTheDocumentedSettings) {
    FeatureExtraction fx(kW, kH, 999, 5);
    EXPECT_EQ(fx.slotIndex, 0);
    EXPECT_EQ(fx.dimension, 256);  // whatever was asked
    EXPECT_EQ(fx.vectorsPerFrame, 5);
    EXPECT_EQ(fx.dumpImages, 0);
    EXPECT_EQ(fx.Get_CroppingRangeMode(), 1);
    double low = 0, high = 0;
    fx.Get_FreeCroppingRange(&low, &high);
    EXPECT_EQ(low, 3.0);
    EXPECT_EQ(high, 9.0);
    ASSERT_NE(fx.frameSnapshot, nullptr);
    EXPECT_EQ(fx.frameSnapshot->bitsPerPixel, 24);
    EXPECT_EQ(fx.frameSnapshot->width, kW);
    EXPECT_EQ(fx.normImages[500]->width, 64);
}

TEST(FeatureExtraction, FiveVectorsAreTheMapsQuartersAndItsBlockMeans) {
    FeatureExtraction fx(kW, kH, 256, 5);
    Scene scene;
    unsigned char face[4096];
    ASSERT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
    EXPECT_EQ(fx.lastNormaliseOk, 1);
    EXPECT_EQ(0, std::memcmp(fx.normImages[0]->pixels, face, 4096));

    CFilterProcessing filters;
    std::vector<float> map(1024);
    filters.MakePatternMap(face, map.data());
    float** slot = fx.patternSlots[0];
    for (int band = 0; band < 4; ++band)
        EXPECT_EQ(0, std::memcmp(slot[band], map.data() + 256 * band, 256 * sizeof(float))) << band;
    for (int r = 0; r < 16; ++r)
        for (int c = 0; c < 16; ++c) {
            // Row 2r of the map is row (2r % 8) of band vector 2r / 8.
            auto at = [&](int row, int col) { return slot[row / 8][(row % 8) * 32 + col]; };
            const float mean = 0.25f * (at(2 * r, 2 * c) + at(2 * r, 2 * c + 1) +
                                        at(2 * r + 1, 2 * c) + at(2 * r + 1, 2 * c + 1));
            ASSERT_EQ(slot[4][r * 16 + c], mean) << r << "," << c;
        }
}

TEST(FeatureExtraction, OneVectorIsTheBlockMeansAloneAndOtherCountsWriteNone) {
    Scene scene;
    unsigned char face[4096];
    FeatureExtraction five(kW, kH, 256, 5), one(kW, kH, 256, 1), three(kW, kH, 256, 3);
    five.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face);
    one.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face);
    EXPECT_EQ(0, std::memcmp(one.patternSlots[0][0], five.patternSlots[0][4], 256 * sizeof(float)));

    for (int j = 0; j < 3; ++j) std::fill_n(three.patternSlots[0][j], 256, 42.0f);
    EXPECT_EQ(three.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
    EXPECT_EQ(three.patternSlots[0][2][255], 42.0f);
    FeatureExtraction none(kW, kH, 256, -7), many(kW, kH, 256, 1000000000);
    EXPECT_EQ(none.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
    EXPECT_EQ(many.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
}

TEST(FeatureExtraction, RingWrapsAfter501FramesAndTheSnapshotIsTakenOnSlotOne) {
    FeatureExtraction fx(kW, kH, 256, 1);
    Scene scene;
    BasicImageFile colour(kW, kH, 24);
    for (int i = 0; i < kW * kH * 3; ++i) colour.pixels[i] = static_cast<unsigned char>(i * 7);
    std::memset(fx.frameSnapshot->pixels, 3, kW * kH * 3);
    unsigned char face[4096];

    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, &colour, &scene.parts, face), 1);
    EXPECT_EQ(fx.frameSnapshot->pixels[0], 3);  // slot 0 leaves it alone
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, &colour, &scene.parts, face), 2);
    EXPECT_EQ(fx.frameSnapshot->bitsPerPixel, 24);
    EXPECT_EQ(0, std::memcmp(fx.frameSnapshot->pixels, colour.pixels, kW * kH * 3));

    for (int i = 2; i < 500; ++i) fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face);
    EXPECT_EQ(fx.slotIndex, 500);
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 0);

    // The next pass overwrites slot 0 and, without a colour frame, snapshots the grey frame.
    Scene other(2);
    unsigned char otherFace[4096];
    EXPECT_EQ(fx.NormaliseFrame(&other.frame, nullptr, &other.parts, otherFace), 1);
    EXPECT_EQ(0, std::memcmp(fx.normImages[0]->pixels, otherFace, 4096));
    EXPECT_NE(0, std::memcmp(otherFace, face, 4096));
    unsigned char* const buffer = fx.frameSnapshot->pixels;
    EXPECT_EQ(fx.NormaliseFrame(&other.frame, nullptr, &other.parts, otherFace), 2);
    EXPECT_EQ(fx.frameSnapshot->bitsPerPixel, 8);
    EXPECT_EQ(fx.frameSnapshot->pixels, buffer);  // not reallocated
    EXPECT_EQ(0, std::memcmp(buffer, other.frame.pixels, kW * kH));
}

TEST(FeatureExtraction, SnapshotOnlyCopiesFramesOfItsOwnSize) {
    FeatureExtraction fx(kW, kH, 256, 1);
    BasicImageFile big(kW * 2, kH, 8);
    std::memset(big.pixels, 90, kW * 2 * kH);
    BasicImageFile wrongColour(10, 10, 24);
    PartsPosition parts = testsupport::ReferencePoints();
    unsigned char face[4096];
    std::memset(fx.frameSnapshot->pixels, 3, kW * kH * 3);
    fx.slotIndex = 1;
    EXPECT_EQ(fx.NormaliseFrame(&big, &wrongColour, &parts, face), 2);
    EXPECT_EQ(fx.frameSnapshot->pixels[0], 3);
    EXPECT_EQ(fx.frameSnapshot->bitsPerPixel, 24);

    FeatureExtraction absurd(100000, 100000, 256, 1);  // would need 30 GB at 24 bits
    EXPECT_EQ(absurd.frameSnapshot->pixels, nullptr);
    absurd.slotIndex = 1;
    Scene scene;
    EXPECT_EQ(absurd.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 2);
}

TEST(FeatureExtraction, UnreadableFramesFailWithoutTouchingTheRing) {
    FeatureExtraction fx(kW, kH, 256, 5);
    Scene scene;
    unsigned char face[4096];
    ASSERT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
    BasicImageFile empty, colour(kW, kH, 24), tiny(1, 1, 8);
    const std::vector<float> before(fx.patternSlots[1][0], fx.patternSlots[1][0] + 256);
    for (BasicImageFile* frame : {static_cast<BasicImageFile*>(nullptr), &empty, &colour, &tiny}) {
        EXPECT_EQ(fx.NormaliseFrame(frame, nullptr, &scene.parts, face), -999);
        EXPECT_EQ(fx.lastNormaliseOk, 0);
        EXPECT_EQ(fx.slotIndex, 1);
    }
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, nullptr, face), -999);
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, nullptr), -999);
    EXPECT_EQ(0, std::memcmp(before.data(), fx.patternSlots[1][0], 256 * sizeof(float)));
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 2);
    EXPECT_EQ(fx.lastNormaliseOk, 1);

    fx.slotIndex = 7000;  // set from outside: restarts the ring
    EXPECT_EQ(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face), 1);
}

TEST(FeatureExtraction, CroppingSettingsAreReportedButDoNotMoveTheCrop) {
    Scene scene;
    unsigned char plain[4096], changed[4096];
    FeatureExtraction a(kW, kH, 256, 1), b(kW, kH, 256, 1);
    b.Set_FreeCroppingRange(2.5, 8.0);
    b.Set_CroppingRangeMode(0);
    b.Set_RecogCroppingShift(6);
    double low = 0, high = 0;
    b.Get_FreeCroppingRange(&low, &high);
    EXPECT_EQ(low, 2.5);
    EXPECT_EQ(high, 8.0);
    EXPECT_EQ(b.Get_RecogCroppingShift(), 6);
    a.NormaliseFrame(&scene.frame, nullptr, &scene.parts, plain);
    b.NormaliseFrame(&scene.frame, nullptr, &scene.parts, changed);
    EXPECT_EQ(0, std::memcmp(plain, changed, 4096));
}

TEST(FeatureExtraction, DumpWritesTheSlotsPreviousFace) {
    const char* base = std::getenv("MSMFACE_TEST_TMP");
    std::string dir =
        std::string(base ? base : "/tmp") + "/normalise_dump_" + std::to_string(getpid());
    mkdir(base ? base : "/tmp", 0755);
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir + "/itmp").c_str(), 0755), 0);
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.c_str()), 0);

    FeatureExtraction fx(kW, kH, 256, 1);
    fx.dumpImages = 1;
    std::memset(fx.normImages[0]->pixels, 77, 4096);
    Scene scene;
    unsigned char face[4096];
    fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face);
    std::FILE* f = std::fopen("itmp/img000.pgm", "rb");
    ASSERT_NE(f, nullptr);
    std::vector<unsigned char> bytes(5000);
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    ASSERT_GE(got, 4096u);
    EXPECT_EQ(bytes[got - 1], 77);  // the face before this frame's
    EXPECT_EQ(bytes[0], 'P');

    ASSERT_EQ(chdir(cwd), 0);
    std::remove((dir + "/itmp/img000.pgm").c_str());
    rmdir((dir + "/itmp").c_str());
    rmdir(dir.c_str());
}

}  // namespace
