// The options of a recognition checked, and its scores turned into the ranking a host reads.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "gallery/gallery_impl.h"
#include "store/threshold_file.h"

namespace msmface {

namespace detail {

std::string checkMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
        case Method::Msm:
        case Method::CmsmFirstSpace:
        case Method::Cmsm:
            return {};
    }
    return "method " + std::to_string(static_cast<int>(m)) +
           ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)";
}

std::string checkThresholdOption(int threshold) {
    if (threshold == -1 || (threshold >= 0 && threshold <= kMaxThreshold)) return {};
    return "threshold " + std::to_string(threshold) +
           ": expected 0 to 1000, or -1 for the gallery's stored one";
}

Ranking rankingOf(const std::vector<Person>& persons, const std::vector<int>& scores,
                  int threshold) {
    Ranking r;
    r.threshold = threshold;
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < scores.size() && i < persons.size(); ++i)
        if (scores[i] >= 0) order.push_back(i);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
    // The dictionaries are checked when they load; this only keeps a score the engine computed
    // past its scale from reaching a host that trusts the documented range.
    for (std::size_t i : order)
        r.matches.push_back(Match{persons[i].id, persons[i].name, std::min(scores[i], 1000)});
    if (!r.matches.empty() && r.matches.front().score > threshold) r.identified = r.matches.front();
    return r;
}

core::Method coreMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
            return core::Method::SinglePattern;
        case Method::Msm:
            break;
        case Method::CmsmFirstSpace:
            return core::Method::Cmsm;
        case Method::Cmsm:
            return core::Method::CmsmAllSpaces;
    }
    return core::Method::Msm;
}

std::vector<int> scoresOf(const core::Input& input, int persons) {
    std::vector<int> scores(static_cast<std::size_t>(std::max(persons, 0)), -1);
    for (const core::RankedPerson& r : input.ranking())
        if (r.person >= 0 && r.person < persons && r.score >= 0)
            scores[static_cast<std::size_t>(r.person)] = r.score;
    return scores;
}

}  // namespace detail

}  // namespace msmface
