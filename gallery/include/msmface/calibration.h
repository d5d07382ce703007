// The identify threshold that holds a false-accept rate, from the scores of probes against
// enrolled persons: what a host measures on its own faces before it stores a threshold
// (Gallery::setThreshold). Scores are in thousandths (0 .. 1000) as recognise gives them;
// "accepted" means strictly above the threshold, as the gallery identifies.
//
// Threads. A pure function: any number of threads at once.
#ifndef MSMFACE_CALIBRATION_H
#define MSMFACE_CALIBRATION_H

#include <vector>

#include <msmface/export.h>
#include <msmface/result.h>

namespace msmface {

// The range the threshold is searched in: -1 accepts every score, 1000 none.
inline constexpr int kLowestThreshold = -1;
inline constexpr int kHighestThreshold = 1000;

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
