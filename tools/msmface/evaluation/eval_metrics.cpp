#include "evaluation/eval_metrics.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace msmcli {
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
    const msmface::SortedScores g(f.genuine), im(f.impostor);
    f.trueAcceptAt = g.shareAbove(threshold);
    f.falseAcceptAt = im.shareAbove(threshold);
    // Both rates are within 0 .. 1: these never fail.
    f.atFar1 = msmface::thresholdAtFalseAcceptRate(f.genuine, f.impostor, 0.01).value();
    f.atFar01 = msmface::thresholdAtFalseAcceptRate(f.genuine, f.impostor, 0.001).value();
    double bestGap = 2.0;
    for (int t = msmface::kLowestThreshold; t <= msmface::kHighestThreshold; ++t) {
        const double far = im.shareAbove(t);
        const double tar = g.shareAbove(t);
        f.roc.push_back(RocPoint{far, tar, t});
        const double frr = 1.0 - tar;
        if (im.size() > 0 && std::fabs(far - frr) < bestGap) {
            bestGap = std::fabs(far - frr);
            f.eer = (far + frr) / 2.0;
            f.eerThreshold = t;
        }
    }
    return f;
}

std::optional<msmface::FaceDescriptor> meanDirection(
    const std::vector<msmface::FaceDescriptor>& descriptors) {
    std::array<double, msmface::kDescriptorSize> sum{};
    for (const msmface::FaceDescriptor& d : descriptors)
        for (int i = 0; i < msmface::kDescriptorSize; ++i) sum[i] += d[i];
    double length = 0;
    for (double v : sum) length += v * v;
    length = std::sqrt(length);
    if (!(length > 0) || !std::isfinite(length)) return std::nullopt;
    msmface::FaceDescriptor mean;
    for (int i = 0; i < msmface::kDescriptorSize; ++i)
        mean[i] = static_cast<float>(sum[i] / length);
    return mean;
}

int meanDescriptorScore(const msmface::FaceDescriptor& a, const msmface::FaceDescriptor& b) {
    double cosine = 0;
    for (int i = 0; i < msmface::kDescriptorSize; ++i) cosine += static_cast<double>(a[i]) * b[i];
    if (!(cosine > 0)) return 0;
    return static_cast<int>(std::lround(1000 * std::min(1.0, cosine * cosine)));
}

}  // namespace msmcli
