#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "matrix_holders.h"

namespace {

using msm_test::FloatMatrix;
using msm_test::makeMatrix;

using Dense = std::vector<std::vector<double>>;

Dense toDense(float** a, int n) {
    Dense d(n, std::vector<double>(n));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) d[i][j] = a[i][j];
    return d;
}

// Laplace expansion along the first row: slow, but shares nothing with elimination.
double cofactorDeterminant(const Dense& m) {
    std::size_t n = m.size();
    if (n == 1) return m[0][0];
    double det = 0;
    for (std::size_t c = 0; c < n; ++c) {
        Dense minor;
        for (std::size_t r = 1; r < n; ++r) {
            std::vector<double> row;
            for (std::size_t k = 0; k < n; ++k)
                if (k != c) row.push_back(m[r][k]);
            minor.push_back(row);
        }
        det += (c % 2 == 0 ? 1 : -1) * m[0][c] * cofactorDeterminant(minor);
    }
    return det;
}

FloatMatrix randomMatrix(int n, std::mt19937& rng, float diagonalBoost) {
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    FloatMatrix a = makeMatrix(n, n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) a[i][j] = value(rng) + (i == j ? diagonalBoost : 0.0f);
    return a;
}

TEST(Lu, DeterminantMatchesCofactorExpansion) {
    std::mt19937 rng(11);
    for (int n = 1; n <= 6; ++n) {
        for (int trial = 0; trial < 20; ++trial) {
            FloatMatrix a = randomMatrix(n, rng, 0.0f);
            double expected = cofactorDeterminant(toDense(a.get(), n));
            std::vector<int> ip(n);
            float det = lu(n, a.get(), ip.data());
            EXPECT_NEAR(det, expected, 1e-4 * (1 + std::fabs(expected))) << "n=" << n;
        }
    }
}

// The multipliers stored below the diagonal and the upper factor, read through ip, rebuild the
// permuted input: L * U = P * A.
TEST(Lu, FactorsRebuildThePermutedMatrix) {
    std::mt19937 rng(12);
    for (int n : {2, 5, 17, 40}) {
        FloatMatrix a = randomMatrix(n, rng, 0.0f);
        Dense original = toDense(a.get(), n);
        std::vector<int> ip(n);
        ASSERT_NE(lu(n, a.get(), ip.data()), 0.0f);
        std::vector<int> seen(n, 0);
        for (int i = 0; i < n; ++i) {
            ASSERT_GE(ip[i], 0);
            ASSERT_LT(ip[i], n);
            ++seen[ip[i]];
            for (int j = 0; j < n; ++j) {
                double s = 0;
                for (int k = 0; k <= std::min(i, j); ++k) {
                    double l = k == i ? 1.0 : a[ip[i]][k];
                    s += l * a[ip[k]][j];
                }
                EXPECT_NEAR(s, original[ip[i]][j], 1e-4) << "n=" << n << " i=" << i << " j=" << j;
            }
        }
        for (int count : seen) EXPECT_EQ(count, 1);
    }
}

TEST(Lu, PivotsOnTheLargestScaledValueAndTheFirstOfEqualOnesWins) {
    // Unscaled, row 0 (2 > 1) would lead; scaled by its largest entry it is 0.002 against 1.
    auto a = makeMatrix({{2, 1000}, {1, 1}});
    int ip[2];
    EXPECT_EQ(lu(2, a.get(), ip), -998.0f);
    EXPECT_EQ(ip[0], 1);
    EXPECT_EQ(ip[1], 0);
    EXPECT_EQ(a[0][0], 2.0f);  // the multiplier 2 / 1, stored in row 0 where it belongs
    EXPECT_EQ(a[0][1], 998.0f);

    auto tie = makeMatrix({{1, 0}, {1, 1}});
    EXPECT_EQ(lu(2, tie.get(), ip), 1.0f);
    EXPECT_EQ(ip[0], 0);
    EXPECT_EQ(ip[1], 1);
}

TEST(Lu, AZeroRowReturnsAtOnceAndLeavesTheMatrixAlone) {
    auto a = makeMatrix({{1, 2, 3}, {0, 0, 0}, {4, 5, 7}});
    int ip[3] = {-7, -7, -7};
    EXPECT_EQ(lu(3, a.get(), ip), 0.0f);
    EXPECT_EQ(ip[0], 0);
    EXPECT_EQ(ip[1], 1);
    EXPECT_EQ(ip[2], -7);
    float expected[3][3] = {{1, 2, 3}, {0, 0, 0}, {4, 5, 7}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(a[i][j], expected[i][j]);
}

TEST(Lu, AZeroPivotLaterStopsWithThePartialFactorsInPlace) {
    auto a = makeMatrix({{1, 2}, {2, 4}});
    int ip[2];
    EXPECT_EQ(lu(2, a.get(), ip), 0.0f);
    EXPECT_EQ(ip[0], 0);
    EXPECT_EQ(a[1][0], 2.0f);
    EXPECT_EQ(a[1][1], 0.0f);
}

TEST(Matinv, TimesTheMatrixGivesTheIdentity) {
    std::mt19937 rng(13);
    for (int n : {1, 2, 3, 8, 31, 64}) {
        for (int trial = 0; trial < 3; ++trial) {
            // Diagonal dominance keeps the condition number small, so float round-off stays small.
            FloatMatrix a = randomMatrix(n, rng, static_cast<float>(n));
            Dense original = toDense(a.get(), n);
            FloatMatrix inv = makeMatrix(n, n);
            ASSERT_NE(matinv(n, a.get(), inv.get()), 0.0f);
            for (int i = 0; i < n; ++i) {
                for (int j = 0; j < n; ++j) {
                    double s = 0;
                    for (int k = 0; k < n; ++k) s += inv[i][k] * original[k][j];
                    EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-5) << "n=" << n;
                }
            }
        }
    }
}

TEST(Matinv, OfTheIdentityIsTheIdentityWithDeterminantOne) {
    auto a = makeMatrix({{1, 0}, {0, 1}});
    auto inv = makeMatrix({{9, 9}, {9, 9}});
    EXPECT_EQ(matinv(2, a.get(), inv.get()), 1.0f);
    EXPECT_EQ(inv[0][0], 1.0f);
    EXPECT_EQ(inv[0][1], 0.0f);
    EXPECT_EQ(inv[1][0], 0.0f);
    EXPECT_EQ(inv[1][1], 1.0f);
}

TEST(Matinv, ASingularMatrixLeavesTheInverseUntouched) {
    auto a = makeMatrix({{1, 2}, {2, 4}});
    auto inv = makeMatrix({{9, 9}, {9, 9}});
    testing::internal::CaptureStderr();
    EXPECT_EQ(matinv(2, a.get(), inv.get()), 0.0f);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) EXPECT_EQ(inv[i][j], 9.0f);
}

}  // namespace
