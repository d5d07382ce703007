// A person's value from its channels' similarities: the mean over the pattern channels, and for
// the constraint-space method the mean of those over the spaces. Every recognition path sums in
// this order, so that the same similarities give the same score bit for bit.
#ifndef MSMFACE_RECOGNITION_PERSON_VALUE_H
#define MSMFACE_RECOGNITION_PERSON_VALUE_H

#include <cstdint>

#include "recognition/ranking.h"
#include "recognition/similarity_batch.h"
#include "recognition/subspace_similarity.h"

namespace msm {

// A batch of persons whose similarity matrices were formed, person q's slot of channel c (space s)
// at slots[q * channels + c] (slots[(q * spaces + s) * channels + c]), -1 where none was formed.
// Solves the batch and offers each person, in the order given, its value:
// - the subspace method: the mean over channels of similarity / 16384, a missing channel 0;
// - the constraint-space method: per space the mean over channels (a missing channel adds
//   nothing), summed over the spaces and divided by their number when there are several.
void offerSubspaceBatch(SimilarityBatch& batch, const int* persons, const int* slots, int count,
                        int channels, int distNum, RankingPass& pass);
void offerSpacesBatch(SimilarityBatch& batch, const int* persons, const int* slots, int count,
                      int spaces, int channels, int distNum, RankingPass& pass);

// The single-pattern method: the channels' scores in thousandths, averaged and truncated.
class PatternScoreMean {
  public:
    void Add(int32_t channelScore) {
        last_ = channelScore;
        sum_ += last_;
    }
    int32_t Score(int channels) const { return truncScore(sum_ / channels); }
    double Last() const { return last_; }

  private:
    double sum_ = 0.0;
    double last_ = 0.0;
};

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_PERSON_VALUE_H
