#include <msmface/calibration.h>

#include <algorithm>
#include <cmath>
#include <string>

namespace msmface {
namespace {

std::size_t countAbove(const std::vector<int>& sorted, int t) {
    return static_cast<std::size_t>(sorted.end() -
                                    std::upper_bound(sorted.begin(), sorted.end(), t));
}

double shareAbove(const std::vector<int>& sorted, int t) {
    if (sorted.empty()) return 0.0;
    return static_cast<double>(countAbove(sorted, t)) / static_cast<double>(sorted.size());
}

std::vector<int> sorted(std::vector<int> v) {
    std::sort(v.begin(), v.end());
    return v;
}

int lowestThreshold(const std::vector<int>& impostor, double rate) {
    if (impostor.empty()) return kLowestThreshold;
    // Counted in whole scores, so that 1 % of 300 impostors allows exactly 3 whatever the
    // rounding of 0.01 * 300.
    const auto allowed =
        static_cast<std::size_t>(std::floor(rate * static_cast<double>(impostor.size()) + 1e-9));
    // Accepted impostors only fall as the threshold rises: the first threshold that passes is
    // either the lowest or an impostor score itself.
    if (countAbove(impostor, kLowestThreshold) <= allowed) return kLowestThreshold;
    for (const int t : impostor) {
        if (t >= kHighestThreshold) return kHighestThreshold;
        if (countAbove(impostor, t) <= allowed) return std::max(kLowestThreshold, t);
    }
    return kHighestThreshold;
}

std::string numberText(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

}  // namespace

Result<FalseAcceptPoint> thresholdAtFalseAcceptRate(const std::vector<int>& genuine,
                                                    const std::vector<int>& impostor, double rate) {
    if (!(rate >= 0.0 && rate <= 1.0))
        return Status::failure(ErrorKind::Argument,
                               "rate " + numberText(rate) + ": expected a share from 0 to 1");
    const std::vector<int> im = sorted(impostor);
    FalseAcceptPoint p;
    p.rate = rate;
    p.threshold = lowestThreshold(im, rate);
    p.falseAccept = shareAbove(im, p.threshold);
    p.trueAccept = shareAbove(sorted(genuine), p.threshold);
    return p;
}

}  // namespace msmface
