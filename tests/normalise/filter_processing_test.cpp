#include <cmath>
#include <complex>
#include <vector>

#include <gtest/gtest.h>

#include "normalise/fft.h"
#include "normalise/filter_processing.h"
#include "normalise_test_support.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

class Filters : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        filters_ = new CFilterProcessing;
        filters_->Initialise();
    }
    static void TearDownTestSuite() { delete filters_; }
    static CFilterProcessing* filters_;
};
CFilterProcessing* Filters::filters_ = nullptr;

TEST(Fft, SineTableFollowsTheSineWithTheOctantPinned) {
    for (int n : {32, 64, 256}) {
        const msm::Fft fft(n);
        const auto& table = fft.sineTable();
        ASSERT_EQ(table.size(), static_cast<size_t>(n + n / 4));
        for (int i = 0; i < n + n / 4; ++i)
            EXPECT_NEAR(table[i], std::sin(2 * kPi * i / n), 2e-7) << n << " " << i;
        EXPECT_EQ(table[n / 8], 0.70710677f);
    }
}

TEST(Fft, ForwardIsTheCentredDiscreteTransform) {
    const int n = 64;
    std::vector<float> re(n), im(n);
    for (int j = 0; j < n; ++j) {
        re[j] = static_cast<float>(std::sin(j * 0.37) + 0.25 * j / n);
        im[j] = static_cast<float>(std::cos(j * 1.3));
    }
    std::vector<std::complex<double>> expected(n);
    for (int k = 0; k < n; ++k) {
        // Zero frequency at k = n/2: the spectrum of (-1)^j x[j], times (-1)^k.
        std::complex<double> s = 0;
        for (int j = 0; j < n; ++j)
            s += std::complex<double>(re[j], im[j]) * ((j % 2) ? -1.0 : 1.0) *
                 std::polar(1.0, -2 * kPi * j * k / n);
        expected[k] = s * ((k % 2) ? -1.0 : 1.0);
    }
    const msm::Fft fft(n);
    fft.Forward(re.data(), im.data());
    for (int k = 0; k < n; ++k) {
        EXPECT_NEAR(re[k], expected[k].real(), 1e-4) << k;
        EXPECT_NEAR(im[k], expected[k].imag(), 1e-4) << k;
    }
}

TEST(Fft, ConstantPlaneLandsOnTheCentreAndComesBack) {
    const int n = 64;
    std::vector<float> re(n * n, 3.0f), im(n * n, 0.0f);
    const msm::Fft fft(n);
    msm::Forward2d(fft, re.data(), im.data());
    for (int i = 0; i < n * n; ++i) {
        const float want = (i == 32 * n + 32) ? 3.0f * n * n : 0.0f;
        ASSERT_NEAR(re[i], want, 1e-2) << i;
        ASSERT_NEAR(im[i], 0.0f, 1e-2) << i;
    }
    msm::Inverse2d(fft, re.data(), im.data());
    for (int i = 0; i < n * n; ++i) ASSERT_NEAR(re[i], 3.0f, 1e-5);
}

TEST(Fft, InverseUndoesForwardSoAUnitResponseReturnsTheInput) {
    const int n = 64;
    const auto bytes = testsupport::NoiseFrame(n, n, 3);
    std::vector<float> re(bytes.begin(), bytes.end()), im(n * n, 0.0f);
    const msm::Fft fft(n);
    msm::Forward2d(fft, re.data(), im.data());
    msm::Inverse2d(fft, re.data(), im.data());
    for (int i = 0; i < n * n; ++i) ASSERT_NEAR(re[i], bytes[i], 1e-3) << i;
}

TEST_F(Filters, KernelRadiiAreTheFirstTapBelowOnePercent) {
    const int small[3] = {4, 7, 10};
    for (int size : {64, 32, 16})
        for (int s = 0; s < 3; ++s) {
            const auto& g = filters_->kernel(size, s);
            EXPECT_EQ(g.radius, small[s]);
            EXPECT_EQ(g.taps.size(), 23u);
            EXPECT_EQ(g.tap(0), 1.0f);
            EXPECT_LT(g.tap(g.radius), 0.01f);
            EXPECT_GE(g.tap(g.radius - 1), 0.01f);
        }
    const int large[4] = {10, 19, 28, 10};
    for (int s = 0; s < 4; ++s) {
        EXPECT_EQ(filters_->kernel(256, s).radius, large[s]);
        EXPECT_EQ(filters_->kernel(256, s).taps.size(), 89u);
    }
}

TEST_F(Filters, BorderMapsDivideByTheTapsInsideThePlane) {
    const auto& g = filters_->kernel(32, 1);  // sigma 2, radius 7
    const auto& maps = filters_->borderMaps(32, 1);
    float corner = 0, centre = 0;
    for (int k = -7; k <= 7; ++k) {
        if (k >= 0) corner += g.tap(k);
        centre += g.tap(k);
    }
    EXPECT_FLOAT_EQ(maps.horizontal[5 * 32 + 0], 1 / corner);  // column 0
    EXPECT_FLOAT_EQ(maps.vertical[0 * 32 + 5], 1 / corner);    // row 0
    EXPECT_FLOAT_EQ(maps.horizontal[0 * 32 + 16], 1 / centre);
    EXPECT_FLOAT_EQ(maps.horizontal[9 * 32 + 31], 1 / corner);
}

TEST_F(Filters, BlurKeepsAFlatPlaneFlatAndWeighsCornersByTheirOwnTaps) {
    std::vector<float> flat(64 * 64, 37.0f), out(64 * 64);
    for (int s = 0; s < 3; ++s) {
        ASSERT_TRUE(filters_->BlurGaussian(64, s, flat.data(), out.data()));
        for (float v : out) ASSERT_NEAR(v, 37.0f, 37e-6f);
    }
    // A single bright corner pixel: the corner's output is the pixel times the centre tap over
    // the taps inside, in each direction.
    std::vector<float> spot(32 * 32, 0.0f);
    spot[0] = 1.0f;
    ASSERT_TRUE(filters_->BlurGaussian(32, 0, spot.data(), out.data()));
    const auto& g = filters_->kernel(32, 0);
    float inside = 0;
    for (int k = 0; k <= g.radius; ++k) inside += g.tap(k);
    EXPECT_NEAR(out[0], 1.0f / (inside * inside), 1e-6f);
    // One column in, the row sum also takes the tap at -1.
    EXPECT_NEAR(out[1], g.tap(1) / ((inside + g.tap(1)) * inside), 1e-6f);
    EXPECT_EQ(out[10 * 32 + 10], 0.0f);  // beyond the radius
    // In place works too.
    ASSERT_TRUE(filters_->BlurGaussian(32, 0, spot.data(), spot.data()));
    EXPECT_EQ(spot[0], out[0]);
    EXPECT_FALSE(filters_->BlurGaussian(48, 0, flat.data(), out.data()));
    EXPECT_FALSE(filters_->BlurGaussian(64, 3, flat.data(), out.data()));
}

TEST_F(Filters, BandPassResponseIsZeroAtTheCentreAndPeaksOnARing) {
    const auto& h = filters_->response(64);
    ASSERT_EQ(h.size(), 4096u);
    EXPECT_EQ(h[32 * 64 + 32], 0.0f);
    // The (7, 22) pair peaks where r^2 = 4 ln(22/7) 7^2 22^2 / (22^2 - 7^2): r = 15.8.
    const float peak = h[32 * 64 + 32 + 16];
    EXPECT_NEAR(peak, std::exp(-256.0 / 968) - std::exp(-256.0 / 98), 1e-6);
    EXPECT_GT(peak, h[32 * 64 + 32 + 15]);
    EXPECT_GT(peak, h[32 * 64 + 32 + 17]);
    EXPECT_LT(h[0], 0.5f * peak);                 // falling toward the highest frequencies
    EXPECT_EQ(h[32 * 64 + 40], h[40 * 64 + 32]);  // radially symmetric
}

TEST_F(Filters, BandPassScalesEachFrequencyByItsResponse) {
    // A cosine of 6 cycles along the rows passes with the response at 6 from the centre, and the
    // plane's mean is removed.
    std::vector<float> in(4096), out(4096);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 64; ++c)
            in[r * 64 + c] = 10.0f + static_cast<float>(std::cos(2 * kPi * 6 * c / 64));
    filters_->FilterBandPass64(in.data(), out.data());
    const float gain = filters_->response(64)[32 * 64 + 32 + 6];
    for (int i = 0; i < 4096; ++i) ASSERT_NEAR(out[i], gain * (in[i] - 10.0f), 1e-4) << i;
}

TEST_F(Filters, PatternMapHasUnitLengthAndIgnoresOverallBrightness) {
    auto face = testsupport::NoiseFrame(64, 64, 11);
    for (auto& p : face) p = static_cast<unsigned char>(p / 2);  // room to double
    std::vector<unsigned char> brighter(face);
    for (auto& p : brighter) p = static_cast<unsigned char>(2 * p);
    std::vector<float> a(1024), b(1024);
    ASSERT_TRUE(filters_->MakePatternMap(face.data(), a.data()));
    ASSERT_TRUE(filters_->MakePatternMap(brighter.data(), b.data()));
    double length = 0;
    for (float v : a) length += double(v) * v;
    EXPECT_NEAR(length, 1.0, 1e-5);
    EXPECT_EQ(a, b);  // every ratio is the same float
}

TEST_F(Filters, UniformPlanesHaveNoBandAndABlackFaceGivesNotANumber) {
    std::vector<float> flat(4096, -6.9f), band(4096);
    filters_->FilterBandPass64(flat.data(), band.data());
    for (float v : band) ASSERT_NEAR(v, 0.0f, 1e-5f);

    // Black: every blur is 0, every pixel takes the floor three times, the band is exactly 0 and
    // the unguarded unit-length step divides by zero.
    std::vector<unsigned char> black(4096, 0);
    std::vector<float> map(1024);
    ASSERT_TRUE(filters_->MakePatternMap(black.data(), map.data()));
    for (float v : map) ASSERT_TRUE(std::isnan(v));
}

TEST_F(Filters, RatiosBelowATenthAreFloored) {
    // A dark pixel in a textured face: at 0 and at 1 (ratio near 1/128) it takes the same floor,
    // so the maps differ only through the slightly different blurs; at 40 (ratio 0.3) it does
    // not, and the map moves far more.
    auto mapWithSpot = [](CFilterProcessing* f, unsigned char value) {
        auto face = testsupport::NoiseFrame(64, 64, 5);
        for (auto& p : face) p = static_cast<unsigned char>(100 + p / 4);
        face[30 * 64 + 30] = value;
        std::vector<float> map(1024);
        f->MakePatternMap(face.data(), map.data());
        return map;
    };
    auto largestDifference = [](const std::vector<float>& a, const std::vector<float>& b) {
        float worst = 0;
        for (size_t i = 0; i < a.size(); ++i) worst = std::fmax(worst, std::fabs(a[i] - b[i]));
        return worst;
    };
    const auto zero = mapWithSpot(filters_, 0), one = mapWithSpot(filters_, 1);
    const auto forty = mapWithSpot(filters_, 40);
    EXPECT_LT(largestDifference(zero, one), 0.01f);
    EXPECT_GT(largestDifference(zero, forty), 5 * largestDifference(zero, one));
}

}  // namespace
