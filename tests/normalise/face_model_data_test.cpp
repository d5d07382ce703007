#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "data/face_model.h"
#include "normalise/face_shape_model.h"

namespace {

TEST(FaceModelData, CompiledTableIsTheCommittedBinaryBitForBit) {
    const std::string path = std::string(MSMFACE_SOURCE_DIR) + "/data/facemesh/face_depth_map.bin";
    std::FILE* f = std::fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr) << path;
    std::vector<unsigned char> bytes(262144 + 1);
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    ASSERT_EQ(got, 262144u);
    int mismatches = 0;
    for (int i = 0; i < 65536; ++i) {
        const unsigned char* b = &bytes[static_cast<size_t>(i) * 4];
        const uint32_t expected =
            uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
        uint32_t actual;
        std::memcpy(&actual, &FaceDepthMap[i], 4);
        mismatches += expected != actual;
    }
    EXPECT_EQ(mismatches, 0) << "regenerate data/face_depth_map.inc with tools/make_face_depth_map";
}

TEST(FaceModelData, DepthIsFiniteAndInTheFaceRange) {
    float low = FaceDepthMap[0], high = FaceDepthMap[0];
    for (float v : FaceDepthMap) {
        ASSERT_TRUE(std::isfinite(v));
        low = std::fmin(low, v);
        high = std::fmax(high, v);
    }
    EXPECT_GT(low, -0.1f);
    EXPECT_LT(high, 0.7f);
    // The nose stands out of the face, the face out of the background.
    EXPECT_GT(FaceDepthMap[148 * 256 + 127], FaceDepthMap[109 * 256 + 85]);
    EXPECT_GT(FaceDepthMap[109 * 256 + 85], FaceDepthMap[0]);
}

TEST(FaceModelData, ModelPointsMapTheGridOntoMinusOneToOne) {
    float eye[3];
    msm::ModelPoint(0, eye);  // (85, 109)
    EXPECT_EQ(eye[0], (85.0f / 256.0f - 0.5f) * 2.0f);
    EXPECT_EQ(eye[1], (109.0f / 256.0f - 0.5f) * 2.0f);
    EXPECT_EQ(eye[2], FaceDepthMap[109 * 256 + 85]);
    float nose[3];
    msm::ModelPoint(10, nose);  // (127, 148)
    EXPECT_EQ(nose[0], -2.0f / 256.0f);
}

}  // namespace
