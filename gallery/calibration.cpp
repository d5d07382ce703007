#include <msmface/calibration.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace msmface {
namespace {

int lowestThreshold(const SortedScores& impostor, double rate) {
    if (impostor.size() == 0) return kLowestThreshold;
    // Counted in whole scores, so that 1 % of 300 impostors allows exactly 3 whatever the
    // rounding of 0.01 * 300.
    const auto allowed =
        static_cast<std::size_t>(std::floor(rate * static_cast<double>(impostor.size()) + 1e-9));
    // Accepted impostors only fall as the threshold rises: the first threshold that passes is
    // either the lowest or an impostor score itself.
    if (impostor.countAbove(kLowestThreshold) <= allowed) return kLowestThreshold;
    for (const int t : impostor.values()) {
        if (t >= kHighestThreshold) return kHighestThreshold;
        if (impostor.countAbove(t) <= allowed) return std::max(kLowestThreshold, t);
    }
    return kHighestThreshold;
}

std::string numberText(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

}  // namespace

SortedScores::SortedScores(std::vector<int> scores) : sorted_(std::move(scores)) {
    std::sort(sorted_.begin(), sorted_.end());
}

std::size_t SortedScores::countAbove(int threshold) const {
    return static_cast<std::size_t>(sorted_.end() -
                                    std::upper_bound(sorted_.begin(), sorted_.end(), threshold));
}

double SortedScores::shareAbove(int threshold) const {
    if (sorted_.empty()) return 0.0;
    return static_cast<double>(countAbove(threshold)) / static_cast<double>(sorted_.size());
}

Result<FalseAcceptPoint> thresholdAtFalseAcceptRate(const std::vector<int>& genuine,
                                                    const std::vector<int>& impostor, double rate) {
    if (!(rate >= 0.0 && rate <= 1.0))
        return Status::failure(ErrorKind::Argument,
                               "rate " + numberText(rate) + ": expected a share from 0 to 1");
    const SortedScores im(impostor);
    FalseAcceptPoint p;
    p.rate = rate;
    p.threshold = lowestThreshold(im, rate);
    p.falseAccept = im.shareAbove(p.threshold);
    p.trueAccept = SortedScores(genuine).shareAbove(p.threshold);
    return p;
}

}  // namespace msmface
