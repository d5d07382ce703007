// An input of the recognition core: what one stream (later one track) keeps between frames, its
// input subspace per pattern channel, the newest patterns and its last ranking. It holds no
// dictionary: any number of inputs score against one shared snapshot.
//
// Threads. No locks: one thread at a time per input; distinct inputs are independent.
#ifndef MSMFACE_CORE_INPUT_H
#define MSMFACE_CORE_INPUT_H

#include <cstdint>
#include <memory>
#include <vector>

#include <msmface/result.h>

#include "core/snapshot.h"
#include "recognition/InputSubspace.h"
#include "recognition/projection.h"
#include "recognition/ranking.h"
#include "recognition/similarity_batch.h"
#include "recognition/subspace_similarity.h"

namespace msmface::core {

// How a frame's patterns are compared with the persons.
enum class Method {
    SinglePattern,  // the newest patterns themselves against each dictionary's leading vectors
    Msm,            // the input subspaces against the dictionary subspaces
    Cmsm,           // both projected into the first constraint space
    CmsmAllSpaces,  // in every constraint space, the values averaged over the spaces
};

struct InputOptions {
    int maxSegments = 25;         // frames an input subspace buffers (1..501)
    float updateWeight = 0.125f;  // weight of the newest pattern in the autocorrelation
    int distNum = 1;              // canonical angles averaged in a similarity (1..basis count)
    // false: the engine's input subspace, which starts from a fixed basis and moves one step of
    // power iteration per frame after the first basis-count frames (what its scores are). true:
    // the leading eigenvectors of the last maxSegments patterns' autocorrelation (equal weights),
    // solved when scored: exact from the first frame on, for patterns whose faces come few.
    // updateWeight is then unused.
    bool solvedBasis = false;
};

struct RankedPerson {
    int person = 0;     // index in the snapshot's person order
    int32_t score = 0;  // similarity in thousandths, truncated toward zero
};

class Input {
  public:
    // An input for patterns of the shape, compared by basisCount vectors (as the snapshots it
    // scores against). Reads no file; fails with one line naming the argument that does not fit.
    static Result<std::unique_ptr<Input>> create(PatternShape shape, int basisCount,
                                                 const InputOptions& options = {});
    // The same for the snapshot's shape and basis count.
    static Result<std::unique_ptr<Input>> create(const Snapshot& snapshot,
                                                 const InputOptions& options = {});

    // One frame: patterns[c] holds the dimension values of channel c. Updates every channel's
    // input subspace and keeps the patterns for the single-pattern method.
    // requires: patterns holds shape().channels pointers to dimension floats each.
    void update(const float* const* patterns);
    // The next frame starts a new input subspace.
    void refresh();
    // Frames in the current input subspace (channel 0's count).
    int frameCount() const { return solved_ ? recentCount_ : inputs_[0].frameCount; }

    PatternShape shape() const { return shape_; }
    int basisCount() const { return basisCount_; }
    // The persons of the last scoring, best first; of equal scores the earlier person first.
    const std::vector<RankedPerson>& ranking() const { return ranking_; }

    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input();

  private:
    friend Status score(const Snapshot& snapshot, Input& input, Method method);
    Input() = default;
    bool allocate(const InputOptions& options);
    bool reserveSpaces(int spaces);
    void prepareRows();
    // solvedBasis: channel c's basis from the recent patterns into basisCopy_ and inputQ14_.
    void solveBasis(int c);
    void scoreSinglePattern(const Snapshot& snapshot, msm::RankingPass& pass);
    void scoreSubspaces(const Snapshot& snapshot, msm::RankingPass& pass);
    void scoreInSpaces(const Snapshot& snapshot, int spaces, msm::RankingPass& pass);
    void finish(int persons);
    short* const* inputRows(int c) const { return inputQ14_ + c * basisCount_; }
    short* const* projectedInputRows(int s, int c) const {
        return projectedInput_ + (s * shape_.channels + c) * basisCount_;
    }

    PatternShape shape_;
    int basisCount_ = 0;
    int paddedLength_ = 0;
    int distNum_ = 1;
    std::unique_ptr<InputSubspace[]> inputs_;
    std::vector<float> patterns_;  // the newest frame, channel after channel
    bool hasPatterns_ = false;
    // solvedBasis: the last maxSegments frames (each channel after channel) in a ring, and the
    // work of solving their Gram matrix.
    bool solved_ = false;
    int maxSegments_ = 0;
    std::vector<float> recent_;
    int recentCount_ = 0, recentNext_ = 0;
    std::vector<double> gramValues_;
    std::vector<double*> gramRows_;
    // Work of the scoring: the bases as float and Q14 rows, their projections, the batch.
    float** basisCopy_ = nullptr;       // channels * K rows of dimension floats
    short** inputQ14_ = nullptr;        // channels * K rows of paddedLength
    short** projectedInput_ = nullptr;  // spaces * channels * K rows
    int projectedSpaces_ = 0;
    std::vector<int32_t> gram_;
    msm::SimilarityWork work_;
    msm::SimilarityBatch batch_;
    msm::ProjectionWork projectionWork_;
    std::vector<int> pendingPersons_, pendingSlots_;
    msm::ResultLists lists_;
    std::vector<RankedPerson> ranking_;
};

// Scores every person of the snapshot against the input's current state by the method and
// leaves the ranking in the input, with the scores the legacy engine gives for the same frames.
// Fails with one line when the input's shape or basis count is not the snapshot's, when a
// constraint-space method meets a snapshot without spaces, or when memory runs out.
Status score(const Snapshot& snapshot, Input& input, Method method);

}  // namespace msmface::core

#endif  // MSMFACE_CORE_INPUT_H
