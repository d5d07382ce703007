// Everything an evaluation run found, filled once by `msmface eval` and then shown three ways:
// the printed table, summary.json and the report page. All three read this struct, so they
// cannot disagree.
#ifndef MSMFACE_TOOLS_MSMFACE_EVAL_SUMMARY_H
#define MSMFACE_TOOLS_MSMFACE_EVAL_SUMMARY_H

#include <string>
#include <vector>

#include <msmface/store.h>

#include "evaluation/eval_metrics.h"

namespace msmcli {

struct EvalSettings {
    std::string manifest;
    double jitter = 0.0;
    int enrolFrames = 0;
    int probeFrames = 0;
    int dimension = 0;    // CMSM's constraint dimension (of the first kind of pattern)
    int threshold = 0;    // the identify threshold (of the first kind of pattern)
    bool detect = false;  // points found by the detector instead of the manifest's
};

// The method number of the comparison of one mean descriptor per person by cosine, which no
// gallery runs and no --method names.
inline constexpr int kMeanDescriptorMethod = -1;

struct MethodResult {
    int method = 0;  // a gallery's method number, or kMeanDescriptorMethod
    std::string name;
    msmface::PatternKind kind = msmface::PatternKind::Seed;
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

// What one kind of pattern was run with, and its CMSM sweep. A threshold or dimension belongs to
// its kind: the scales of the kinds differ.
struct KindPart {
    msmface::PatternKind kind = msmface::PatternKind::Seed;
    int dimension = 0;
    int threshold = 0;
    std::vector<SweepPoint> sweep;  // ascending dimensions; empty when not swept
    int bestDimension = 0;          // highest rank-1, then lowest EER; 0 when not swept
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
    // Of the first kind of pattern, as in kinds.front().
    std::vector<SweepPoint> sweep;  // ascending dimensions; empty when not swept
    int bestDimension = 0;          // highest rank-1, then lowest EER; 0 when not swept
    // Every kind of pattern run, in the order of methods; empty: Seed patterns alone, with the
    // settings' threshold and dimension and the sweep above.
    std::vector<KindPart> kinds;
    std::vector<StageTime> stages;
};

// s.kinds, or the one Seed part that the settings and the sweep describe.
std::vector<KindPart> kindsOf(const EvalSummary& s);
// The part of kind in s (the first part when s has none of that kind).
KindPart kindPartOf(const EvalSummary& s, msmface::PatternKind kind);
// True when a figure needs its kind named: the run has a kind other than Seed patterns.
bool namesKinds(const EvalSummary& s);
// "1 MSM", "MEAN DESCRIPTOR"; with the kind in front ("descriptor 1 MSM") when the run names
// kinds.
std::string methodLabel(const EvalSummary& s, const MethodResult& m);

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
