// The fixed-point similarity of subspaces against a double-precision computation of their
// canonical angles, and the conversion of similarities to scores.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <msmface/numeric.h>

#include "numeric/eigen_steps.h"
#include "recognition/MSMRecognition.h"
#include "subspaces.h"

namespace {

using msmtest::Basis;
using msmtest::Q14Rows;

class SimilarityTest : public ::testing::Test {
  protected:
    MSMRecognition rec{256, 5};
    double Similarity(const Basis& a, const Basis& u, int aRows = -1) {
        Q14Rows qa(a), qu(u);
        return rec.SubspaceSimilarity(qa.get(), aRows < 0 ? static_cast<int>(a.size()) : aRows,
                                      qu.get()) /
               16384.0;
    }
};

TEST_F(SimilarityTest, SubspaceWithItselfIsOne) {
    for (unsigned seed : {1u, 2u, 3u}) {
        Basis b = msmtest::RandomBasis(7, 256, seed);
        EXPECT_NEAR(Similarity(b, b), 1.0, 0.004) << "seed " << seed;
    }
}

TEST_F(SimilarityTest, OrthogonalSubspacesAreZero) {
    // Fourteen orthonormal vectors split into two subspaces: every cross product is ~0 and the
    // Q14 rounding of a tiny product may only reach the smallest step.
    Basis all = msmtest::RandomBasis(14, 256, 7);
    Basis a(all.begin(), all.begin() + 7), u(all.begin() + 7, all.end());
    EXPECT_NEAR(Similarity(a, u), 0.0, 2.0 / 16384);
    // Disjoint coordinates: exactly zero.
    Basis e(7, std::vector<double>(256, 0.0)), f = e;
    for (int i = 0; i < 7; ++i) {
        e[i][i] = 1.0;
        f[i][100 + i] = 1.0;
    }
    EXPECT_EQ(Similarity(e, f), 0.0);
}

TEST_F(SimilarityTest, OneDimensionalSubspacesGiveCosSquared) {
    // Only the first vectors are non-zero: X has one entry, the squared cosine of their angle.
    Basis pair = msmtest::RandomBasis(2, 256, 11);
    for (double angle : {0.1, 0.5, 0.9, 1.3}) {
        Basis a(7, std::vector<double>(256, 0.0)), u = a;
        for (int k = 0; k < 256; ++k) {
            a[0][k] = pair[0][k];
            u[0][k] = std::cos(angle) * pair[0][k] + std::sin(angle) * pair[1][k];
        }
        double expected = msmtest::LargestCos2({a[0]}, {u[0]});
        EXPECT_NEAR(expected, std::cos(angle) * std::cos(angle), 1e-12);
        EXPECT_NEAR(Similarity(a, u), expected, 0.002) << "angle " << angle;
    }
}

TEST_F(SimilarityTest, MatchesCanonicalAnglesOfPartlySharedSubspaces) {
    Basis all = msmtest::RandomBasis(14, 256, 21);
    Basis a(all.begin(), all.begin() + 7), u = a;
    // u leans out of a by a different angle in each direction.
    for (int i = 0; i < 7; ++i) {
        double t = 0.2 + 0.15 * i;
        for (int k = 0; k < 256; ++k) u[i][k] = std::cos(t) * a[i][k] + std::sin(t) * all[7 + i][k];
    }
    msmtest::Orthonormalise(u);
    EXPECT_NEAR(Similarity(a, u), msmtest::LargestCos2(a, u), 0.003);
}

TEST_F(SimilarityTest, SeveralAnglesAverageAndMissingRowsCountAsZero) {
    Basis all = msmtest::RandomBasis(14, 256, 5);
    Basis a(all.begin(), all.begin() + 7), u = a;
    for (int i = 0; i < 7; ++i)
        for (int k = 0; k < 256; ++k)
            u[i][k] = std::cos(0.1 * i) * a[i][k] + std::sin(0.1 * i) * all[7 + i][k];
    msmtest::Orthonormalise(u);
    double top = Similarity(a, u);
    rec.Change_SubspaceDistNum(3);
    double mean3 = Similarity(a, u);
    EXPECT_LT(mean3, top);
    EXPECT_GT(mean3, 0.9);
    // A dictionary of one vector leaves one canonical angle; the mean of three drops to a third.
    rec.Change_SubspaceDistNum(1);
    double one = Similarity(a, u, 1);
    rec.Change_SubspaceDistNum(3);
    EXPECT_NEAR(Similarity(a, u, 1), one / 3, 1e-6);
    rec.Change_SubspaceDistNum(0);
    EXPECT_TRUE(std::isnan(Similarity(a, u)));
}

TEST(TruncScore, TowardZeroAndDefinedOutsideTheRange) {
    EXPECT_EQ(msm::truncScore(850.999), 850);
    EXPECT_EQ(msm::truncScore(-0.9), 0);
    EXPECT_EQ(msm::truncScore(-12.5), -12);
    EXPECT_EQ(msm::truncScore(std::nan("")), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(msm::truncScore(1e12), std::numeric_limits<int32_t>::min());
}

}  // namespace

namespace {

// The fixed-point matrix X written out the plain way: one mmxdotp per (i, k), the sum over k in a
// wrapping 32-bit integer. The fast path must give the same X, so the same eigenvalues bit for
// bit, also when the products wrap and when the dictionary has fewer rows than the input.
float literalSimilarity(short** a, int aRows, short** u, int K, int Dp) {
    std::vector<int32_t> g(static_cast<std::size_t>(K) * K, 0);
    for (int i = 0; i < K; ++i)
        for (int k = 0; k < std::min(aRows, K); ++k) g[i * K + k] = mmxdotp(u[i], a[k], Dp) >> 14;
    float** x = newmat(K, K);
    for (int i = 0; i < K; ++i) {
        for (int j = i; j < K; ++j) {
            uint32_t sum = 0;
            for (int k = 0; k < K; ++k)
                sum += static_cast<uint32_t>(g[i * K + k]) * static_cast<uint32_t>(g[j * K + k]);
            x[i][j] = x[j][i] = static_cast<float>(static_cast<int32_t>(sum) >> 14);
        }
    }
    std::vector<float> d(K), e(K);
    msm::symmetricEigenvalues(K, x, d.data(), e.data());
    free_matrix(x);
    return d[0];
}

TEST(SimilarityFixedPoint, EqualsTheLiteralFormulaBitForBit) {
    std::mt19937 rng(11);
    for (int K : {3, 7, 8, 9, 20}) {
        MSMRecognition rec{256, 5};
        ASSERT_EQ(rec.Change_need_eigen_num(K), 1);
        for (int trial = 0; trial < 20; ++trial) {
            // Wide values make the 32-bit sums wrap; small ones keep them exact.
            const int range = trial % 2 ? 32767 : 3000;
            std::uniform_int_distribution<int> value(-range, range);
            short** a = newsmat(K, 256);
            short** u = newsmat(K, 256);
            for (int r = 0; r < K; ++r)
                for (int c = 0; c < 256; ++c) {
                    a[r][c] = static_cast<short>(value(rng));
                    u[r][c] = static_cast<short>(value(rng));
                }
            const int aRows = trial % 3 == 0 ? K - 2 : K;
            const float fast = rec.SubspaceSimilarity(a, aRows, u);
            const float literal = literalSimilarity(a, aRows, u, K, 256);
            EXPECT_EQ(std::memcmp(&fast, &literal, sizeof fast), 0)
                << "K=" << K << " trial=" << trial << " fast=" << fast << " literal=" << literal;
            free_smatrix(a);
            free_smatrix(u);
        }
    }
}

}  // namespace
