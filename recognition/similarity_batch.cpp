#include "recognition/similarity_batch.h"

#include <cstddef>
#include <new>

#include "numeric/eigen_steps.h"
#include "recognition/subspace_similarity.h"

namespace msm {

bool SimilarityBatch::Reserve(int K, int slots) {
    size_ = 0;
    if (K == K_ && slots <= capacity_) return true;
    capacity_ = 0;
    K_ = 0;
    if (K < 1 || K > kMaxBatchOrder || slots < 0) return false;
    const auto n = static_cast<std::size_t>(slots);
    const auto k = static_cast<std::size_t>(K);
    try {
        matrices_.resize(n * k * k);
        values_.resize(n * k);
        matrixAt_.resize(n);
        valuesAt_.resize(n);
        results_.resize(n);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (std::size_t s = 0; s < n; ++s) {
        matrixAt_[s] = matrices_.data() + s * k * k;
        valuesAt_[s] = values_.data() + s * k;
    }
    K_ = K;
    capacity_ = slots;
    return true;
}

float* SimilarityBatch::Add(int* slot) {
    if (size_ >= capacity_) return nullptr;
    *slot = size_;
    return matrices_.data() + static_cast<std::size_t>(size_++) * K_ * K_;
}

void SimilarityBatch::Solve() {
    symmetricEigenvaluesBatch(K_, size_, matrixAt_.data(), valuesAt_.data(), results_.data());
}

float SimilarityBatch::Similarity(int slot, int distNum) const {
    return similarityFromEigenvalues(valuesAt_[slot], results_[slot], K_, distNum);
}

}  // namespace msm
