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

int thresholdAtFar(const std::vector<int>& impostor, double far) {
    if (impostor.empty()) return kLowestScore;
    const std::vector<int> im = sorted(impostor);
    // Counted in whole scores, so that 1 % of 300 impostors allows exactly 3 whatever the
    // rounding of 0.01 * 300.
    const double allowedShare = std::max(0.0, far) * static_cast<double>(im.size());
    const auto allowed = static_cast<std::size_t>(std::floor(allowedShare + 1e-9));
    // Accepted impostors only fall as the threshold rises: the first threshold that passes is
    // either -1 or just below an impostor score.
    if (countAbove(im, kLowestScore) <= allowed) return kLowestScore;
    for (auto it = im.begin(); it != im.end(); ++it) {
        const int t = *it;
        if (t >= kHighestScore) return kHighestScore;
        if (countAbove(im, t) <= allowed) return std::max(kLowestScore, t);
    }
    return kHighestScore;
}

FarPoint atFalseAcceptRate(const std::vector<int>& genuine, const std::vector<int>& impostor,
                           double far) {
    FarPoint p;
    p.target = far;
    p.threshold = thresholdAtFar(impostor, far);
    p.falseAccept = shareAbove(sorted(impostor), p.threshold);
    p.trueAccept = shareAbove(sorted(genuine), p.threshold);
    return p;
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
    f.atFar1 = atFalseAcceptRate(g, im, 0.01);
    f.atFar01 = atFalseAcceptRate(g, im, 0.001);
    double bestGap = 2.0;
    for (int t = kLowestScore; t <= kHighestScore; ++t) {
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
