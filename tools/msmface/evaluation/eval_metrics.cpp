#include "evaluation/eval_metrics.h"

#include <algorithm>
#include <cmath>

namespace msmcli {
namespace {

std::size_t countAbove(const std::vector<int>& sorted, int t) {
    return static_cast<std::size_t>(sorted.end() -
                                    std::upper_bound(sorted.begin(), sorted.end(), t));
}

// Share of sorted values strictly above t.
double shareAbove(const std::vector<int>& sorted, int t) {
    if (sorted.empty()) return 0.0;
    return static_cast<double>(countAbove(sorted, t)) / static_cast<double>(sorted.size());
}

std::vector<int> sorted(std::vector<int> v) {
    std::sort(v.begin(), v.end());
    return v;
}

}  // namespace

int rankOfTruth(const ProbeScores& p) {
    if (p.truth < 0 || p.truth >= static_cast<int>(p.scores.size())) return 0;
    const int own = p.scores[p.truth];
    int rank = 1;
    for (int i = 0; i < static_cast<int>(p.scores.size()); ++i)
        if (i != p.truth && p.scores[i] >= own) ++rank;
    return rank;
}

Figures computeFigures(const std::vector<ProbeScores>& probes, int threshold) {
    Figures f;
    int identified = 0;
    std::vector<int> atRank(kCmcRanks + 1, 0);
    for (const ProbeScores& p : probes) {
        const int rank = rankOfTruth(p);
        if (rank == 0) continue;
        ++f.probes;
        if (rank <= kCmcRanks) ++atRank[rank];
        if (rank == 1 && p.scores[p.truth] > threshold) ++identified;
        for (int i = 0; i < static_cast<int>(p.scores.size()); ++i)
            (i == p.truth ? f.genuine : f.impostor).push_back(p.scores[i]);
    }
    if (f.probes == 0) return f;
    int cumulative = 0;
    for (int k = 1; k <= kCmcRanks; ++k) {
        cumulative += atRank[k];
        f.cmc.push_back(static_cast<double>(cumulative) / f.probes);
    }
    f.rank1 = f.cmc[0];
    f.rank5 = f.cmc[4];
    f.identifiedAt = static_cast<double>(identified) / f.probes;
    const std::vector<int> g = sorted(f.genuine), im = sorted(f.impostor);
    f.trueAcceptAt = shareAbove(g, threshold);
    f.falseAcceptAt = shareAbove(im, threshold);
    // Both rates are within 0 .. 1: these never fail.
    f.atFar1 = msmface::thresholdAtFalseAcceptRate(g, im, 0.01).value();
    f.atFar01 = msmface::thresholdAtFalseAcceptRate(g, im, 0.001).value();
    double bestGap = 2.0;
    for (int t = msmface::kLowestThreshold; t <= msmface::kHighestThreshold; ++t) {
        const double far = shareAbove(im, t);
        const double tar = shareAbove(g, t);
        f.roc.push_back(RocPoint{far, tar, t});
        const double frr = 1.0 - tar;
        if (!im.empty() && std::fabs(far - frr) < bestGap) {
            bestGap = std::fabs(far - frr);
            f.eer = (far + frr) / 2.0;
            f.eerThreshold = t;
        }
    }
    return f;
}

}  // namespace msmcli
