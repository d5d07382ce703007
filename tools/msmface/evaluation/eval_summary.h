// Everything an evaluation run found, filled once by `msmface eval` and then shown three ways:
// the printed table, summary.json and the report page. All three read this struct, so they
// cannot disagree.
#ifndef MSMFACE_TOOLS_MSMFACE_EVAL_SUMMARY_H
#define MSMFACE_TOOLS_MSMFACE_EVAL_SUMMARY_H

#include <string>
#include <vector>

#include "evaluation/eval_metrics.h"

namespace msmcli {

struct EvalSettings {
    std::string manifest;
    double jitter = 0.0;
    int enrolFrames = 0;
    int probeFrames = 0;
    int dimension = 0;    // CMSM's constraint dimension
    int threshold = 0;    // the identify threshold
    bool detect = false;  // points found by the detector instead of the manifest's
};

struct MethodResult {
    int method = 0;
    std::string name;
    Figures figures;
    // Per probe: its true person among EvalSummary::enrolled and every enrolled person's score.
    std::vector<ProbeScores> scores;
};

// CMSM at one constraint dimension.
struct SweepPoint {
    int dimension = 0;
    double rank1 = 0.0;
    double eer = 0.0;
    int eerThreshold = 0;
};

struct StageTime {
    std::string stage;
    double seconds = 0.0;
};

struct EvalSummary {
    std::string version;
    EvalSettings settings;
    int personsWithVideos = 0;          // persons with two or more videos
    int leftOut = 0;                    // persons with one video only
    std::vector<std::string> enrolled;  // identities, in the order of every score vector
    std::vector<MethodResult> methods;
    std::vector<SweepPoint> sweep;  // ascending dimensions; empty when not swept
    int bestDimension = 0;          // highest rank-1, then lowest EER; 0 when not swept
    std::vector<StageTime> stages;
};

// 0.52 -> "52.0%": every rate shown to a person, on the page and in the table.
std::string formatPercent(double share);

// The enrolled person a probe scored highest, or -1: of equal scores the first, but never the
// true person when another ties with it (so that it agrees with rankOfTruth).
int bestCandidate(const ProbeScores& p);

// The sweep point of highest rank-1 (ties: lower EER, then smaller dimension); 0 when none.
int bestSweepDimension(const std::vector<SweepPoint>& sweep);

// The printed table and summary lines of `msmface eval`.
std::string summaryTable(const EvalSummary& s);

// summary.json: settings, per method every figure of the table with its thresholds and the CMC,
// the sweep, every probe's outcome by each method, and the stage times.
std::string summaryJson(const EvalSummary& s);

// A JSON string literal.
std::string jsonString(const std::string& text);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_EVAL_SUMMARY_H
