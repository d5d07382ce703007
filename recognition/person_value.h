// A person's value from its channels' similarities: the mean over the pattern channels, and for
// the constraint-space method the mean of those over the spaces. Every recognition path sums in
// this order, so that the same similarities give the same score bit for bit.
#ifndef MSMFACE_RECOGNITION_PERSON_VALUE_H
#define MSMFACE_RECOGNITION_PERSON_VALUE_H

#include <cstdint>

#include "recognition/subspace_similarity.h"

namespace msm {

// The subspace method: channel similarities in Q14 units (0 for a channel without dictionary).
class ChannelMean {
  public:
    void Add(float q14Similarity) {
        last_ = q14Similarity * (1.0 / 16384.0);
        sum_ += last_;
    }
    double Value(int channels) const { return sum_ / channels; }
    double Last() const { return last_; }

  private:
    double sum_ = 0.0;
    double last_ = 0.0;
};

// The constraint-space method: per space the mean over channels (a skipped channel adds
// nothing), summed over the spaces and divided by their number when there are several.
class SpacesMean {
  public:
    void StartSpace() { sum_ = 0.0; }
    void Add(float q14Similarity) { sum_ += q14Similarity; }
    void EndSpace(int channels) { value_ += sum_ / channels * (1.0 / 16384.0); }
    double Value(int spaces) const { return spaces > 1 ? value_ / spaces : value_; }

  private:
    double sum_ = 0.0;
    double value_ = 0.0;
};

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
