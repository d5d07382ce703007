#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "numeric/symmetric_problems.h"

namespace {

using testsupport::Dense;
using testsupport::Mat;

void fill(Mat<float>& m, std::initializer_list<std::vector<float>> rows) {
    int i = 0;
    for (const auto& r : rows) {
        for (size_t j = 0; j < r.size(); ++j) m[i][j] = r[j];
        ++i;
    }
}

void randomRows(Mat<float>& m, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    for (int i = 0; i < m.rows(); ++i) {
        for (int j = 0; j < m.cols(); ++j) m[i][j] = dist(gen);
    }
}

double dot(const float* x, const float* y, int n) {
    double s = 0;
    for (int k = 0; k < n; ++k) s += double(x[k]) * double(y[k]);
    return s;
}

// Gram-Schmidt must give orthonormal rows that span, prefix by prefix, what the inputs span: every
// input row is its own expansion in the outputs up to it, and no output leans on a later input.
TEST(GSO, RandomSetsBecomeOrthonormalWithNestedSpans) {
    const int n = 256, m = 20;
    Mat<float> x(m, n), y(m, n);
    randomRows(x, 11);
    ASSERT_EQ(GSO(n, m, x.get(), y.get()), 1);
    for (int i = 0; i < m; ++i) {
        for (int j = 0; j <= i; ++j) {
            EXPECT_NEAR(dot(y[i], y[j], n), i == j ? 1.0 : 0.0, 1e-5) << i << "," << j;
        }
        for (int j = 0; j < i; ++j) EXPECT_NEAR(dot(y[i], x[j], n), 0.0, 1e-4) << i << "," << j;
        double residual = 0;
        for (int k = 0; k < n; ++k) {
            double back = 0;
            for (int j = 0; j <= i; ++j) back += dot(x[i], y[j], n) * y[j][k];
            residual += (back - x[i][k]) * (back - x[i][k]);
        }
        EXPECT_LT(std::sqrt(residual), 1e-4) << "row " << i;
    }
}

TEST(GSO, InPlaceGivesTheSameBitsAsSeparateOutput) {
    const int n = 64, m = 9;
    Mat<float> x(m, n), y(m, n), inPlace(m, n);
    randomRows(x, 12);
    randomRows(inPlace, 12);
    ASSERT_EQ(GSO(n, m, x.get(), y.get()), 1);
    ASSERT_EQ(GSO(n, m, inPlace.get(), inPlace.get()), 1);
    for (int i = 0; i < m; ++i) {
        for (int k = 0; k < n; ++k) ASSERT_EQ(y[i][k], inPlace[i][k]) << i << "," << k;
    }
}

TEST(GSO, ExactSmallCases) {
    Mat<float> x(2, 2), y(2, 2);
    fill(x, {{3, 0}, {1, 1}});
    ASSERT_EQ(GSO(2, 2, x.get(), y.get()), 1);
    EXPECT_EQ(y[0][0], 1.0f);
    EXPECT_EQ(y[0][1], 0.0f);
    EXPECT_EQ(y[1][0], 0.0f);
    EXPECT_EQ(y[1][1], 1.0f);

    // A single vector is only normalised.
    Mat<float> one(1, 2), out(1, 2);
    fill(one, {{3, 4}});
    ASSERT_EQ(GSO(2, 1, one.get(), out.get()), 1);
    EXPECT_FLOAT_EQ(out[0][0], 0.6f);
    EXPECT_FLOAT_EQ(out[0][1], 0.8f);
}

TEST(GSO, DependentSetsFail) {
    Mat<float> same(2, 3), y(2, 3);
    fill(same, {{1, 2, 3}, {1, 2, 3}});
    EXPECT_EQ(GSO(3, 2, same.get(), y.get()), 0);

    Mat<float> third(3, 3), y3(3, 3);
    fill(third, {{1, 0, 0}, {0, 1, 0}, {1, 1, 0}});
    EXPECT_EQ(GSO(3, 3, third.get(), y3.get()), 0);

    Mat<float> zeroFirst(1, 3), y1(1, 3);
    EXPECT_EQ(GSO(3, 1, zeroFirst.get(), y1.get()), 0);
}

// A vector of length 1e-6 passes the length test of the normalisation but not the squared-norm
// test applied while later vectors are reduced against it.
TEST(GSO, ThresholdsDifferBetweenReductionAndNormalisation) {
    Mat<float> x(2, 2), y(2, 2);
    fill(x, {{1e-6f, 0}, {0, 1}});
    EXPECT_EQ(GSO(2, 1, x.get(), y.get()), 1);
    EXPECT_FLOAT_EQ(y[0][0], 1.0f);
    EXPECT_EQ(GSO(2, 2, x.get(), y.get()), 0);
}

TEST(GSO, EmptySetIsTriviallyOrthonormal) {
    Mat<float> x(1, 2), y(1, 2);
    y[0][0] = 7;
    EXPECT_EQ(GSO(2, 0, x.get(), y.get()), 1);
    EXPECT_EQ(y[0][0], 7.0f);
}

TEST(KL, TwoUnitSamplesGiveFiftyAndFifty) {
    Mat<float> x(2, 2), u(2, 2);
    fill(x, {{1, 0}, {0, 1}});
    float lambda[2] = {-1, -1};
    ASSERT_EQ(KL(2, 2, x.get(), u.get(), lambda), 0);
    EXPECT_EQ(lambda[0], 50.0f);
    EXPECT_EQ(lambda[1], 50.0f);
    EXPECT_NEAR(dot(u[0], u[0], 2), 1.0, 1e-7);
    EXPECT_NEAR(dot(u[1], u[1], 2), 1.0, 1e-7);
    EXPECT_NEAR(dot(u[0], u[1], 2), 0.0, 1e-7);
}

// The eigenpairs are those of 100 times the autocorrelation, checked against an independent solve
// of the autocorrelation built here in double.
void expectScaledAutocorrelationEigenpairs(int n, int d, unsigned seed) {
    Mat<float> x(n, d), u(d, d);
    randomRows(x, seed);
    std::vector<float> lambda(d);
    ASSERT_EQ(KL(n, d, x.get(), u.get(), lambda.data()), 0);

    Dense r(d, std::vector<double>(d, 0.0));
    for (int k = 0; k < n; ++k) {
        for (int i = 0; i < d; ++i) {
            for (int j = 0; j < d; ++j) r[i][j] += double(x[k][i]) * double(x[k][j]) / n;
        }
    }
    Mat<double> a(d, d), w(d, d);
    testsupport::load(r, a);
    ASSERT_EQ(jacobi(d, a.get(), w.get()), 0);
    const double top = a[0][0];
    for (int k = 0; k < d; ++k) {
        EXPECT_NEAR(lambda[k] / 100.0, a[k][k], 1e-5 * top) << "k = " << k;
    }
    Dense scaled = r;
    for (auto& row : scaled) {
        for (double& v : row) v *= 100.0;
    }
    testsupport::expectSortedEigenbasis(scaled, lambda, u.get(), 1e-5);
}

TEST(KL, EigenvaluesAreAHundredTimesThoseOfTheAutocorrelation) {
    expectScaledAutocorrelationEigenpairs(20, 8, 5);
}

TEST(KL, FewerSamplesThanDimensions) {
    expectScaledAutocorrelationEigenpairs(50, 256, 6);
}

TEST(KL, FailsWhenBothAttemptsFail) {
    Mat<float> x(3, 4), u(4, 4);
    randomRows(x, 4);
    x[1][0] = std::nanf("");
    float lambda[4];
    testing::internal::CaptureStderr();
    EXPECT_EQ(KL(3, 4, x.get(), u.get(), lambda), 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("ERROR: PufEigen "), std::string::npos);
}

TEST(KL, NoSamplesOrNoDimensionsFail) {
    Mat<float> x(1, 2), u(2, 2);
    float lambda[2] = {3, 3};
    EXPECT_EQ(KL(0, 2, x.get(), u.get(), lambda), 1);
    EXPECT_EQ(KL(1, 0, x.get(), u.get(), lambda), 1);
    EXPECT_EQ(lambda[0], 3.0f);
}

}  // namespace
