// The synthetic face generator: repeatable, its points sit on what it draws, its camera behaves
// like a camera, bad requests give empty results, and after normalisation one person's frames
// resemble each other more than they resemble other persons.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "data/face_model.h"
#include "normalise/face_cropping.h"
#include "normalise/face_shape_model.h"
#include "normalise/filter_processing.h"
#include "tools/synth/mean_face.h"
#include "tools/synth/synth_face.h"

namespace {

using msmsynth::SynthFrame;
using msmsynth::SynthPerson;
using msmsynth::SynthPose;

SynthPose FrontalPose() {
    SynthPose pose;
    pose.eyeDistance = 70.0f;
    pose.centreX = 160.0f;
    pose.centreY = 115.0f;
    pose.noise = 0.0f;
    return pose;
}

float MeanAround(const SynthFrame& f, float x, float y, int radius) {
    const int cx = static_cast<int>(std::lround(x)), cy = static_cast<int>(std::lround(y));
    float sum = 0;
    int n = 0;
    for (int dy = -radius; dy <= radius; ++dy)
        for (int dx = -radius; dx <= radius; ++dx) {
            const int px = std::clamp(cx + dx, 0, f.width - 1),
                      py = std::clamp(cy + dy, 0, f.height - 1);
            sum += f.pixels[static_cast<size_t>(py) * f.width + px];
            ++n;
        }
    return sum / static_cast<float>(n);
}

TEST(SynthData, UsesTheLibrarysFaceModel) {
    EXPECT_EQ(0, std::memcmp(msmsynth::kMeanFaceDepth, FaceDepthMap, sizeof(FaceDepthMap)));
    int32_t host[28], model[28];
    for (int k = 0; k < 14; ++k) {
        host[2 * k] = msmsynth::kGridPoints[k][0];
        host[2 * k + 1] = msmsynth::kGridPoints[k][1];
    }
    msm::ToModelOrder(host, model);
    for (int k = 0; k < 14; ++k) {
        EXPECT_EQ(model[2 * k], FaceReferencePoints[k][0]) << "model point " << k;
        EXPECT_EQ(model[2 * k + 1], FaceReferencePoints[k][1]) << "model point " << k;
    }
}

TEST(SynthDeterminism, SameSeedsGiveSameBytesAndOthersDiffer) {
    const SynthPerson a = msmsynth::makePerson(42, 3), b = msmsynth::makePerson(42, 3);
    EXPECT_EQ(a.vertices, b.vertices);
    EXPECT_EQ(a.albedo, b.albedo);
    const SynthPerson other = msmsynth::makePerson(42, 4), otherSeed = msmsynth::makePerson(43, 3);
    EXPECT_NE(a.albedo, other.albedo);
    EXPECT_NE(a.vertices, other.vertices);
    EXPECT_NE(a.albedo, otherSeed.albedo);

    const SynthPose pose = msmsynth::randomPose(7, 320, 240);
    const SynthFrame f1 = msmsynth::renderFrame(a, pose, 320, 240);
    const SynthFrame f2 = msmsynth::renderFrame(b, pose, 320, 240);
    ASSERT_TRUE(f1.valid());
    EXPECT_EQ(f1.pixels, f2.pixels);
    EXPECT_EQ(f1.points, f2.points);

    SynthPose reseeded = pose;
    reseeded.noiseSeed += 1;
    const SynthFrame f3 = msmsynth::renderFrame(a, reseeded, 320, 240);
    EXPECT_NE(f1.pixels, f3.pixels);
    EXPECT_EQ(f1.points, f3.points);  // noise never moves the face

    const auto s1 = msmsynth::makeSequence(9, 20, 320, 240),
               s2 = msmsynth::makeSequence(9, 20, 320, 240);
    ASSERT_EQ(s1.size(), 20u);
    for (size_t t = 0; t < s1.size(); ++t)
        EXPECT_EQ(0, std::memcmp(&s1[t], &s2[t], sizeof(SynthPose))) << "frame " << t;
}

TEST(SynthCamera, PointsFollowRollShiftAndScaleExactly) {
    const SynthPerson person = msmsynth::makePerson(5, 0);
    SynthPose pose = FrontalPose();
    pose.yaw = 8.0f;
    pose.pitch = -5.0f;
    const SynthFrame base = msmsynth::renderFrame(person, pose, 320, 240);

    SynthPose rolled = pose;
    rolled.roll = 30.0f;
    SynthPose shifted = pose;
    shifted.centreX += 17.5f;
    shifted.centreY -= 9.25f;
    SynthPose scaled = pose;
    scaled.eyeDistance *= 1.5f;
    const SynthFrame r = msmsynth::renderFrame(person, rolled, 320, 240);
    const SynthFrame s = msmsynth::renderFrame(person, shifted, 320, 240);
    const SynthFrame z = msmsynth::renderFrame(person, scaled, 320, 240);
    const float c = std::cos(30.0f * 3.14159265f / 180), sn = std::sin(30.0f * 3.14159265f / 180);
    for (int k = 0; k < 14; ++k) {
        const float dx = base.points[2 * k] - pose.centreX,
                    dy = base.points[2 * k + 1] - pose.centreY;
        // Positive roll turns clockwise on screen, whose rows run down.
        EXPECT_NEAR(r.points[2 * k], pose.centreX + c * dx - sn * dy, 1e-3f) << k;
        EXPECT_NEAR(r.points[2 * k + 1], pose.centreY + sn * dx + c * dy, 1e-3f) << k;
        EXPECT_NEAR(s.points[2 * k], base.points[2 * k] + 17.5f, 1e-3f) << k;
        EXPECT_NEAR(s.points[2 * k + 1], base.points[2 * k + 1] - 9.25f, 1e-3f) << k;
        EXPECT_NEAR(z.points[2 * k], pose.centreX + 1.5f * dx, 1e-3f) << k;
        EXPECT_NEAR(z.points[2 * k + 1], pose.centreY + 1.5f * dy, 1e-3f) << k;
    }
}

TEST(SynthCamera, FrontalPointsKeepTheFacesLayout) {
    for (int index = 0; index < 8; ++index) {
        const SynthFrame f =
            msmsynth::renderFrame(msmsynth::makePerson(11, index), FrontalPose(), 320, 240);
        ASSERT_TRUE(f.valid());
        const auto& p = f.points;
        auto x = [&](int k) { return p[2 * k]; };
        auto y = [&](int k) { return p[2 * k + 1]; };
        const float eyes = x(1) - x(0);
        EXPECT_GT(eyes, 0.8f * 70) << "person " << index;  // shape varies the spacing a little
        EXPECT_LT(eyes, 1.2f * 70) << "person " << index;
        EXPECT_NEAR(y(0), y(1), 0.5f);  // the shape keeps the face symmetric
        // Left to right across the eyes: outer, centre, inner | inner, centre, outer.
        EXPECT_LT(x(6), x(0));
        EXPECT_LT(x(0), x(7));
        EXPECT_LT(x(7), x(8));
        EXPECT_LT(x(8), x(1));
        EXPECT_LT(x(1), x(9));
        // Top to bottom: brows, eyes, nose tip, nostrils, mouth.
        EXPECT_LT(y(10), y(0));
        EXPECT_LT(y(0), y(12));
        EXPECT_LT(y(12), y(2));
        EXPECT_LT(y(2), y(13));
        EXPECT_LT(x(4), x(13));
        EXPECT_LT(x(13), x(5));
    }
}

TEST(SynthRendering, PointsLandOnTheDrawnFeatures) {
    int frames = 0;
    for (int index = 0; index < 8; ++index) {
        const SynthPerson person = msmsynth::makePerson(21, index);
        for (int k = 0; k < 4; ++k) {
            SynthPose pose = msmsynth::randomPose(static_cast<uint32_t>(100 * index + k), 640, 480);
            pose.noise = 0.0f;
            const SynthFrame f = msmsynth::renderFrame(person, pose, 640, 480);
            ASSERT_TRUE(f.valid());
            const float* p = f.points.data();
            for (int i = 0; i < 28; i += 2) {
                EXPECT_GE(p[i], 0.0f);
                EXPECT_LT(p[i], 640.0f);
                EXPECT_GE(p[i + 1], 0.0f);
                EXPECT_LT(p[i + 1], 480.0f);
            }
            // A cheek point: below each eye, a third of the way to the mouth corner on its side.
            for (int side = 0; side < 2; ++side) {
                const float ex = p[2 * side], ey = p[2 * side + 1];
                const float mx = p[2 * (4 + side)], my = p[2 * (4 + side) + 1];
                const float cheek = MeanAround(f, ex + 0.4f * (mx - ex), ey + 0.4f * (my - ey), 1);
                EXPECT_LT(MeanAround(f, ex, ey, 1), cheek - 10)
                    << "eye " << side << " person " << index << " pose " << k;
                // Nostrils are darker than the nose tip.
                EXPECT_LT(MeanAround(f, p[2 * (2 + side)], p[2 * (2 + side) + 1], 0),
                          MeanAround(f, p[24], p[25], 1) - 5)
                    << "nostril " << side;
            }
            // The mouth centre sits on the parting of the lips, darker than the skin above.
            const float aboveX = 0.5f * (p[24] + p[26]), aboveY = 0.5f * (p[25] + p[27]);
            EXPECT_LT(MeanAround(f, p[26], p[27], 0), MeanAround(f, aboveX, aboveY, 1) - 5);
            ++frames;
        }
    }
    EXPECT_EQ(frames, 32);
}

TEST(SynthSequence, MovesSmoothlyAndStaysInTheFrame) {
    const auto poses = msmsynth::makeSequence(3, 200, 320, 240);
    ASSERT_EQ(poses.size(), 200u);
    const SynthPerson person = msmsynth::makePerson(3, 1);
    float yawLow = 90, yawHigh = -90;
    SynthFrame previous;
    for (size_t t = 0; t < poses.size(); ++t) {
        const SynthPose& p = poses[t];
        EXPECT_LE(std::fabs(p.yaw), 15.0f);
        EXPECT_LE(std::fabs(p.pitch), 10.0f);
        EXPECT_LE(std::fabs(p.roll), 10.0f);
        EXPECT_EQ(p.backgroundSeed, poses[0].backgroundSeed);
        yawLow = std::min(yawLow, p.yaw);
        yawHigh = std::max(yawHigh, p.yaw);
        const SynthFrame f = msmsynth::renderFrame(person, p, 320, 240);
        ASSERT_TRUE(f.valid());
        if (t > 0) {
            EXPECT_NE(p.noiseSeed, poses[t - 1].noiseSeed);
            for (int i = 0; i < 28; ++i)
                EXPECT_LT(std::fabs(f.points[i] - previous.points[i]), 4.0f) << t;
        }
        for (int i = 0; i < 28; i += 2) {
            EXPECT_GE(f.points[i], 0.0f);
            EXPECT_LT(f.points[i], 320.0f);
            EXPECT_GE(f.points[i + 1], 0.0f);
            EXPECT_LT(f.points[i + 1], 240.0f);
        }
        previous = f;
    }
    EXPECT_GT(yawHigh - yawLow, 5.0f) << "a take should turn the head";
}

TEST(SynthRequests, BadRequestsGiveEmptyResults) {
    const SynthPerson person = msmsynth::makePerson(1, 0);
    const SynthPose good = FrontalPose();
    SynthPose dot = good;
    dot.eyeDistance = 2.0f;
    dot.centreX = dot.centreY = 0.5f;
    EXPECT_TRUE(msmsynth::renderFrame(person, dot, 1, 1).valid());
    for (auto size : {std::pair{0, 240}, {320, 0}, {-5, 240}, {msmsynth::kMaxFrameSide + 1, 10}}) {
        const SynthFrame f = msmsynth::renderFrame(person, good, size.first, size.second);
        EXPECT_FALSE(f.valid());
        EXPECT_EQ(f.width, 0);
    }
    EXPECT_FALSE(msmsynth::renderFrame(SynthPerson{}, good, 320, 240).valid());
    SynthPerson truncated = person;
    truncated.albedo.resize(100);
    EXPECT_FALSE(msmsynth::renderFrame(truncated, good, 320, 240).valid());
    SynthPerson stretched = person;
    stretched.vertices[3 * 64 * 128 + 3 * 64] = 1e30f;
    EXPECT_FALSE(msmsynth::renderFrame(stretched, good, 320, 240).valid());
    SynthPerson broken = person;
    broken.albedo[500] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(msmsynth::renderFrame(broken, good, 320, 240).valid());

    const float nan = std::numeric_limits<float>::quiet_NaN(),
                inf = std::numeric_limits<float>::infinity();
    float SynthPose::*fields[] = {
        &SynthPose::yaw,          &SynthPose::pitch,          &SynthPose::roll,
        &SynthPose::eyeDistance,  &SynthPose::centreX,        &SynthPose::centreY,
        &SynthPose::lightAzimuth, &SynthPose::lightElevation, &SynthPose::ambient,
        &SynthPose::diffuse,      &SynthPose::noise};
    for (auto field : fields)
        for (float bad : {nan, inf, -inf}) {
            SynthPose pose = good;
            pose.*field = bad;
            EXPECT_FALSE(msmsynth::renderFrame(person, pose, 320, 240).valid());
        }
    for (float eye : {0.5f, -3.0f, 641.0f, 1e9f}) {
        SynthPose pose = good;
        pose.eyeDistance = eye;
        EXPECT_FALSE(msmsynth::renderFrame(person, pose, 320, 240).valid()) << eye;
    }
    SynthPose far = good;
    far.centreX = 1e7f;
    EXPECT_FALSE(msmsynth::renderFrame(person, far, 320, 240).valid());
    SynthPose negativeLight = good;
    negativeLight.ambient = -0.1f;
    EXPECT_FALSE(msmsynth::renderFrame(person, negativeLight, 320, 240).valid());

    // A face far outside the frame or nearly edge on is still a frame, just without a face.
    SynthPose away = good;
    away.centreX = -1000.0f;
    away.yaw = 89.0f;
    EXPECT_TRUE(msmsynth::renderFrame(person, away, 320, 240).valid());

    EXPECT_TRUE(msmsynth::makeSequence(1, -1, 320, 240).empty());
    EXPECT_TRUE(msmsynth::makeSequence(1, msmsynth::kMaxSequenceLength + 1, 320, 240).empty());
    EXPECT_TRUE(msmsynth::makeSequence(1, 5, 0, 240).empty());
    EXPECT_TRUE(msmsynth::makeSequence(1, 0, 320, 240).empty());
    const SynthPose fallback = msmsynth::randomPose(1, -1, 240);
    EXPECT_EQ(fallback.eyeDistance, SynthPose{}.eyeDistance);
    // Tiny frames get a pose that still renders.
    const SynthPose tiny = msmsynth::randomPose(1, 8, 6);
    EXPECT_TRUE(msmsynth::renderFrame(person, tiny, 8, 6).valid());
}

// Frames of one person, normalised and filtered into pattern maps, must resemble each other more
// than frames of two persons do: the property the demo's recognition rests on.
TEST(SynthRecognition, OnePersonsFramesAreCloserThanTwoPersons) {
    constexpr int kPersons = 8, kFrames = 6, kW = 320, kH = 240;
    FaceShapeModel model;
    CFilterProcessing filters;
    std::vector<std::vector<float>> patterns;
    for (int person = 0; person < kPersons; ++person) {
        const SynthPerson who = msmsynth::makePerson(2024, person);
        for (int k = 0; k < kFrames; ++k) {
            const SynthPose pose =
                msmsynth::randomPose(static_cast<uint32_t>(7000 + 10 * person + k), kW, kH);
            const SynthFrame frame = msmsynth::renderFrame(who, pose, kW, kH);
            ASSERT_TRUE(frame.valid());
            PartsPosition parts{};
            const auto points = frame.roundedPoints();
            std::copy(points.begin(), points.end(), parts.points);
            unsigned char face[64 * 64];
            ASSERT_EQ(1, NormaliseFace(&model, kW, kH, frame.pixels.data(), &parts, face));
            std::vector<float> map(1024);
            filters.MakePatternMap(face, map.data());
            patterns.push_back(std::move(map));
        }
    }
    auto similarity = [&](size_t a, size_t b) {
        double s = 0;
        for (int i = 0; i < 1024; ++i) s += static_cast<double>(patterns[a][i]) * patterns[b][i];
        return s;
    };
    double same = 0, different = 0;
    int sameCount = 0, differentCount = 0, nearestIsSame = 0;
    for (size_t a = 0; a < patterns.size(); ++a) {
        double best = -2;
        size_t bestAt = a;
        for (size_t b = 0; b < patterns.size(); ++b) {
            if (a == b) continue;
            const double s = similarity(a, b);
            if (a / kFrames == b / kFrames) {
                if (b > a) same += s, ++sameCount;
            } else if (b > a) {
                different += s, ++differentCount;
            }
            if (s > best) best = s, bestAt = b;
        }
        nearestIsSame += bestAt / kFrames == a / kFrames;
    }
    same /= sameCount;
    different /= differentCount;
    std::printf(
        "mean similarity: same person %.3f, different persons %.3f; nearest frame is the "
        "same person for %d of %zu frames\n",
        same, different, nearestIsSame, patterns.size());
    EXPECT_GT(same, different + 0.15);
    EXPECT_GE(nearestIsSame, static_cast<int>(patterns.size()) * 9 / 10);
}

}  // namespace
