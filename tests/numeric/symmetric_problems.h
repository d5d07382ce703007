// Shared fixtures for the solver tests: row-pointer matrices that release themselves, random
// symmetric problems and the eigenpair checks every solver must pass.
#ifndef MSMFACE_TESTS_NUMERIC_SYMMETRIC_PROBLEMS_H
#define MSMFACE_TESTS_NUMERIC_SYMMETRIC_PROBLEMS_H

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

namespace testsupport {

template <typename T>
T** allocateRows(int rows, int cols);
template <>
inline float** allocateRows<float>(int rows, int cols) {
    return newmat(rows, cols);
}
template <>
inline double** allocateRows<double>(int rows, int cols) {
    return newdmat(rows, cols);
}

// A row-pointer matrix from the library's own allocator, released on scope exit.
template <typename T>
class Mat {
  public:
    Mat(int rows, int cols) : p_(allocateRows<T>(rows, cols)), rows_(rows), cols_(cols) {
        for (int i = 0; i < rows; ++i) std::fill(p_[i], p_[i] + cols, T(0));
    }
    ~Mat() { release(p_); }
    Mat(const Mat&) = delete;
    Mat& operator=(const Mat&) = delete;
    T** get() const { return p_; }
    T* operator[](int i) const { return p_[i]; }
    int rows() const { return rows_; }
    int cols() const { return cols_; }

  private:
    static void release(float** a) { free_matrix(a); }
    static void release(double** a) { free_dmatrix(a); }
    T** p_;
    int rows_;
    int cols_;
};

// Dense symmetric matrix in double, the reference every solver's output is checked against.
using Dense = std::vector<std::vector<double>>;

inline Dense randomSymmetric(int n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    Dense a(n, std::vector<double>(n));
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j <= i; ++j) a[i][j] = a[j][i] = dist(gen);
    }
    return a;
}

template <typename T>
void load(const Dense& a, const Mat<T>& m) {
    for (size_t i = 0; i < a.size(); ++i) {
        for (size_t j = 0; j < a.size(); ++j) m[i][j] = static_cast<T>(a[i][j]);
    }
}

inline double frobenius(const Dense& a) {
    double s = 0;
    for (const auto& row : a) {
        for (double v : row) s += v * v;
    }
    return std::sqrt(s);
}

// Checks that row k of vectors and values[k] are eigenpairs of a (relative residual), that the
// rows are orthonormal and that the values descend.
template <typename V, typename W>
void expectSortedEigenbasis(const Dense& a, const V& values, const W& vectors, double tol) {
    const int n = static_cast<int>(a.size());
    const double scale = std::max(frobenius(a), 1e-300);
    double worstResidual = 0, worstOrtho = 0;
    for (int k = 0; k < n; ++k) {
        double r2 = 0;
        for (int i = 0; i < n; ++i) {
            double av = 0;
            for (int j = 0; j < n; ++j) av += a[i][j] * double(vectors[k][j]);
            const double diff = av - double(values[k]) * double(vectors[k][i]);
            r2 += diff * diff;
        }
        worstResidual = std::max(worstResidual, std::sqrt(r2) / scale);
        for (int l = 0; l <= k; ++l) {
            double dot = 0;
            for (int j = 0; j < n; ++j) dot += double(vectors[k][j]) * double(vectors[l][j]);
            worstOrtho = std::max(worstOrtho, std::fabs(dot - (k == l ? 1.0 : 0.0)));
        }
        if (k > 0) {
            EXPECT_GE(values[k - 1], values[k]) << "order broken at " << k;
        }
    }
    EXPECT_LE(worstResidual, tol) << "n = " << n;
    EXPECT_LE(worstOrtho, tol) << "n = " << n;
}

}  // namespace testsupport

#endif  // MSMFACE_TESTS_NUMERIC_SYMMETRIC_PROBLEMS_H
