// The X matrices of several subspace pairs, gathered so that their eigenvalues are solved side by
// side, and the similarities read from them afterwards.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_RECOGNITION_SIMILARITY_BATCH_H
#define MSMFACE_RECOGNITION_SIMILARITY_BATCH_H

#include <vector>

namespace msm {

class SimilarityBatch {
  public:
    // Room for `slots` problems of order K (1..20); what is held is kept when it is already
    // enough, so a frame that reserves what the last one did allocates nothing. Returns false
    // when the memory cannot be had (the batch is then empty, capacity 0). Empties the batch.
    bool Reserve(int K, int slots);
    int Capacity() const { return capacity_; }
    int Size() const { return size_; }
    // Storage (K * K floats) of the next problem and its slot number in *slot; null when full.
    float* Add(int* slot);
    // Eigenvalues of every problem added since the last Clear.
    void Solve();
    // The similarity of a solved slot, as q14SubspaceSimilarity gives it.
    float Similarity(int slot, int distNum) const;
    void Clear() { size_ = 0; }

  private:
    int K_ = 0;
    int capacity_ = 0;
    int size_ = 0;
    std::vector<float> matrices_;  // capacity_ * K_ * K_
    std::vector<float> values_;    // capacity_ * K_
    std::vector<const float*> matrixAt_;
    std::vector<float*> valuesAt_;
    std::vector<int> results_;
};

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_SIMILARITY_BATCH_H
