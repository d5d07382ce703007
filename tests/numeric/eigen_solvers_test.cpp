#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "numeric/symmetric_problems.h"

namespace {

using testsupport::Dense;
using testsupport::Mat;

enum class Solver { kEigen, kPufEigen, kJacobi, kNReigen, kNRDeigen };

const char* nameOf(Solver s) {
    switch (s) {
        case Solver::kEigen:
            return "eigen";
        case Solver::kPufEigen:
            return "puf_eigen";
        case Solver::kJacobi:
            return "jacobi";
        case Solver::kNReigen:
            return "NReigen";
        case Solver::kNRDeigen:
            return "NRDeigen";
    }
    return "?";
}

bool isFloat(Solver s) {
    return s == Solver::kEigen || s == Solver::kNReigen;
}

// Relative residual each solver can promise: float rounding, or the deflation thresholds of the
// QR sweeps (1e-6 relative) and of jacobi (off-diagonal below 1e-6 of the norm); QL deflates at
// rounding level.
double residualBound(Solver s) {
    if (isFloat(s)) return 2e-4;
    if (s == Solver::kNRDeigen) return 1e-11;
    return 5e-6;
}

struct Solution {
    int result = -1;
    std::vector<double> values;
    Dense vectors;
};

template <typename T>
Solution collect(int result, int n, const T* d, T** rows) {
    Solution s;
    s.result = result;
    for (int k = 0; k < n; ++k) {
        s.values.push_back(d[k]);
        s.vectors.emplace_back(rows[k], rows[k] + n);
    }
    return s;
}

// Runs one solver on a copy of a and returns its eigenvalues and row eigenvectors in double.
Solution solve(Solver solver, const Dense& a) {
    const int n = static_cast<int>(a.size());
    const int len = n > 0 ? n : 1;
    if (isFloat(solver)) {
        Mat<float> m(n, n);
        testsupport::load(a, m);
        std::vector<float> d(len), e(len);
        int r = solver == Solver::kEigen ? eigen(n, m.get(), d.data(), e.data())
                                         : NReigen(n, m.get(), d.data(), e.data());
        return collect(r, n, d.data(), m.get());
    }
    Mat<double> m(n, n);
    testsupport::load(a, m);
    if (solver == Solver::kJacobi) {
        Mat<double> w(n, n);
        int r = jacobi(n, m.get(), w.get());
        std::vector<double> d(len);
        for (int k = 0; k < n; ++k) d[k] = m[k][k];
        return collect(r, n, d.data(), w.get());
    }
    std::vector<double> d(len), e(len);
    int r = solver == Solver::kPufEigen ? puf_eigen(n, m.get(), d.data(), e.data())
                                        : NRDeigen(n, m.get(), d.data(), e.data());
    return collect(r, n, d.data(), m.get());
}

class EverySolver : public testing::TestWithParam<Solver> {};

INSTANTIATE_TEST_SUITE_P(Solvers, EverySolver,
                         testing::Values(Solver::kEigen, Solver::kPufEigen, Solver::kJacobi,
                                         Solver::kNReigen, Solver::kNRDeigen),
                         [](const testing::TestParamInfo<Solver>& i) {
                             return std::string(nameOf(i.param));
                         });

TEST_P(EverySolver, GivesSortedOrthonormalEigenpairsOfRandomMatrices) {
    const double tol = residualBound(GetParam());
    for (int n : {1, 2, 3, 7, 50, 256}) {
        const Dense a = testsupport::randomSymmetric(n, 1000u + n);
        const Solution s = solve(GetParam(), a);
        ASSERT_EQ(s.result, 0) << "n = " << n;
        testsupport::expectSortedEigenbasis(a, s.values, s.vectors, tol);
    }
}

// Autocorrelations of fewer samples than dimensions are what the engine feeds the solvers: a
// large cluster of (numerically) zero eigenvalues that must still deflate.
TEST_P(EverySolver, HandlesRankDeficientAutocorrelation) {
    const int n = 64, samples = 9;
    const Dense x = testsupport::randomSymmetric(n, 77);  // rows used as samples
    Dense a(n, std::vector<double>(n, 0.0));
    for (int k = 0; k < samples; ++k) {
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) a[i][j] += x[k][i] * x[k][j];
        }
    }
    const Solution s = solve(GetParam(), a);
    ASSERT_EQ(s.result, 0);
    testsupport::expectSortedEigenbasis(a, s.values, s.vectors, residualBound(GetParam()));
    EXPECT_GT(s.values[samples - 1], 1e-3);
    EXPECT_NEAR(s.values[samples], 0.0, isFloat(GetParam()) ? 1e-3 : 1e-10);
}

TEST_P(EverySolver, EmptyProblemIsANoOp) {
    const Solution s = solve(GetParam(), Dense{});
    // jacobi's relative tolerance is 0 for an empty (or zero) matrix and is never met.
    EXPECT_EQ(s.result, GetParam() == Solver::kJacobi ? 1 : 0);
}

TEST(Solvers, AgreeOnTheSpectrumOfOneMatrix) {
    for (int n : {7, 50, 256}) {
        const Dense a = testsupport::randomSymmetric(n, 4242u + n);
        const Solution reference = solve(Solver::kNRDeigen, a);
        const double scale = testsupport::frobenius(a);
        for (Solver s : {Solver::kEigen, Solver::kPufEigen, Solver::kJacobi, Solver::kNReigen}) {
            const Solution other = solve(s, a);
            ASSERT_EQ(other.result, 0);
            // Eigenvalue errors go with the square of the residual left by deflation.
            const double tol = (isFloat(s) ? 1e-5 : 1e-9) * scale;
            for (int k = 0; k < n; ++k) {
                EXPECT_NEAR(other.values[k], reference.values[k], tol)
                    << nameOf(s) << " n = " << n << " k = " << k;
            }
        }
    }
}

// diag(2, 5, 5, 1): the unit vectors come back exactly, and which of the two 5s comes first is
// each solver's contract.
TEST(Solvers, DiagonalInputAndTheOrderOfEqualEigenvalues) {
    const Dense a = {{2, 0, 0, 0}, {0, 5, 0, 0}, {0, 0, 5, 0}, {0, 0, 0, 1}};
    for (Solver s : {Solver::kEigen, Solver::kPufEigen, Solver::kJacobi, Solver::kNReigen,
                     Solver::kNRDeigen}) {
        const Solution sol = solve(s, a);
        ASSERT_EQ(sol.result, 0) << nameOf(s);
        EXPECT_EQ(sol.values, (std::vector<double>{5, 5, 2, 1})) << nameOf(s);
        const bool laterFirst = s == Solver::kNReigen || s == Solver::kNRDeigen;
        const std::vector<int> axes =
            laterFirst ? std::vector<int>{2, 1, 0, 3} : std::vector<int>{1, 2, 0, 3};
        for (int k = 0; k < 4; ++k) {
            std::vector<double> unit(4, 0.0);
            unit[axes[k]] = 1.0;
            EXPECT_EQ(sol.vectors[k], unit) << nameOf(s) << " row " << k;
        }
    }
}

TEST(Jacobi, StopsBeforeTheFirstRotationWhenAlreadyDiagonal) {
    // The coupling is far above the skip threshold but below the relative tolerance.
    Mat<double> a(3, 3), w(3, 3);
    a[0][0] = 1;
    a[1][1] = 3;
    a[2][2] = 2;
    a[0][1] = a[1][0] = 1e-8;
    ASSERT_EQ(jacobi(3, a.get(), w.get()), 0);
    EXPECT_EQ(a[0][1], 1e-8);
    EXPECT_EQ(a[0][0], 3);
    EXPECT_EQ(a[1][1], 2);
    EXPECT_EQ(a[2][2], 1);
    const double expected[3][3] = {{0, 1, 0}, {0, 0, 1}, {1, 0, 0}};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) EXPECT_EQ(w[i][j], expected[i][j]) << i << "," << j;
    }
}

TEST(Solvers, NanInputFailsWithTheSolversOwnReport) {
    Dense a = testsupport::randomSymmetric(5, 9);
    a[0][0] = std::numeric_limits<double>::quiet_NaN();
    struct Expected {
        Solver solver;
        const char* message;
    };
    for (const Expected& x :
         {Expected{Solver::kEigen, "J < 0 ERROR :eigen"},
          Expected{Solver::kPufEigen, "ERROR: PufEigen "}, Expected{Solver::kJacobi, ""},
          Expected{Solver::kNReigen, ""}, Expected{Solver::kNRDeigen, ""}}) {
        testing::internal::CaptureStderr();
        const Solution s = solve(x.solver, a);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(s.result, 1) << nameOf(x.solver);
        EXPECT_EQ(err.substr(0, std::string(x.message).size()), x.message) << nameOf(x.solver);
        if (x.solver == Solver::kEigen) {
            EXPECT_EQ(err, x.message);
        }
    }
}

TEST(Solvers, SuccessIsSilent) {
    const Dense a = testsupport::randomSymmetric(20, 5);
    testing::internal::CaptureStderr();
    for (Solver s : {Solver::kEigen, Solver::kPufEigen, Solver::kJacobi, Solver::kNReigen,
                     Solver::kNRDeigen}) {
        EXPECT_EQ(solve(s, a).result, 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
