// The fourteen points from the 68 landmarks, on made-up landmarks where the answer is known.
#include <gtest/gtest.h>

#include <msmface/detect.h>

#include <cmath>
#include <limits>
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

// The box a face's points imply: exact on an upright face, and it moves, grows and turns with
// the face.
TEST(BoxFromPoints, FollowsTheFaceItsPointsDescribe) {
    msmface::FacePoints upright;
    upright.xy.fill(200.0f);
    upright.xy[0] = 100, upright.xy[1] = 100;    // eye centre, image left
    upright.xy[2] = 140, upright.xy[3] = 100;    // eye centre, image right
    upright.xy[26] = 120, upright.xy[27] = 140;  // mouth centre: 40 below the eyes' midpoint
    const auto box = msmface::boxFromPoints(upright);
    ASSERT_TRUE(box.ok()) << box.message();
    // 2.27 x 40 = 90.8 wide, centred 0.42 x 40 = 16.8 below the midpoint (120, 100).
    EXPECT_EQ(box->width, 91);
    EXPECT_EQ(box->height, 91);
    EXPECT_EQ(box->left, 75);  // 120 - 45.4
    EXPECT_EQ(box->top, 71);   // 116.8 - 45.4

    auto transformed = [&](double scale, double turn, double dx, double dy) {
        msmface::FacePoints p = upright;
        const double c = std::cos(turn), s = std::sin(turn);
        for (int k = 0; k < msmface::kFacePointCount; ++k) {
            const double x = p.xy[2 * k] - 120, y = p.xy[2 * k + 1] - 100;
            p.xy[2 * k] = static_cast<float>(scale * (c * x - s * y) + 300 + dx);
            p.xy[2 * k + 1] = static_cast<float>(scale * (s * x + c * y) + 300 + dy);
        }
        return p;
    };
    for (double turn : {0.0, 0.3, -0.5, 3.14159265358979}) {
        const auto moved = msmface::boxFromPoints(transformed(2.0, turn, 11, -7));
        ASSERT_TRUE(moved.ok()) << moved.message();
        EXPECT_NEAR(moved->width, 2 * 90.8, 1.0) << turn;
        // Its centre lies 2 x 16.8 from the midpoint, towards the mouth, whatever the roll.
        const double cx = moved->left + moved->width / 2.0 - (300 + 11);
        const double cy = moved->top + moved->height / 2.0 - (300 - 7);
        EXPECT_NEAR(cx, -std::sin(turn) * 33.6, 1.0) << turn;
        EXPECT_NEAR(cy, std::cos(turn) * 33.6, 1.0) << turn;
    }
}

TEST(BoxFromPoints, RefusesPointsThatDescribeNoFace) {
    msmface::FacePoints p;
    p.xy.fill(150.0f);
    p.xy[0] = 100, p.xy[2] = 140, p.xy[27] = 190;
    ASSERT_TRUE(msmface::boxFromPoints(p).ok());
    const float absent[] = {-1.0f, std::numeric_limits<float>::quiet_NaN(),
                            std::numeric_limits<float>::infinity(), 3e9f};
    for (int k : {0, 1, 13})
        for (float v : absent) {
            msmface::FacePoints bad = p;
            bad.xy[2 * k + 1] = v;
            const auto box = msmface::boxFromPoints(bad);
            ASSERT_FALSE(box.ok()) << k << " " << v;
            EXPECT_EQ(box.status().kind(), msmface::ErrorKind::Argument);
            EXPECT_NE(box.message().find("point " + std::to_string(k)), std::string::npos)
                << box.message();
        }
    // Other points absent do not matter; the mouth on the eyes does.
    msmface::FacePoints noNose = p;
    noNose.xy[24] = -1;
    EXPECT_TRUE(msmface::boxFromPoints(noNose).ok());
    msmface::FacePoints flat = p;
    flat.xy[26] = 120, flat.xy[27] = 150.5f;
    const auto none = msmface::boxFromPoints(flat);
    ASSERT_FALSE(none.ok());
    EXPECT_NE(none.message().find("mouth centre"), std::string::npos) << none.message();
}

}  // namespace
