#include "recognition/projection.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include <msmface/numeric.h>

#include "dictionary/fixed_point.h"

namespace msm {

namespace {

constexpr double kShortVector = 1e-8;

}  // namespace

bool ProjectionWork::Reserve(int K, int D, int m) {
    try {
        if (K > K_ || D > D_) {
            K_ = std::max(K, K_);
            D_ = std::max(D, D_);
            storage_.assign(K_, std::vector<float>(D_));
            vectors_.assign(K_ + 1, nullptr);
            for (int i = 0; i < K_; ++i) vectors_[i] = storage_[i].data();
            accumulator_.resize(std::max(D_, K_));
        }
        if (static_cast<std::size_t>(K) * m > coefficients_.size())
            coefficients_.resize(static_cast<std::size_t>(K) * m);
        if (static_cast<std::size_t>(m) > weights_.size()) weights_.resize(m);
    } catch (const std::bad_alloc&) {
        K_ = D_ = 0;
        storage_.clear();
        vectors_.clear();
        return false;
    }
    return true;
}

void convertToQ14Rows(float* const* u, int K, int D, short* const* out, int paddedLength) {
    for (int i = 0; i < K; ++i) {
        for (int k = 0; k < D; ++k) out[i][k] = toQ14(u[i][k]);
        for (int k = D; k < paddedLength; ++k) out[i][k] = 0;
    }
}

void projectWhitened(float* const* u, int K, int D, float* const* psi, const float* lambda, int m,
                     short* const* out, int paddedLength, ProjectionWork& work) {
    if (K < 1 || D < 1 || m < 0 || !work.Reserve(K, D, m)) {
        for (int i = 0; i < K; ++i) std::memset(out[i], 0, paddedLength * sizeof(short));
        return;
    }
    double* w = work.weights();
    for (int j = 0; j < m; ++j)
        w[j] = lambda[j] >= kConstraintEigenvalueFloor
                   ? 1.0 / std::sqrt(static_cast<double>(lambda[j]))
                   : 0.0;
    // All K coefficients of direction j in one pass over psi_j: the constraint rows are the
    // large operand and are read once per call.
    // The K sums run side by side (each still in index order) so that they do not wait on
    // one another.
    double* c = work.coefficients();
    double* dots = work.accumulator();
    for (int j = 0; j < m; ++j) {
        const float* row = psi[j];
        for (int i = 0; i < K; ++i) dots[i] = 0.0;
        for (int k = 0; k < D; ++k) {
            const float r = row[k];
            for (int i = 0; i < K; ++i) dots[i] += static_cast<double>(r * u[i][k]);
        }
        for (int i = 0; i < K; ++i) c[i * m + j] = w[j] * dots[i];
    }
    float** p = work.vectors();
    double* acc = work.accumulator();
    for (int i = 0; i < K; ++i) {
        for (int k = 0; k < D; ++k) acc[k] = 0.0;
        const double* ci = c + i * m;
        for (int j = 0; j < m; ++j) {
            const double cj = ci[j];
            const float* row = psi[j];
            for (int k = 0; k < D; ++k) acc[k] += cj * row[k];
        }
        double length = 0.0;
        for (int k = 0; k < D; ++k) {
            p[i][k] = static_cast<float>(acc[k]);
            length += static_cast<double>(p[i][k]) * p[i][k];
        }
        length = std::sqrt(length);
        if (length >= kShortVector) {
            const float scale = static_cast<float>(1.0 / length);
            for (int k = 0; k < D; ++k) p[i][k] *= scale;
        }
    }
    // A dependent set stays as projected: the similarity then sees what the space leaves.
    (void)GSO(D, K, p, p);
    convertToQ14Rows(p, K, D, out, paddedLength);
}

void projectIntoSpace(const SpaceChannel& channel, float* const* u, int rows, int K, int D,
                      short* const* out, int paddedLength, ProjectionWork& work) {
    rows = std::clamp(rows, 0, K);
    for (int i = rows; i < K; ++i) std::memset(out[i], 0, paddedLength * sizeof(short));
    switch (channel.how) {
        case SpaceChannel::How::Unprojected:
            convertToQ14Rows(u, rows, D, out, paddedLength);
            return;
        case SpaceChannel::How::Whitened:
            projectWhitened(u, rows, D, channel.psi, channel.lambda, channel.m, out, paddedLength,
                            work);
            return;
        case SpaceChannel::How::Nothing:
            for (int i = 0; i < rows; ++i) std::memset(out[i], 0, paddedLength * sizeof(short));
            return;
    }
}

}  // namespace msm
