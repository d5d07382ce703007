// The fourteen points from the 68 landmarks, on made-up landmarks where the answer is known.
#include <gtest/gtest.h>

#include <msmface/detect.h>

#include <random>

namespace {

std::array<float, 136> randomLandmarks(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> at(10.0f, 400.0f);
    std::array<float, 136> l{};
    for (float& v : l) v = at(rng);
    return l;
}

// The iBUG 300-W layout seen in a mirror: which landmark each one becomes.
int mirrored(int i) {
    if (i <= 16) return 16 - i;   // jaw
    if (i <= 26) return 43 - i;   // eyebrows 17..26
    if (i <= 30) return i;        // nose bridge
    if (i <= 35) return 66 - i;   // lower nose 31..35
    if (i <= 39) return 81 - i;   // upper lids 36..39 <-> 45..42
    if (i <= 41) return 87 - i;   // lower lids 40, 41 <-> 47, 46
    if (i <= 45) return 81 - i;   // upper lids 42..45
    if (i <= 47) return 87 - i;   // lower lids 46, 47
    if (i <= 54) return 102 - i;  // outer upper lip 48..54
    if (i <= 59) return 114 - i;  // outer lower lip 55..59
    if (i <= 64) return 124 - i;  // inner upper lip 60..64
    return 132 - i;               // inner lower lip 65..67
}

TEST(LandmarkPoints, EyeCentresAreTheMeansOfTheWholeContours) {
    const auto l = randomLandmarks(1);
    const msmface::FacePoints p = msmface::pointsFromLandmarks(l);
    for (int eye = 0; eye < 2; ++eye) {
        double x = 0, y = 0;
        for (int i = 36 + 6 * eye; i < 42 + 6 * eye; ++i) {
            x += l[2 * i];
            y += l[2 * i + 1];
        }
        EXPECT_NEAR(p.xy[2 * eye], x / 6, 1e-3) << "eye " << eye;
        EXPECT_NEAR(p.xy[2 * eye + 1], y / 6, 1e-3) << "eye " << eye;
    }
    // The corners are single landmarks: outer and inner of each eye.
    EXPECT_EQ(p.xy[12], l[72]);  // 6: 36
    EXPECT_EQ(p.xy[14], l[78]);  // 7: 39
    EXPECT_EQ(p.xy[16], l[84]);  // 8: 42
    EXPECT_EQ(p.xy[18], l[90]);  // 9: 45
}

TEST(LandmarkPoints, AMirroredFaceGivesTheMirroredPointsWithSidesSwapped) {
    // Mirroring swaps image left and right: each point becomes its partner's mirror image.
    const int partner[14] = {1, 0, 3, 2, 5, 4, 9, 8, 7, 6, 11, 10, 12, 13};
    for (unsigned seed = 1; seed <= 5; ++seed) {
        const auto l = randomLandmarks(seed);
        std::array<float, 136> m{};
        for (int i = 0; i < 68; ++i) {
            ASSERT_EQ(mirrored(mirrored(i)), i);
            m[2 * mirrored(i)] = 500.0f - l[2 * i];
            m[2 * mirrored(i) + 1] = l[2 * i + 1];
        }
        const msmface::FacePoints p = msmface::pointsFromLandmarks(l);
        const msmface::FacePoints q = msmface::pointsFromLandmarks(m);
        for (int k = 0; k < 14; ++k) {
            EXPECT_NEAR(q.xy[2 * partner[k]], 500.0f - p.xy[2 * k], 1e-3) << "point " << k;
            EXPECT_NEAR(q.xy[2 * partner[k] + 1], p.xy[2 * k + 1], 1e-3) << "point " << k;
        }
    }
}

TEST(LandmarkPoints, FollowTheFaceWhenItMovesAndScales) {
    const auto l = randomLandmarks(7);
    std::array<float, 136> moved{};
    for (int i = 0; i < 136; i += 2) {
        moved[i] = 2 * l[i] + 30;
        moved[i + 1] = 2 * l[i + 1] - 5;
    }
    const msmface::FacePoints p = msmface::pointsFromLandmarks(l);
    const msmface::FacePoints q = msmface::pointsFromLandmarks(moved);
    for (int k = 0; k < 14; ++k) {
        EXPECT_NEAR(q.xy[2 * k], 2 * p.xy[2 * k] + 30, 1e-3);
        EXPECT_NEAR(q.xy[2 * k + 1], 2 * p.xy[2 * k + 1] - 5, 1e-3);
    }
}

}  // namespace
