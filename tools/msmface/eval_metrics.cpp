#include "eval_metrics.h"

#include <algorithm>
#include <cmath>

namespace msmcli {
namespace {

// Share of sorted values strictly above t.
double shareAbove(const std::vector<int>& sorted, int t) {
    if (sorted.empty()) return 0.0;
    const auto first = std::upper_bound(sorted.begin(), sorted.end(), t);
    return static_cast<double>(sorted.end() - first) / static_cast<double>(sorted.size());
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
    int rank1 = 0, rank5 = 0, identified = 0;
    for (const ProbeScores& p : probes) {
        const int rank = rankOfTruth(p);
        if (rank == 0) continue;
        ++f.probes;
        if (rank == 1) ++rank1;
        if (rank <= 5) ++rank5;
        if (rank == 1 && p.scores[p.truth] > threshold) ++identified;
        for (int i = 0; i < static_cast<int>(p.scores.size()); ++i)
            (i == p.truth ? f.genuine : f.impostor).push_back(p.scores[i]);
    }
    if (f.probes == 0) return f;
    f.rank1 = static_cast<double>(rank1) / f.probes;
    f.rank5 = static_cast<double>(rank5) / f.probes;
    f.identifiedAt = static_cast<double>(identified) / f.probes;
    std::vector<int> g = f.genuine, im = f.impostor;
    std::sort(g.begin(), g.end());
    std::sort(im.begin(), im.end());
    f.trueAcceptAt = shareAbove(g, threshold);
    f.falseAcceptAt = shareAbove(im, threshold);
    double bestGap = 2.0;
    for (int t = -1; t <= 1000; ++t) {
        const double far = shareAbove(im, t);
        const double tar = shareAbove(g, t);
        f.roc.push_back(RocPoint{far, tar});
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
