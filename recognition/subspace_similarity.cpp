#include "recognition/subspace_similarity.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include <msmface/numeric.h>

#include "numeric/dot_kernels.h"
#include "numeric/eigen_steps.h"

namespace msm {

void formSimilarityMatrix(short* const* a, int aRows, short* const* u, int paddedLength,
                          SimilarityWork& work, float* x) {
    const int K = work.K;
    const int rows = std::clamp(aRows, 0, K);
    const int stride = gramStride(K);
    uint32_t* gt = reinterpret_cast<uint32_t*>(work.gram);
    // Column k of G, (u_i . a_k) >> 14 for every i, comes from one pass over dictionary row k (the
    // same sums mmxdotp forms, each dictionary row read once) and is stored as row k of Gᵀ, padded
    // with zeros to the stride so that the products below run over whole lanes.
    int32_t column[kMaxSimilarityRows];
    for (int k = 0; k < rows; ++k) {
        dotRows(u, K, a[k], paddedLength, column);
        uint32_t* gk = gt + k * stride;
        for (int i = 0; i < K; ++i) gk[i] = static_cast<uint32_t>(column[i] >> 14);
        for (int i = K; i < stride; ++i) gk[i] = 0;
    }
    // X_ij = (sum_k g_ik g_jk) >> 14, eight j at a time. Dictionary rows missing from rows on are
    // zero vectors and add nothing. Sums wrap modulo 2^32 like the 32-bit hardware sums.
    for (int i = 0; i < K; ++i) {
        for (int jb = i - i % kGramLanes; jb < K; jb += kGramLanes) {
            uint32_t acc[kGramLanes] = {};
            for (int k = 0; k < rows; ++k) {
                const uint32_t gik = gt[k * stride + i];
                const uint32_t* gk = gt + k * stride + jb;
                for (int l = 0; l < kGramLanes; ++l) acc[l] += gik * gk[l];
            }
            const int end = std::min(jb + kGramLanes, K);
            for (int j = std::max(jb, i); j < end; ++j) {
                const float value = static_cast<float>(static_cast<int32_t>(acc[j - jb]) >> 14);
                x[i * K + j] = value;
                x[j * K + i] = value;
            }
        }
    }
}

float similarityFromEigenvalues(const float* eigenvalues, int result, int K, int distNum) {
    if (result != 0) return 0.0f;
    if (distNum == 1) return eigenvalues[0];
    int n = std::min(distNum, K);
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) sum += eigenvalues[i];
    return sum / static_cast<float>(n);
}

float q14SubspaceSimilarity(short* const* a, int aRows, short* const* u, int paddedLength,
                            int distNum, SimilarityWork& work) {
    const int K = work.K;
    float x[kMaxSimilarityRows * kMaxSimilarityRows];
    formSimilarityMatrix(a, aRows, u, paddedLength, work, x);
    for (int i = 0; i < K; ++i) std::copy(x + i * K, x + (i + 1) * K, work.angle[i]);
    const int result = symmetricEigenvalues(K, work.angle, work.eigenvalues, work.offDiagonal);
    return similarityFromEigenvalues(work.eigenvalues, result, K, distNum);
}

int32_t truncScore(double v) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

}  // namespace msm
