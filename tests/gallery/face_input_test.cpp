// The normalised face of a frame is the engine's own (the legacy frame call crops the same face
// from the same frame), and a frame or points it cannot use are refused naming which.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include <msmface/FaceRecognition.h>
#include <msmface/face_input.h>

#include "gallery_support.h"

namespace {

using gallerytest::MakeTake;

TEST(NormalisedFace, IsTheFaceTheEngineCropsFromTheSameFrame) {
    const gallerytest::Take take = MakeTake(1, 300, 3);
    FaceRecognition engine(gallerytest::kWidth, gallerytest::kHeight);
    for (std::size_t k = 0; k < take.frames.size(); ++k) {
        const auto face = msmface::normalisedFace(take.view(k), take.points(k));
        ASSERT_TRUE(face.ok()) << face.message();
        ASSERT_EQ(face->size(), 64u * 64u);
        EXPECT_GT(*std::max_element(face->begin(), face->end()), 0);

        BasicImageFile image(gallerytest::kWidth, gallerytest::kHeight, 8);
        BasicImageFile cropped(64, 64, 8);
        std::memcpy(image.pixels, take.frames[k].pixels.data(), take.frames[k].pixels.size());
        PartsPosition parts = msmface::toPartsPosition(take.points(k));
        ASSERT_EQ(engine.FaceCropping(&image, nullptr, &parts, &cropped), 1);
        EXPECT_EQ(*face, std::vector<unsigned char>(cropped.pixels, cropped.pixels + 64 * 64))
            << "frame " << k;
    }
}

TEST(NormalisedFace, AFrameOrPointsItCannotUseAreRefusedNamingWhich) {
    const gallerytest::Take take = MakeTake(0, 301, 1);
    msmface::FrameView tiny = take.view(0);
    tiny.width = 1;
    const auto small = msmface::normalisedFace(tiny, take.points(0));
    ASSERT_FALSE(small.ok());
    EXPECT_EQ(small.message().rfind("frame: ", 0), 0u) << small.message();
    msmface::FacePoints none;
    none.xy.fill(-1.0f);
    none.xy[0] = 100.0f;  // an x without its y is no point
    const auto absent = msmface::normalisedFace(take.view(0), none);
    ASSERT_FALSE(absent.ok());
    EXPECT_EQ(absent.message().rfind("points: ", 0), 0u) << absent.message();
    EXPECT_EQ(absent.status().kind(), msmface::ErrorKind::Argument);
}

TEST(FacePoints, DoublesBecomeTheNearestFloatsAndAbsentStaysAbsent) {
    std::array<double, 28> xy{};
    for (int k = 0; k < 28; ++k) xy[k] = 10.1 * k;
    xy[3] = -1.0;
    const msmface::FacePoints p = msmface::toFacePoints(xy);
    for (int k = 0; k < 28; ++k) EXPECT_EQ(p.xy[k], static_cast<float>(xy[k])) << k;
    EXPECT_EQ(msmface::toEnginePixel(p.xy[3]), msmface::kAbsentCoordinate);
    EXPECT_EQ(msmface::toEnginePixel(9998.49f), 9998);
    EXPECT_EQ(msmface::toEnginePixel(9998.5f), msmface::kAbsentCoordinate);
}

}  // namespace
