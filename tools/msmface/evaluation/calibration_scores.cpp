#include "evaluation/calibration_scores.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include <msmface/jitter.h>

#include "evaluation/key_name.h"
#include "evaluation/progress.h"
#include "input/frame_descriptors.h"
#include "input/frame_source.h"
#include "input/frames.h"

namespace msmcli {
namespace {

struct Probe {
    std::string identity;
    std::string video;
    std::vector<FrameRow> rows;
};

// One probe per video of each identity, in the manifest's order.
std::vector<Probe> probesByVideo(const std::vector<FrameRow>& rows) {
    std::vector<Probe> probes;
    std::map<std::pair<std::string, std::string>, std::size_t> at;
    for (const FrameRow& r : rows) {
        const auto key = std::make_pair(r.identity, r.video);
        auto it = at.find(key);
        if (it == at.end()) {
            it = at.emplace(key, probes.size()).first;
            probes.push_back(Probe{r.identity, r.video, {}});
        }
        probes[it->second].rows.push_back(r);
    }
    return probes;
}

// The person of the directory an identity stands for, or -1.
int personOf(const std::vector<msmface::Person>& persons, const std::string& identity) {
    for (std::size_t i = 0; i < persons.size(); ++i)
        if (keyNameIsOf(persons[i].name, identity)) return static_cast<int>(i);
    return -1;
}

void addScores(const Probe& p, int own, const std::vector<int>& all,
               const std::vector<msmface::Person>& persons, std::FILE* rows,
               CalibrationScores& out) {
    for (std::size_t c = 0; c < all.size(); ++c) {
        if (all[c] < 0) continue;  // not computed: neither accepted nor rejected
        const bool isOwn = static_cast<int>(c) == own;
        (isOwn ? out.genuine : out.impostor).push_back(all[c]);
        if (rows != nullptr)
            std::fprintf(rows, "%s,%s,%s,%d,%d\n", p.identity.c_str(), p.video.c_str(),
                         persons[c].name.c_str(), all[c], isOwn ? 1 : 0);
    }
}

}  // namespace

std::string gatherCalibrationScores(msmface::Gallery& g,
                                    const std::vector<msmface::Person>& persons,
                                    const CalibrateOptions& o,
                                    const std::vector<msmface::FrameRow>& list, std::FILE* rows,
                                    CalibrationScores& out, FrameDescriber* describer) {
    const std::vector<Probe> probes = probesByVideo(list);
    out.videos = probes.size();
    Progress bar("calibrating", static_cast<int>(probes.size()));
    for (std::size_t i = 0; i < probes.size(); ++i) {
        bar.step(static_cast<int>(i) + 1);
        const Probe& p = probes[i];
        const int own = personOf(persons, p.identity);
        out.identities[p.identity] = own >= 0;
        std::vector<Frame> frames;
        const std::string error = loadFrames(o.manifest, p.rows, frames);
        if (!error.empty()) return error;
        std::vector<msmface::Sample> samples;
        if (describer != nullptr) {
            // A video none of whose faces can be described gives no score, as one without a face.
            if (!describeFramesByPoints(*describer, o.manifest, frames).empty()) {
                ++out.unusable;
                continue;
            }
            if (frames.size() > static_cast<std::size_t>(o.probeFrames))
                frames.resize(static_cast<std::size_t>(o.probeFrames));
            samples = samplesOf(frames);
        } else {
            // The video's frames offered until there are probeFrames of them.
            auto offered = msmface::offerFrames(samplesOf(frames), o.probeFrames, o.jitter,
                                                5000u + static_cast<uint32_t>(i));
            if (!offered.ok()) return offered.message();
            samples = std::move(offered.value());
        }
        const auto r = g.recognise(samples, {static_cast<msmface::Method>(o.method), -1});
        if (!r.ok()) {
            ++out.unusable;
            continue;
        }
        addScores(p, own, scoresOf(r, persons), persons, rows, out);
    }
    return {};
}

}  // namespace msmcli
