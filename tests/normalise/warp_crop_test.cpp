#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/BasicImage.h>

#include "normalise/face_cropping.h"
#include "normalise_test_support.h"

namespace {

using testsupport::ReferencePoints;

std::vector<int32_t> ModelOrder(const PartsPosition& parts) {
    std::vector<int32_t> m(28);
    msm::ToModelOrder(parts.points, m.data());
    return m;
}

TEST(WarpFace, ReferencePointsOnA256FrameReproduceTheFrame) {
    const auto frame = testsupport::SmoothFrame(256, 256);
    FaceShapeModel model;
    BasicImageFile view(256, 256, 8);
    ASSERT_TRUE(WarpFace(&model, frame.data(), 256, 256, &view,
                         ModelOrder(ReferencePoints()).data(), nullptr));
    int worst = 0;
    for (size_t i = 0; i < frame.size(); ++i)
        worst = std::max(worst, std::abs(view.pixels[i] - frame[i]));
    EXPECT_LE(worst, 1);  // truncation of a value a hair below the pixel's own
}

TEST(WarpFace, SupersampledViewFillsEveryByteOfAColourPixel) {
    const auto frame = testsupport::SmoothFrame(256, 256);
    FaceShapeModel model;
    model.supersampleWarp = true;
    BasicImageFile view(256, 256, 24);
    ASSERT_TRUE(WarpFace(&model, frame.data(), 256, 256, &view,
                         ModelOrder(ReferencePoints()).data(), nullptr));
    for (int r = 0; r < 255; r += 17) {
        for (int c = 0; c < 255; c += 13) {
            const unsigned char* p = view.pixels + (r * 256 + c) * 3;
            EXPECT_EQ(p[0], p[1]);
            EXPECT_EQ(p[1], p[2]);
            // Samples a quarter pixel on average to the right and below.
            EXPECT_NEAR(p[0], frame[r * 256 + c], 2);
        }
    }
}

TEST(WarpFace, ReportsReferencePositionsOfPresentPointsOnly) {
    PartsPosition parts = ReferencePoints();
    parts.points[2 * 13] = 9999;   // host 13 = model 11
    parts.points[2 * 2 + 1] = -4;  // host 2 = model 2
    int32_t reference[28];
    FaceShapeModel model;
    const auto frame = testsupport::SmoothFrame(256, 256);
    WarpFace(&model, frame.data(), 256, 256, nullptr, ModelOrder(parts).data(), reference);
    for (int k = 0; k < 14; ++k) {
        const bool absent = (k == 11 || k == 2);
        EXPECT_EQ(reference[2 * k], absent ? 9999 : FaceReferencePoints[k][0]) << k;
        EXPECT_EQ(reference[2 * k + 1], absent ? 9999 : FaceReferencePoints[k][1]) << k;
    }
}

TEST(WarpFace, ClearsTheViewWhenNothingCanBeFitted) {
    PartsPosition parts{};
    for (int k = 0; k < 28; ++k) parts.points[k] = (k % 2) ? -1 : 9999;
    const auto frame = testsupport::SmoothFrame(64, 64);
    FaceShapeModel model;
    BasicImageFile view(256, 256, 8);
    std::memset(view.pixels, 55, 256 * 256);
    EXPECT_FALSE(WarpFace(&model, frame.data(), 64, 64, &view, ModelOrder(parts).data(), nullptr));
    EXPECT_TRUE(
        std::all_of(view.pixels, view.pixels + 256 * 256, [](unsigned char v) { return v == 0; }));
}

TEST(WarpFace, ProjectionsOutsideTheFrameReadOnlyItsBorder) {
    // Interior 100, border ring 200; the points put the face 5000 pixels off to the lower right.
    const int w = 40, h = 30;
    std::vector<unsigned char> frame(w * h, 100);
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c)
            if (r == 0 || c == 0 || r == h - 1 || c == w - 1) frame[r * w + c] = 200;
    PartsPosition parts = ReferencePoints();
    for (int32_t& p : parts.points) p += 5000;
    FaceShapeModel model;
    BasicImageFile view(256, 256, 8);
    ASSERT_TRUE(WarpFace(&model, frame.data(), w, h, &view, ModelOrder(parts).data(), nullptr));
    EXPECT_TRUE(std::all_of(view.pixels, view.pixels + 256 * 256,
                            [](unsigned char v) { return v == 200; }));
}

TEST(CropEyeWindow, SpansThreeHalfEyeDistancesDownAndSixtyFourEighteenthsAcross) {
    // Sources whose value is the row, or the column: the window's corners read them back.
    std::vector<unsigned char> rows(256 * 256), columns(256 * 256);
    for (int r = 0; r < 256; ++r)
        for (int c = 0; c < 256; ++c) {
            rows[r * 256 + c] = static_cast<unsigned char>(r);
            columns[r * 256 + c] = static_cast<unsigned char>(c);
        }
    unsigned char out[64 * 64];
    ASSERT_TRUE(CropEyeWindow(rows.data(), 256, 256, out, 85, 109, 171, 109, 1, 1, 64));
    for (int r = 0; r < 64; ++r) {
        const int expected = static_cast<int>(66 + 2.015625 * r);
        EXPECT_NEAR(out[r * 64], expected, 1) << r;
        EXPECT_NEAR(out[r * 64 + 63], expected, 1) << r;
    }
    ASSERT_TRUE(CropEyeWindow(columns.data(), 256, 256, out, 85, 109, 171, 109, 1, 1, 64));
    for (int c = 0; c < 64; ++c) {
        const int expected = static_cast<int>(128 + (c - 32) * 43.0 / 18.0);
        EXPECT_NEAR(out[c], expected, 1) << c;
        EXPECT_NEAR(out[63 * 64 + c], expected, 1) << c;
    }
    const msm::ViewWindow footprint = msm::CropFootprint(256, 256, 85, 109, 171, 109, 1, 1, 64);
    EXPECT_EQ(footprint.rowBegin, 66);
    EXPECT_EQ(footprint.rowEnd, 194);
    EXPECT_EQ(footprint.colBegin, 51);
    EXPECT_EQ(footprint.colEnd, 204);
}

TEST(CropEyeWindow, UnreadableSourceGivesAZeroWindow) {
    unsigned char out[16 * 16];
    std::memset(out, 9, sizeof out);
    const unsigned char one = 200;
    EXPECT_TRUE(CropEyeWindow(&one, 1, 1, out, 85, 109, 171, 109, 1, 1, 16));
    EXPECT_TRUE(std::all_of(out, out + sizeof out, [](unsigned char v) { return v == 0; }));
    // An eye placement far outside the source is clamped to its border, not read past it.
    std::vector<unsigned char> source(20 * 20, 77);
    EXPECT_TRUE(CropEyeWindow(source.data(), 20, 20, out, -4e6f, 9e6f, 5e6f, 9e6f, 1, 1, 16));
    EXPECT_TRUE(std::all_of(out, out + sizeof out, [](unsigned char v) { return v == 77; }));
}

TEST(NormaliseFace, MatchesTheFullViewWarpFollowedByTheCrop) {
    const auto frame = testsupport::NoiseFrame(320, 240, 7);
    PartsPosition parts = ReferencePoints();
    for (int k = 0; k < 28; ++k) parts.points[k] = parts.points[k] / 2 + 40 + (k * 7) % 5;
    FaceShapeModel a, b;
    unsigned char face[64 * 64];
    ASSERT_EQ(NormaliseFace(&a, 320, 240, frame.data(), &parts, face), 1);
    BasicImageFile view(256, 256, 8);
    ASSERT_TRUE(WarpFace(&b, frame.data(), 320, 240, &view, ModelOrder(parts).data(), nullptr));
    unsigned char expected[64 * 64];
    CropEyeWindow(view.pixels, 256, 256, expected, 85, 109, 171, 109, 1, 1, 64);
    EXPECT_EQ(0, std::memcmp(face, expected, sizeof face));
}

TEST(NormaliseFace, AbsentOrAbsurdPointsStillGiveAFace) {
    const auto frame = testsupport::SmoothFrame(64, 64);
    FaceShapeModel model;
    unsigned char face[64 * 64];
    PartsPosition parts = ReferencePoints();
    for (int k = 0; k < 28; ++k) parts.points[k] = (k % 3) ? 1000000000 : -1000000000;
    std::memset(face, 9, sizeof face);
    EXPECT_EQ(NormaliseFace(&model, 64, 64, frame.data(), &parts, face), 1);
    EXPECT_TRUE(std::all_of(face, face + sizeof face, [](unsigned char v) { return v == 0; }));

    // Exactly four points are enough for a face.
    for (int k = 0; k < 28; ++k) parts.points[k] = 9999;
    const PartsPosition reference = ReferencePoints();
    for (int k : {0, 1, 2, 13}) {
        parts.points[2 * k] = reference.points[2 * k] / 4;
        parts.points[2 * k + 1] = reference.points[2 * k + 1] / 4;
    }
    EXPECT_EQ(NormaliseFace(&model, 64, 64, frame.data(), &parts, face), 1);
    EXPECT_FALSE(std::all_of(face, face + sizeof face, [](unsigned char v) { return v == 0; }));
}

TEST(NormaliseFace, UnreadableFramesFailAndLeaveTheFaceAlone) {
    const auto frame = testsupport::SmoothFrame(64, 64);
    const PartsPosition parts = ReferencePoints();
    FaceShapeModel model;
    unsigned char face[64 * 64];
    std::memset(face, 9, sizeof face);
    EXPECT_EQ(NormaliseFace(&model, 64, 64, nullptr, &parts, face), 0);
    EXPECT_EQ(NormaliseFace(&model, 1, 1, frame.data(), &parts, face), 0);
    EXPECT_EQ(NormaliseFace(&model, 64, 1, frame.data(), &parts, face), 0);
    EXPECT_EQ(NormaliseFace(&model, 0, -5, frame.data(), &parts, face), 0);
    EXPECT_EQ(NormaliseFace(&model, 64, 64, frame.data(), nullptr, face), 0);
    EXPECT_EQ(NormaliseFace(&model, 64, 64, frame.data(), &parts, nullptr), 0);
    EXPECT_TRUE(std::all_of(face, face + sizeof face, [](unsigned char v) { return v == 9; }));
    // 2 x 2 is the smallest frame that can be sampled.
    const unsigned char tiny[4] = {10, 20, 30, 40};
    EXPECT_EQ(NormaliseFace(&model, 2, 2, tiny, &parts, face), 1);
    EXPECT_TRUE(
        std::all_of(face, face + sizeof face, [](unsigned char v) { return v >= 10 && v <= 40; }));
}

}  // namespace
