// msmface calibrate: the identify threshold of a dictionary directory measured for a
// false-accept rate. Every video of every manifest identity is recognised against the persons of
// the directory; an identity's score against its own person is genuine, every other score an
// impostor score. Identities that no person of the directory stands for (matched by key name,
// see key_name.h) give impostor scores only: they are the strangers a threshold must reject.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <msmface/calibration.h>
#include <msmface/frame_lists.h>
#include <msmface/gallery.h>
#include <msmface/jitter.h>

#include "commands/commands.h"
#include "evaluation/key_name.h"
#include "evaluation/progress.h"
#include "input/frame_source.h"
#include "input/frames.h"
#include "input/program_files.h"
#include "io/atomic_file.h"

namespace msmcli {
namespace {

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

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

}  // namespace

int runCalibrate(const CalibrateOptions& o) {
    if (!(o.far > 0.0 && o.far <= 0.5))
        return fail("--far: expected a rate above 0 and at most 0.5");
    if (o.method != 0 && o.method != 1 && o.method != 4)
        return fail("--method " + std::to_string(o.method) +
                    ": expected 0 (single pattern), 1 (MSM) or 4 (CMSM)");
    if (!(o.jitter >= 0 && o.jitter <= 20)) return fail("--jitter: expected 0 to 20 pixels");
    if (o.probeFrames < 1 || o.probeFrames > 2000)
        return fail("--probe-frames: expected 1 to 2000");
    const auto list = msmface::readManifest(o.manifest);
    if (!list.ok()) return fail(list.message());
    std::string error;
    if (!isDirectory(o.dir)) return fail(o.dir + ": expected an existing dictionary directory");
    // Its threshold is written under the directory's lock like every other change.
    auto opened = openGallery(o.dir, false, o.noWait);
    if (!opened.ok()) return fail(opened.message());
    msmface::Gallery& g = opened.value();
    const std::vector<msmface::Person> persons = g.persons();
    if (persons.empty()) return fail(o.dir + ": no persons are enrolled");

    // Both outputs are tried before the long work, so that read-only media or a full disk is
    // said at once: the threshold's folder takes a temporary file, and the scores file's
    // temporary is made now and renamed over it at the end (never a half-written file).
    {
        msm::clearWriteFailure();
        const std::string threshold = o.dir + "/" + msmface::kThresholdFileName;
        const msm::AtomicFile trial(threshold.c_str());
        if (trial.stream() == nullptr) return fail(msm::lastWriteFailure());
    }
    std::unique_ptr<msm::AtomicFile> scoresFile;
    std::FILE* scores = nullptr;
    if (!o.scores.empty()) {
        InputFiles inputs;
        inputs.add(o.manifest);
        inputs.addFolder(o.dir);
        error = inputs.refuseOverwrite("--scores", o.scores);
        if (!error.empty()) return fail(error);
        msm::clearWriteFailure();
        scoresFile = std::make_unique<msm::AtomicFile>(o.scores.c_str());
        scores = scoresFile->stream();
        if (scores == nullptr) return fail(msm::lastWriteFailure());
        std::fprintf(scores, "probe,video,candidate,score,genuine\n");
    }
    const std::vector<Probe> probes = probesByVideo(list.value());
    std::vector<int> genuine, impostor;
    std::map<std::string, bool> identities;  // identity -> enrolled
    int unusable = 0;
    {
        Progress bar("calibrating", static_cast<int>(probes.size()));
        for (std::size_t i = 0; i < probes.size(); ++i) {
            bar.step(static_cast<int>(i) + 1);
            const Probe& p = probes[i];
            const int own = personOf(persons, p.identity);
            identities[p.identity] = own >= 0;
            std::vector<Frame> frames;
            error = loadFrames(o.manifest, p.rows, frames);
            if (!error.empty()) return fail(error);
            const auto offered = msmface::offerFrames(samplesOf(frames), o.probeFrames, o.jitter,
                                                      5000u + static_cast<uint32_t>(i));
            if (!offered.ok()) return fail(offered.message());
            const auto r =
                g.recognise(offered.value(), {static_cast<msmface::Method>(o.method), -1});
            if (!r.ok()) {
                ++unusable;
                continue;
            }
            const std::vector<int> all = scoresOf(r, persons);
            for (std::size_t c = 0; c < all.size(); ++c) {
                if (all[c] < 0) continue;  // not computed: neither accepted nor rejected
                const bool isOwn = static_cast<int>(c) == own;
                (isOwn ? genuine : impostor).push_back(all[c]);
                if (scores != nullptr)
                    std::fprintf(scores, "%s,%s,%s,%d,%d\n", p.identity.c_str(), p.video.c_str(),
                                 persons[c].name.c_str(), all[c], isOwn ? 1 : 0);
            }
        }
    }
    if (scoresFile && !scoresFile->Commit()) return fail(msm::lastWriteFailure());
    if (genuine.empty())
        return fail(o.manifest + ": no identity matches a person of " + o.dir +
                    " by key name (expected the identity's name, or eval's p<k>_<name>)");
    if (impostor.empty())
        return fail(o.manifest + ": no impostor scores; expected a second person or identity");
    const auto calibrated = msmface::thresholdAtFalseAcceptRate(genuine, impostor, o.far);
    if (!calibrated.ok()) return fail(calibrated.message());
    const msmface::FalseAcceptPoint& at = calibrated.value();

    int enrolled = 0;
    for (const auto& [identity, isEnrolled] : identities) enrolled += isEnrolled ? 1 : 0;
    std::printf(
        "%zu videos of %zu identities (%d enrolled in %s, %zu strangers giving impostor scores "
        "only)%s; method %d\n",
        probes.size(), identities.size(), enrolled, o.dir.c_str(), identities.size() - enrolled,
        unusable > 0 ? (", " + std::to_string(unusable) + " without a face skipped").c_str() : "",
        o.method);
    std::printf("%zu genuine and %zu impostor scores\n", genuine.size(), impostor.size());
    std::printf(
        "threshold at %.2f%% false accepts: %d (the smallest whole threshold with at most that "
        "share of impostor scores strictly above it)\n",
        100.0 * o.far, at.threshold);
    std::printf("there: false accepts %.2f%%, true accepts %.2f%%\n", 100.0 * at.falseAccept,
                100.0 * at.trueAccept);

    const msmface::Status stored = g.setThreshold(at.threshold);
    if (!stored) return fail(stored.message());
    std::printf("stored in %s/%s: recognise takes it unless --threshold is given\n", o.dir.c_str(),
                msmface::kThresholdFileName);
    return 0;
}

}  // namespace msmcli
