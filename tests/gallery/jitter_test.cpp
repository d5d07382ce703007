// Jittered copies and the frames offered: copy 0 is the frames as given, every shift stays
// within the pixels asked for, the same seed gives the same points, absent points stay absent,
// and offering N frames gives the fewest whole copies that reach N.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <msmface/face_input.h>
#include <msmface/jitter.h>

namespace {

using msmface::FacePoints;
using msmface::Sample;

std::vector<Sample> Samples(int count, const unsigned char* pixels) {
    std::vector<Sample> out;
    for (int i = 0; i < count; ++i) {
        Sample s;
        s.frame = msmface::FrameView{pixels, 4, 4, 0, msmface::PixelFormat::Grey};
        FacePoints p;
        for (int k = 0; k < 28; ++k) p.xy[k] = 20.0f * i + 3.0f * k + 0.25f;
        s.points = p;
        out.push_back(s);
    }
    return out;
}

TEST(Jitter, CopiesRepeatTheFramesWithPointsMovedWithinThePixelsAsked) {
    const unsigned char pixels[16] = {};
    const std::vector<Sample> frames = Samples(3, pixels);
    const auto out = msmface::jitterFrames(frames, 4, 1.5, 11);
    ASSERT_TRUE(out.ok()) << out.message();
    ASSERT_EQ(out->size(), 12u);
    double largest = 0.0;
    bool moved = false;
    for (std::size_t i = 0; i < out->size(); ++i) {
        const Sample& s = (*out)[i];
        const Sample& original = frames[i % 3];
        EXPECT_EQ(s.frame.data, pixels);  // the caller's frame, not a copy
        ASSERT_TRUE(s.points.has_value());
        for (int k = 0; k < 28; ++k) {
            const double shift = double(s.points->xy[k]) - double(original.points->xy[k]);
            if (i < 3) {
                EXPECT_EQ(shift, 0.0) << "copy 0 is the frames as given";
            }
            largest = std::max(largest, std::fabs(shift));
            moved = moved || shift != 0.0;
        }
    }
    EXPECT_TRUE(moved);
    EXPECT_LE(largest, 1.5 + 1e-4);
    EXPECT_GT(largest, 1.0);  // 28 x 9 shifts uniform in [-1.5, 1.5): one reaches past 1

    const auto again = msmface::jitterFrames(frames, 4, 1.5, 11);
    const auto other = msmface::jitterFrames(frames, 4, 1.5, 12);
    ASSERT_TRUE(again.ok() && other.ok());
    for (std::size_t i = 0; i < out->size(); ++i) {
        EXPECT_EQ((*out)[i].points->xy, (*again)[i].points->xy) << i;
        if (i >= 3) {
            EXPECT_NE((*out)[i].points->xy, (*other)[i].points->xy) << i;
        }
    }
    const auto still = msmface::jitterFrames(frames, 3, 0.0, 11);
    ASSERT_TRUE(still.ok());
    for (std::size_t i = 0; i < still->size(); ++i)
        EXPECT_EQ((*still)[i].points->xy, frames[i % 3].points->xy);
}

TEST(Jitter, ShiftsFollowTheDocumentedGenerator) {
    // Two Mersenne-twister numbers a, b per shift: u = (a + b 2^32) / 2^64, -p + u (2p).
    std::mt19937 reference(2024);
    msmface::Jitter jitter(2024, 2.0);
    for (int i = 0; i < 1000; ++i) {
        const double a = reference(), b = reference();
        const double u = (a + b * 4294967296.0) / 18446744073709551616.0;
        ASSERT_EQ(jitter.nextShift(), u * 4.0 - 2.0) << i;
    }
#if defined(__GLIBCXX__)
    // The generator the program drew its shifts from before: its runs reproduce unchanged.
    std::mt19937 before(77);
    std::uniform_real_distribution<double> shift(-1.5, 1.5);
    msmface::Jitter now(77, 1.5);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(now.nextShift(), shift(before)) << i;
#endif
}

TEST(Jitter, AbsentPointsStayAbsentAndKeepTheirShiftsDrawn) {
    FacePoints p;
    for (int k = 0; k < 28; ++k) p.xy[k] = 50.0f + k;
    FacePoints gap = p;
    gap.xy[4] = -1.0f;                                    // x of point 2
    gap.xy[9] = std::numeric_limits<float>::quiet_NaN();  // y of point 4
    msmface::Jitter a(5, 20.0), b(5, 20.0);
    const FacePoints moved = a.moved(p), movedGap = b.moved(gap);
    for (int k = 0; k < 14; ++k) {
        if (k == 2 || k == 4) continue;  // absent: checked below
        // The same shifts as without the gap: the points after it are not displaced in turn.
        EXPECT_EQ(movedGap.xy[2 * k], moved.xy[2 * k]) << k;
        EXPECT_EQ(movedGap.xy[2 * k + 1], moved.xy[2 * k + 1]) << k;
    }
    // Both coordinates of an absent point are left as they were, so it stays absent.
    EXPECT_EQ(movedGap.xy[4], -1.0f);
    EXPECT_EQ(movedGap.xy[5], gap.xy[5]);
    EXPECT_EQ(movedGap.xy[8], gap.xy[8]);
    EXPECT_TRUE(std::isnan(movedGap.xy[9]));
    Sample bare;
    const unsigned char pixels[16] = {};
    bare.frame = msmface::FrameView{pixels, 4, 4, 0, msmface::PixelFormat::Grey};
    const auto repeated = msmface::jitterFrames({bare}, 3, 1.0, 0);
    ASSERT_TRUE(repeated.ok());
    ASSERT_EQ(repeated->size(), 3u);
    for (const Sample& s : *repeated) EXPECT_FALSE(s.points.has_value());
}

TEST(Jitter, OfferingNFramesGivesTheFewestWholeCopiesThatReachN) {
    const unsigned char pixels[16] = {};
    const std::vector<Sample> frames = Samples(4, pixels);
    for (int wanted : {1, 3, 4, 5, 8, 9, 50}) {
        const auto offered = msmface::offerFrames(frames, wanted, 1.0, 3);
        ASSERT_TRUE(offered.ok()) << offered.message();
        const int copies = (wanted + 3) / 4;
        ASSERT_EQ(offered->size(), static_cast<std::size_t>(4 * copies)) << wanted;
        EXPECT_LT(offered->size(), static_cast<std::size_t>(std::max(wanted, 1) + 4));
        const auto made = msmface::jitterFrames(frames, copies, 1.0, 3);
        ASSERT_TRUE(made.ok());
        for (std::size_t i = 0; i < offered->size(); ++i)
            EXPECT_EQ((*offered)[i].points->xy, (*made)[i].points->xy) << wanted << " " << i;
    }
}

TEST(Jitter, BadArgumentsAreRefusedNamingTheParameter) {
    const unsigned char pixels[16] = {};
    const std::vector<Sample> frames = Samples(2, pixels);
    const std::pair<msmface::Result<std::vector<Sample>>, std::string> cases[] = {
        {msmface::jitterFrames(frames, 0, 1.0, 0), "copies 0: "},
        {msmface::jitterFrames(frames, 1001, 1.0, 0), "copies 1001: "},
        {msmface::jitterFrames(frames, 2, -1.0, 0), "pixels -1: "},
        {msmface::jitterFrames(frames, 2, std::nan(""), 0), "pixels nan: "},
        {msmface::offerFrames({}, 5, 1.0, 0), "frames: "},
        {msmface::offerFrames(frames, 0, 1.0, 0), "wanted 0: "},
        {msmface::offerFrames(frames, 2001, 1.0, 0), "wanted 2001: "},  // 1001 copies
        {msmface::offerFrames(frames, 5, 1e9, 0), "pixels 1e+09: "},
    };
    for (const auto& [result, start] : cases) {
        ASSERT_FALSE(result.ok()) << start;
        EXPECT_EQ(result.message().rfind(start, 0), 0u) << result.message();
        EXPECT_EQ(result.status().kind(), msmface::ErrorKind::Argument);
    }
}

}  // namespace
