// The identify threshold that holds a false-accept rate, from the scores of probes against
// enrolled persons: what a host measures on its own faces before it stores a threshold
// (Gallery::setThreshold). Scores are in thousandths (0 .. 1000) as recognise gives them;
// "accepted" means strictly above the threshold, as the gallery identifies.
//
// Threads. A pure function: any number of threads at once.
#ifndef MSMFACE_CALIBRATION_H
#define MSMFACE_CALIBRATION_H

#include <cstddef>
#include <vector>

#include <msmface/export.h>
#include <msmface/result.h>

namespace msmface {

// The range the threshold is searched in: -1 accepts every score, 1000 none.
inline constexpr int kLowestThreshold = -1;
inline constexpr int kHighestThreshold = 1000;

// Scores kept sorted, so that how many lie above any threshold takes logarithmic time: what a
// threshold search or a ROC curve asks thousands of times. Immutable once made.
class MSMFACE_API SortedScores {
  public:
    explicit SortedScores(std::vector<int> scores);
    std::size_t size() const noexcept { return sorted_.size(); }
    const std::vector<int>& values() const noexcept { return sorted_; }  // ascending
    // Scores strictly above the threshold.
    std::size_t countAbove(int threshold) const;
    // Their share of all scores; 0 when there are none.
    double shareAbove(int threshold) const;

  private:
    std::vector<int> sorted_;
};

struct FalseAcceptPoint {
    double rate = 0.0;  // the false-accept rate asked for
    int threshold = kLowestThreshold;
    double falseAccept = 0.0;  // share of impostor scores above the threshold
    double trueAccept = 0.0;   // share of genuine scores above the threshold (0 with none)
};

// The smallest whole threshold in -1 .. 1000 with at most floor(rate x impostors) impostor scores
// strictly above it (counted in whole scores, so that 1 % of 300 allows exactly 3), and the rates
// it gives. No impostor scores: -1. Fails (Argument) for a rate outside 0 .. 1 ("rate 2: ...").
MSMFACE_API Result<FalseAcceptPoint> thresholdAtFalseAcceptRate(const std::vector<int>& genuine,
                                                                const std::vector<int>& impostor,
                                                                double rate);

}  // namespace msmface

#endif  // MSMFACE_CALIBRATION_H
