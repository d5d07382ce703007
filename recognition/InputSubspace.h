// The input subspace of one pattern channel: the subspace that the patterns of the face being
// watched span, kept up to date frame by frame. The first K patterns are buffered; the K-th
// builds a Q14 autocorrelation from them; every later pattern is folded in with weight w and
// moves the K basis vectors one step of orthogonal (power) iteration towards its principal
// eigenvectors.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_RECOGNITION_INPUTSUBSPACE_H
#define MSMFACE_RECOGNITION_INPUTSUBSPACE_H

#include <cstdint>

namespace msm {

// Pattern length and its fixed-point row length (a multiple of 32: the 16-bit dot product walks
// 32 values a turn).
constexpr int kPatternDim = 256;
constexpr int kPaddedDim = 256;
// Frame buffer rows accepted by ChangeMaxSegments: at most the extractor's ring of patterns.
constexpr int kMaxInputSegments = 501;

}  // namespace msm

class InputSubspace {
  public:
    float** frames = nullptr;      // maxSegments x dim: the patterns since the last reset
    float** keptFrames = nullptr;  // same shape: the patterns of the last accepted recognition
    unsigned char keptValid = 0;   // keptFrames holds something
    int32_t keptCount = 0;         // frames that keptFrames holds
    int32_t dim = msm::kPatternDim;
    int32_t basisCount = 7;  // K
    int32_t frameCount = 0;  // patterns received since the last reset (at most maxSegments)
    // 0 = first pattern taken, 2 = collecting or updating, 1 = the basis is a valid input subspace
    int32_t state = 0;
    float** covariance = nullptr;       // dim x dim; reserved, the update does not use it
    float** basis = nullptr;            // dim rows of dim (the first K are the subspace)
    float* inverseNorms = nullptr;      // dim values; 1/|C b_i| of the last iteration step
    short** autocorrelation = nullptr;  // paddedDim x paddedDim, Q14
    short** fixedBasis = nullptr;       // K x paddedDim, Q14 copy of the basis for the iteration
    int32_t maxSegments = 25;           // InputSS_MAXSEGNUM
    float updateWeight = 0.125f;        // weight of the newest pattern in the autocorrelation
    int32_t paddedDim = msm::kPaddedDim;

    InputSubspace();
    virtual ~InputSubspace();
    InputSubspace(const InputSubspace&) = delete;
    InputSubspace& operator=(const InputSubspace&) = delete;

    // Frees and reallocates every buffer for K basis vectors of length D (both frame buffers,
    // the zeroed Q14 autocorrelation and fixed-point basis, covariance, basis, inverse norms) and
    // stores K and D; the frame count is kept. A buffer that cannot be allocated is reported
    // ("cannot malloc.") and left null; Update then does nothing. Returns 1 when everything was
    // allocated, else 0. requires: 1 <= K <= D, 1 <= D <= paddedDim.
    int Allocate(int K, int D);
    // Reallocates both frame buffers with n rows; the frame count is kept but never indexes past
    // them. n outside 1..kMaxInputSegments changes nothing and returns 0.
    int ChangeMaxSegments(int n);
    // One frame's step with the pattern x (dim floats). Always returns 1.
    int Update(const float* x);
    // The next pattern starts a new input subspace.
    void Refresh();
    // Copies the frame buffer into keptFrames and remembers its count (an accepted recognition's
    // patterns, for a later addition to that person).
    void KeepFrames();

  private:
    void ReleaseAll();
    void ResetToInitialBasis();
    void BuildAutocorrelation();
    void FoldIn(const float* x);
    void IterateOnce();
    bool Usable() const;

    float** iterated_ = nullptr;  // K x dim: the iterated vectors before orthonormalisation
};

namespace msm {

// The input's K basis vectors as the similarity reads them: a float copy into copy[0..K) and Q14
// rows into q[0..K) (paddedLength values, zero from D on). An input without a basis of K vectors
// gives zero rows and leaves the copy as it was.
// requires: copy holds K rows of D floats, q K rows of paddedLength >= D shorts.
void inputBasisRows(const InputSubspace& in, int K, int D, float* const* copy, short* const* q,
                    int paddedLength);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_INPUTSUBSPACE_H
