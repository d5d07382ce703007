// The threshold at a false-accept rate: exact values worked out by hand, and on random score
// sets the two properties that define it (it holds the rate; one lower does not).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <msmface/calibration.h>

namespace {

using msmface::thresholdAtFalseAcceptRate;

int ThresholdOf(const std::vector<int>& impostor, double rate) {
    const auto p = thresholdAtFalseAcceptRate({}, impostor, rate);
    EXPECT_TRUE(p.ok()) << p.message();
    return p.ok() ? p->threshold : -2;
}

std::size_t Above(const std::vector<int>& scores, int t) {
    return static_cast<std::size_t>(
        std::count_if(scores.begin(), scores.end(), [t](int s) { return s > t; }));
}

TEST(Calibration, ExactThresholdsOnSmallSets) {
    const std::vector<int> tied = {500, 100, 500, 500};
    EXPECT_EQ(ThresholdOf(tied, 0.75), 100);  // 3 of 4 above 100
    EXPECT_EQ(ThresholdOf(tied, 0.5), 500);   // above 100 are 3: too many; above 500 none
    EXPECT_EQ(ThresholdOf(tied, 0.0), 500);
    EXPECT_EQ(ThresholdOf(tied, 1.0), -1);  // everything may pass
    EXPECT_EQ(ThresholdOf({}, 0.01), -1);
    EXPECT_EQ(ThresholdOf({1000, 1000}, 0.0), 1000);
    // 1 % of 300 is exactly 3 scores, whatever the binary rounding of 0.01 * 300.
    std::vector<int> ramp;
    for (int i = 0; i < 300; ++i) ramp.push_back(i);
    EXPECT_EQ(ThresholdOf(ramp, 0.01), 296);  // 297, 298, 299 above
    EXPECT_EQ(ThresholdOf(ramp, 0.001), 299);
    const auto p = thresholdAtFalseAcceptRate({298, 100, 299, 50}, ramp, 0.01);
    ASSERT_TRUE(p.ok());
    EXPECT_EQ(p->threshold, 296);
    EXPECT_DOUBLE_EQ(p->falseAccept, 0.01);
    EXPECT_DOUBLE_EQ(p->trueAccept, 0.5);
    EXPECT_DOUBLE_EQ(p->rate, 0.01);
}

TEST(Calibration, TheThresholdHoldsTheRateAndIsTheLowestThatDoes) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        const int count = 1 + static_cast<int>(rng() % 400);
        // Narrow ranges make ties; -1 is a score that was not computed.
        const int spread = 1 + static_cast<int>(rng() % 1002);
        std::vector<int> impostor, genuine;
        for (int i = 0; i < count; ++i)
            impostor.push_back(std::min(1000, -1 + static_cast<int>(rng() % spread)));
        for (int i = 0; i < 10; ++i) genuine.push_back(static_cast<int>(rng() % 1001));
        const double rate = std::uniform_real_distribution<double>(0.0, 0.6)(rng);
        const auto p = thresholdAtFalseAcceptRate(genuine, impostor, rate);
        ASSERT_TRUE(p.ok()) << p.message();
        const auto allowed = static_cast<std::size_t>(std::floor(rate * count + 1e-9));
        ASSERT_GE(p->threshold, -1);
        ASSERT_LE(p->threshold, 1000);
        EXPECT_LE(Above(impostor, p->threshold), allowed) << round;
        if (p->threshold > -1) {
            EXPECT_GT(Above(impostor, p->threshold - 1), allowed) << round;
        }
        EXPECT_DOUBLE_EQ(p->falseAccept,
                         static_cast<double>(Above(impostor, p->threshold)) / count);
        EXPECT_DOUBLE_EQ(p->trueAccept, static_cast<double>(Above(genuine, p->threshold)) / 10);
        const msmface::SortedScores sorted(impostor);
        for (int t : {-2, -1, 0, p->threshold, 500, 1000})
            EXPECT_EQ(sorted.countAbove(t), Above(impostor, t)) << round << " " << t;
    }
}

TEST(Calibration, ARateOutsideZeroToOneIsRefusedNamingIt) {
    for (double rate : {-0.1, 1.5, std::nan("")}) {
        const auto p = thresholdAtFalseAcceptRate({1}, {2}, rate);
        ASSERT_FALSE(p.ok()) << rate;
        EXPECT_EQ(p.message().rfind("rate ", 0), 0u) << p.message();
        EXPECT_EQ(p.status().kind(), msmface::ErrorKind::Argument);
    }
}

}  // namespace
