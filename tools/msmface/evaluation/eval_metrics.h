// Identification and verification figures from the score of every probe against every enrolled
// person: rank-k rates and the CMC curve, the equal-error rate, acceptance rates at a threshold,
// the thresholds that hold a false-accept rate, and the ROC.
#ifndef MSMFACE_TOOLS_MSMFACE_EVAL_METRICS_H
#define MSMFACE_TOOLS_MSMFACE_EVAL_METRICS_H

#include <optional>
#include <vector>

#include <msmface/calibration.h>
#include <msmface/frame.h>

namespace msmcli {

// One probe: its true person (index among the enrolled) and every enrolled person's score
// (thousandths; a negative score means "not computed" and ranks last).
struct ProbeScores {
    int truth = -1;
    std::vector<int> scores;
};

struct RocPoint {
    double falseAccept;  // share of impostor scores above the threshold
    double trueAccept;   // share of genuine scores above the threshold
    int threshold;
};

inline constexpr int kCmcRanks = 20;

struct Figures {
    int probes = 0;
    // Shares of probes whose true person ranks first / among the first five (rankOfTruth).
    double rank1 = 0.0;
    double rank5 = 0.0;
    std::vector<double> cmc;  // cmc[k - 1]: share ranking k or better, k = 1 .. kCmcRanks
    double eer = 0.0;         // where false accepts and false rejects are closest, their mean
    int eerThreshold = 0;
    double trueAcceptAt = 0.0;   // genuine scores above the threshold
    double falseAcceptAt = 0.0;  // impostor scores above the threshold
    double identifiedAt = 0.0;   // probes whose best is the true person and above the threshold
    msmface::FalseAcceptPoint atFar1;   // 1 % false accepts
    msmface::FalseAcceptPoint atFar01;  // 0.1 % false accepts
    std::vector<RocPoint> roc;  // one point per threshold -1 (every score accepted) ... 1000
    std::vector<int> genuine;   // the scores, for histograms
    std::vector<int> impostor;
};

// Rank of the true person: 1 + the number of others scoring at least as high (so a tie ranks
// against the true person). 0 when the probe has no true person.
int rankOfTruth(const ProbeScores& p);

// "accepted" means a score strictly above the threshold, as the engine identifies.
Figures computeFigures(const std::vector<ProbeScores>& probes, int threshold);

// The direction of the mean of descriptors (unit length), or nothing when they have none (no
// descriptors, or their sum is zero or not finite).
std::optional<msmface::FaceDescriptor> meanDirection(
    const std::vector<msmface::FaceDescriptor>& descriptors);

// The mean-descriptor comparison's score of two unit directions: 1000 x cosine squared, rounded,
// and 0 for directions a right angle or more apart. The square makes it the score MSM gives two
// subspaces of one vector each, so that the two read on one scale.
int meanDescriptorScore(const msmface::FaceDescriptor& a, const msmface::FaceDescriptor& b);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_EVAL_METRICS_H
