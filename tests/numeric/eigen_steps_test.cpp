#include "numeric/eigen_steps.h"

#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "numeric/symmetric_problems.h"

namespace {

using testsupport::Dense;
using testsupport::Mat;

// The kinds of matrix the similarity sees: dense random, low rank (nearly equal subspaces),
// repeated and zero eigenvalues.
Dense similarityLikeMatrix(int n, std::mt19937& gen, int kind) {
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    Dense a(n, std::vector<double>(n, 0.0));
    if (kind == 0) return testsupport::randomSymmetric(n, gen());
    if (kind == 1) {  // rank 2
        std::vector<double> u(n), v(n);
        for (int i = 0; i < n; ++i) u[i] = dist(gen), v[i] = dist(gen);
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) a[i][j] = u[i] * u[j] + 0.5 * v[i] * v[j];
        }
        return a;
    }
    if (kind == 2) {  // identity-like with repeated values and a small perturbation
        for (int i = 0; i < n; ++i) a[i][i] = i % 2 ? 1.0 : 0.25;
        a[0][n - 1] = a[n - 1][0] = 1e-3 * dist(gen);
        return a;
    }
    return a;  // zero matrix
}

TEST(EigenvaluesOnly, MatchTheFullStepsBitForBit) {
    std::mt19937 gen(2024);
    int compared = 0;
    for (int trial = 0; trial < 4000; ++trial) {
        const int n = trial < 3000 ? 7 : 1 + trial % 20;
        const Dense a = similarityLikeMatrix(n, gen, trial % 4);
        Mat<float> full(n, n), valuesOnly(n, n);
        testsupport::load(a, full);
        testsupport::load(a, valuesOnly);
        std::vector<float> d1(n), e1(n), d2(n), e2(n);
        msm::tridiagonalize(n, full.get(), d1.data(), e1.data());
        const int r1 = msm::qlImplicit(n, d1.data(), e1.data(), full.get());
        msm::sortDescending(n, d1.data(), full.get());
        const int r2 = msm::symmetricEigenvalues(n, valuesOnly.get(), d2.data(), e2.data());
        ASSERT_EQ(r1, r2);
        ASSERT_EQ(std::memcmp(d1.data(), d2.data(), n * sizeof(float)), 0)
            << "trial " << trial << " n = " << n;
        ++compared;
    }
    EXPECT_EQ(compared, 4000);
}

TEST(EigenvaluesOnly, AreTheSpectrumInDescendingOrder) {
    const Dense a = testsupport::randomSymmetric(7, 31);
    Mat<float> m(7, 7);
    testsupport::load(a, m);
    std::vector<float> d(7), e(7);
    ASSERT_EQ(msm::symmetricEigenvalues(7, m.get(), d.data(), e.data()), 0);
    // Against the double solver: every eigenvalue to float accuracy, in the same order.
    Mat<double> md(7, 7);
    testsupport::load(a, md);
    std::vector<double> dd(7), ed(7);
    ASSERT_EQ(NRDeigen(7, md.get(), dd.data(), ed.data()), 0);
    for (int k = 0; k < 7; ++k) EXPECT_NEAR(d[k], dd[k], 1e-5);
}

// The dictionary builder runs the double steps itself; between them the basis is kept as rows,
// so the tridiagonal it sees must be QᵀAQ for the rows Q left by the reduction.
TEST(Steps, ReductionLeavesAnOrthogonalBasisThatTridiagonalises) {
    const int n = 40;
    const Dense a = testsupport::randomSymmetric(n, 8);
    Mat<double> q(n, n);
    testsupport::load(a, q);
    std::vector<double> d(n), e(n);
    msm::tridiagonalize(n, q.get(), d.data(), e.data());
    EXPECT_EQ(e[0], 0.0);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            double t = 0;  // (QᵀAQ)[i][j] with Q's columns stored as rows of q
            for (int r = 0; r < n; ++r) {
                double ar = 0;
                for (int c = 0; c < n; ++c) ar += a[r][c] * q[j][c];
                t += q[i][r] * ar;
            }
            double expected = 0;
            if (i == j) expected = d[i];
            if (i == j + 1) expected = e[i];
            if (j == i + 1) expected = e[j];
            ASSERT_NEAR(t, expected, 1e-12) << i << "," << j;
        }
    }
}

TEST(Steps, QlReportsFailureAfterItsIterationLimit) {
    const int n = 4;
    std::vector<double> d = {1, std::nan(""), 2, 3}, e = {0, 1, 1, 1};
    Mat<double> z(n, n);
    EXPECT_EQ(msm::qlImplicit(n, d.data(), e.data(), z.get()), 1);
}

}  // namespace
