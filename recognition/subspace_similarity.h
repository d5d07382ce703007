// The similarity of two K-dimensional subspaces held as Q14 rows: the squared cosines of their
// canonical angles, from the K x K matrix X = UᵀAAᵀU formed in 16-bit fixed point.
#ifndef MSMFACE_RECOGNITION_SUBSPACE_SIMILARITY_H
#define MSMFACE_RECOGNITION_SUBSPACE_SIMILARITY_H

#include <cstdint>

namespace msm {

// The most basis vectors a similarity takes (the recogniser accepts 3 to 20).
constexpr int kMaxSimilarityRows = 20;
// Lanes of the products that form X; rows of the gram scratch are padded to a multiple of them.
constexpr int kGramLanes = 8;
constexpr int gramStride(int K) {
    return (K + kGramLanes - 1) / kGramLanes * kGramLanes;
}
// Entries of the gram scratch for K basis vectors.
constexpr int gramEntries(int K) {
    return K * gramStride(K);
}

// Scratch for one similarity, sized for K basis vectors and reused for every pair, so that the
// per-person work allocates nothing.
struct SimilarityWork {
    int K = 0;
    float** angle = nullptr;       // K x K, destroyed by each computation
    float* eigenvalues = nullptr;  // K
    float* offDiagonal = nullptr;  // K
    int32_t* gram = nullptr;       // gramEntries(K): row k holds (u_i . a_k) >> 14 for every i
};

// Similarity in Q14 units (16384 = the subspaces share a direction exactly) of the dictionary
// rows a[0..K) and the input rows u[0..K), each paddedLength Q14 values. Dictionary rows from
// aRows on count as zero vectors (a dictionary smaller than the input subspace). With distNum 1
// the largest eigenvalue of X; otherwise the mean of the distNum largest (distNum is capped at
// K; 0 gives 0/0, a NaN, which truncScore turns into its defined value). 0 when the eigenvalue
// iteration reports failure.
// requires: work sized for K <= kMaxSimilarityRows; u holds K rows and a at least min(aRows, K)
// rows, all of paddedLength values.
float q14SubspaceSimilarity(short* const* a, int aRows, short* const* u, int paddedLength,
                            int distNum, SimilarityWork& work);

// The two halves of that similarity, for callers that solve many X at once: X of the pair into x
// (K * K floats, row after row, K = work.K), and the similarity from X's eigenvalues (descending)
// and the eigenvalue iteration's result.
// requires: as for q14SubspaceSimilarity; x holds K * K floats.
void formSimilarityMatrix(short* const* a, int aRows, short* const* u, int paddedLength,
                          SimilarityWork& work, float* x);
float similarityFromEigenvalues(const float* eigenvalues, int result, int K, int distNum);

// trunc(v) as an int32: toward zero; a NaN or a value outside the int32 range gives INT32_MIN,
// the processor's integer-indefinite value, so that a score is always defined.
int32_t truncScore(double v);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_SUBSPACE_SIMILARITY_H
