// Subspaces with known geometry for the recogniser tests, built in double from a fixed seed.
#ifndef MSMFACE_TESTS_RECOGNITION_SUBSPACES_H
#define MSMFACE_TESTS_RECOGNITION_SUBSPACES_H

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <msmface/numeric.h>

#include "dictionary/DictChunk.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"

namespace msmtest {

using Basis = std::vector<std::vector<double>>;

inline double Dot(const std::vector<double>& a, const std::vector<double>& b) {
    double s = 0;
    for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

// Gram-Schmidt (twice) of the rows, in place.
inline void Orthonormalise(Basis& rows) {
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (int pass = 0; pass < 2; ++pass) {
            for (std::size_t j = 0; j < i; ++j) {
                double d = Dot(rows[i], rows[j]);
                for (std::size_t k = 0; k < rows[i].size(); ++k) rows[i][k] -= d * rows[j][k];
            }
            double n = std::sqrt(Dot(rows[i], rows[i]));
            for (double& v : rows[i]) v /= n;
        }
}

inline Basis RandomBasis(int k, int dim, unsigned seed) {
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal;
    Basis rows(k, std::vector<double>(dim));
    for (auto& r : rows)
        for (double& v : r) v = normal(gen);
    Orthonormalise(rows);
    return rows;
}

// Owned Q14 rows of 256 values, 32-byte aligned.
class Q14Rows {
  public:
    explicit Q14Rows(const Basis& b, int rows = -1) {
        int n = rows < 0 ? static_cast<int>(b.size()) : rows;
        rows_ = msm::allocateRows<short>(n, 256, 32);
        for (int i = 0; i < n && i < static_cast<int>(b.size()); ++i)
            for (std::size_t k = 0; k < b[i].size(); ++k) rows_[i][k] = msm::toQ14(b[i][k]);
    }
    ~Q14Rows() { msm::freeRows(rows_); }
    Q14Rows(const Q14Rows&) = delete;
    Q14Rows& operator=(const Q14Rows&) = delete;
    short** get() const { return rows_; }

  private:
    short** rows_ = nullptr;
};

// Largest squared cosine of the canonical angles between two orthonormal sets, in double.
inline double LargestCos2(const Basis& a, const Basis& u) {
    int n = static_cast<int>(u.size());
    double** m = newdmat(n, n);
    double** w = newdmat(n, n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double s = 0;
            for (const auto& ak : a) s += Dot(u[i], ak) * Dot(u[j], ak);
            m[i][j] = s;
        }
    jacobi(n, m, w);
    double top = m[0][0];
    free_dmatrix(m);
    free_dmatrix(w);
    return top;
}

// A person's dictionary: one float set (with its Q14 rows) per channel.
inline void FillDictionary(DictChunk& chunk, const std::vector<Basis>& channels) {
    chunk.Allocate(static_cast<int>(channels.size()));
    for (std::size_t c = 0; c < channels.size(); ++c) {
        const Basis& b = channels[c];
        DicPrim& p = chunk.prims[c];
        p.Allocate(static_cast<int>(b[0].size()), static_cast<int>(b.size()), kDicPrimFloat);
        for (std::size_t i = 0; i < b.size(); ++i)
            for (std::size_t k = 0; k < b[i].size(); ++k)
                p.frows[i][k] = static_cast<float>(b[i][k]);
        p.PrepareQ14Rows();
    }
}

}  // namespace msmtest

#endif  // MSMFACE_TESTS_RECOGNITION_SUBSPACES_H
