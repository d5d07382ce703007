#include "recognition/subspace_similarity.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include <msmface/numeric.h>

#include "numeric/eigen_steps.h"

namespace msm {

namespace {

// 32-bit sums as the 16-bit multiply-add hardware forms them: wrapping, never undefined.
inline int32_t wrappingMulAdd(int32_t acc, int32_t x, int32_t y) {
    return static_cast<int32_t>(static_cast<uint32_t>(acc) +
                                static_cast<uint32_t>(x) * static_cast<uint32_t>(y));
}

}  // namespace

float q14SubspaceSimilarity(short* const* a, int aRows, short* const* u, int paddedLength,
                            int distNum, SimilarityWork& work) {
    const int K = work.K;
    const int rows = std::clamp(aRows, 0, K);
    int32_t* g = work.gram;
    // Each u_i . a_k once: X needs every pair (i, j) of them per k.
    for (int i = 0; i < K; ++i) {
        int32_t* gi = g + i * K;
        for (int k = 0; k < rows; ++k) gi[k] = mmxdotp(u[i], a[k], paddedLength) >> 14;
        for (int k = rows; k < K; ++k) gi[k] = 0;
    }
    for (int i = 0; i < K; ++i) {
        const int32_t* gi = g + i * K;
        for (int j = i; j < K; ++j) {
            const int32_t* gj = g + j * K;
            int32_t sum = 0;
            for (int k = 0; k < K; ++k) sum = wrappingMulAdd(sum, gi[k], gj[k]);
            float x = static_cast<float>(sum >> 14);
            work.angle[i][j] = x;
            work.angle[j][i] = x;
        }
    }
    if (symmetricEigenvalues(K, work.angle, work.eigenvalues, work.offDiagonal) != 0) return 0.0f;
    if (distNum == 1) return work.eigenvalues[0];
    int n = std::min(distNum, K);
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) sum += work.eigenvalues[i];
    return sum / static_cast<float>(n);
}

int32_t truncScore(double v) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

}  // namespace msm
