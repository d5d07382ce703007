// The Follower on sequences made from real frames: a face that moves and grows, one that leaves,
// a larger one that arrives, and two videos followed at once.
#include <gtest/gtest.h>

#include <thread>

#include "detect_support.h"

namespace {

using namespace detecttest;

// One real face moved a few pixels and scaled a little from frame to frame inside a camera
// frame, the way a person moves in front of a camera.
struct Sequence {
    std::vector<GreyFrame> frames;
    std::vector<std::array<float, 28>> points;  // the manifest's points where the face was put
};

Sequence movingFace(const RealFace& face, int width, int height, int count, double baseScale) {
    Sequence s;
    for (int t = 0; t < count; ++t) {
        const double scale = baseScale * (1.0 + 0.15 * std::sin(t * 0.2));
        const double left = width / 2.0 - scale * face.frame.width / 2 + 40 * std::sin(t * 0.15);
        const double top = height / 2.0 - scale * face.frame.height / 2 + 15 * std::cos(t * 0.1);
        GreyFrame f = canvas(width, height);
        paste(face.frame, scale, left, top, f);
        std::array<float, 28> p{};
        for (int k = 0; k < 28; ++k)
            p[k] = static_cast<float>(placed(face.points[k], scale, k % 2 == 0 ? left : top));
        s.frames.push_back(std::move(f));
        s.points.push_back(p);
    }
    return s;
}

TEST(Follower, KeepsAMovingFaceAndAgreesWithFullDetection) {
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();
    const RealFace* face = clearFace(faces, *detector);
    ASSERT_NE(face, nullptr);
    const Sequence video = movingFace(*face, 320, 240, kRealFrameStep == 1 ? 40 : 12, 1.0);
    msmface::Follower follower(*detector, {10});
    // Errors to the manifest's points, as fractions of the eye distance, of the followed face and
    // of full detection on the frames where it finds this face.
    double worstFollowed = 0, followed = 0, detected = 0;
    int compared = 0;
    for (size_t t = 0; t < video.frames.size(); ++t) {
        msmface::DetectedFace face;
        ASSERT_TRUE(follower.track(video.frames[t].view(), face)) << "frame " << t;
        const double error = meanPointError(face.points, video.points[t].data());
        worstFollowed = std::max(worstFollowed, error);
        const auto found = detector->detect(video.frames[t].view());
        ASSERT_TRUE(found.ok());
        if (found->empty()) continue;
        const double detectedError = meanPointError(found->front().points, video.points[t].data());
        if (detectedError > 0.3) continue;  // another face
        followed += error;
        detected += detectedError;
        ++compared;
    }
    ASSERT_GT(compared, static_cast<int>(video.frames.size()) / 2);
    std::printf("%s: mean error followed %.3f, detected %.3f; worst followed %.3f\n",
                face->image.c_str(), followed / compared, detected / compared, worstFollowed);
    EXPECT_LT(worstFollowed, 0.2);
    EXPECT_LT(followed / compared, detected / compared + 0.03);
}

TEST(Follower, NoticesAFaceThatLeavesAndFindsItAgain) {
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();
    const RealFace* face = clearFace(faces, *detector);
    ASSERT_NE(face, nullptr);
    const int every = 5;
    const Sequence video = movingFace(*face, 320, 240, 4 + every, 1.0);
    const GreyFrame empty = canvas(320, 240);
    msmface::Follower follower(*detector, {every});
    msmface::FacePoints points;
    for (int t = 0; t < 4; ++t) ASSERT_TRUE(follower.findPoints(video.frames[t].view(), points));
    // Gone at once, not at the next scheduled detection.
    EXPECT_FALSE(follower.findPoints(empty.view(), points));
    EXPECT_FALSE(follower.findPoints(empty.view(), points));
    // Back within one period (the doubled search for small faces runs once a period).
    int t = 4;
    while (t < 4 + every && !follower.findPoints(video.frames[t].view(), points)) ++t;
    EXPECT_LT(t, 4 + every);
    EXPECT_LT(meanPointError(points, video.points[t].data()), 0.2);
}

TEST(Follower, ALargerFaceTakesOverAtTheNextDetection) {
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();
    const RealFace* small = clearFace(faces, *detector);
    ASSERT_NE(small, nullptr);
    const RealFace* large = clearFace(faces, *detector, (small - faces.data()) + 100);
    ASSERT_NE(large, nullptr);
    const int every = 5;
    msmface::Follower follower(*detector, {every});
    GreyFrame alone = canvas(800, 400);
    paste(small->frame, 1.0, 0, 0, alone);
    GreyFrame both = alone;
    const double left = small->frame.width + 10;
    paste(large->frame, 1.6 * small->eyeDistance() / large->eyeDistance(), left, 0, both);
    msmface::DetectedFace got;
    ASSERT_TRUE(follower.track(alone.view(), got));
    const int smallWidth = got.box.width;
    int frames = 0;
    while (frames < every + 1 && follower.track(both.view(), got) && got.box.left < left) ++frames;
    EXPECT_GE(got.box.left, left) << "still on the small face after " << frames << " frames";
    EXPECT_GT(got.box.width, smallWidth);
    EXPECT_LE(frames, every);
}

TEST(Follower, DetectingEveryFrameIsDetectionAndResetStartsAfresh) {
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();
    msmface::Follower still(*detector, {1});
    msmface::Follower video(*detector, {10});
    int checked = 0;
    for (size_t i = 0; i < faces.size() && checked < 6; i += 37 / kRealFrameStep + 1) {
        const auto detected = detector->detect(faces[i].frame.view());
        ASSERT_TRUE(detected.ok());
        if (detected->empty()) continue;
        msmface::DetectedFace got;
        ASSERT_TRUE(still.track(faces[i].frame.view(), got));
        EXPECT_EQ(got.landmarks, detected->front().landmarks);
        video.reset();
        ASSERT_TRUE(video.track(faces[i].frame.view(), got));
        EXPECT_EQ(got.landmarks, detected->front().landmarks);
        ++checked;
    }
    EXPECT_GE(checked, 4);
}

TEST(Follower, TwoFollowersOfOneDetectorRunOnTwoThreads) {
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();
    const RealFace* a = clearFace(faces, *detector);
    ASSERT_NE(a, nullptr);
    const RealFace* b = clearFace(faces, *detector, (a - faces.data()) + 200);
    ASSERT_NE(b, nullptr);
    const Sequence first = movingFace(*a, 320, 240, 12, 1.0);
    const Sequence second = movingFace(*b, 320, 240, 12, 1.1);
    auto run = [&](const Sequence& s) {
        msmface::Follower follower(*detector, {4});
        std::vector<msmface::FacePoints> out;
        for (const GreyFrame& f : s.frames) {
            msmface::FacePoints p;
            if (follower.findPoints(f.view(), p)) out.push_back(p);
        }
        return out;
    };
    const auto alone1 = run(first), alone2 = run(second);
    std::vector<msmface::FacePoints> together1, together2;
    std::thread t1([&] { together1 = run(first); });
    std::thread t2([&] { together2 = run(second); });
    t1.join();
    t2.join();
    EXPECT_EQ(alone1.size(), first.frames.size());
    ASSERT_EQ(together1.size(), alone1.size());
    ASSERT_EQ(together2.size(), alone2.size());
    for (size_t i = 0; i < alone1.size(); ++i) EXPECT_EQ(together1[i].xy, alone1[i].xy);
    for (size_t i = 0; i < alone2.size(); ++i) EXPECT_EQ(together2[i].xy, alone2[i].xy);
}

}  // namespace
