// msmface calibrate: the identify threshold of a dictionary directory measured for a
// false-accept rate on the scores of a manifest's videos (see calibration_scores.h), and stored
// in the directory.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <msmface/calibration.h>
#include <msmface/frame_lists.h>
#include <msmface/gallery.h>

#include "commands/commands.h"
#include "evaluation/calibration_scores.h"
#include "input/frame_descriptors.h"
#include "input/frame_source.h"
#include "input/program_files.h"
#include "io/atomic_file.h"

namespace msmcli {
namespace {

// One line naming the flag and the values it takes, or empty.
std::string checkCalibrateOptions(const CalibrateOptions& o) {
    if (!(o.far > 0.0 && o.far <= 0.5)) return "--far: expected a rate above 0 and at most 0.5";
    if (o.method != 0 && o.method != 1 && o.method != 4)
        return "--method " + std::to_string(o.method) +
               ": expected 0 (single pattern), 1 (MSM) or 4 (CMSM)";
    if (!(o.jitter >= 0 && o.jitter <= 20)) return "--jitter: expected 0 to 20 pixels";
    if (o.probeFrames < 1 || o.probeFrames > 2000) return "--probe-frames: expected 1 to 2000";
    return {};
}

// Both outputs are tried before the long work, so that read-only media or a full disk is said at
// once: the threshold's folder takes a temporary file, and the scores file's temporary is made
// now (scoresFile, with its header) and renamed over it at the end (never a half-written file).
std::string prepareCalibrateOutputs(const CalibrateOptions& o,
                                    std::unique_ptr<msm::AtomicFile>& scoresFile) {
    {
        msm::clearWriteFailure();
        const std::string threshold = o.dir + "/" + msmface::kThresholdFileName;
        const msm::AtomicFile trial(threshold.c_str());
        if (trial.stream() == nullptr) return msm::lastWriteFailure();
    }
    if (o.scores.empty()) return {};
    InputFiles inputs;
    inputs.add(o.manifest);
    inputs.addFolder(o.dir);
    const std::string error = inputs.refuseOverwrite("--scores", o.scores);
    if (!error.empty()) return error;
    msm::clearWriteFailure();
    scoresFile = std::make_unique<msm::AtomicFile>(o.scores.c_str());
    if (scoresFile->stream() == nullptr) return msm::lastWriteFailure();
    std::fprintf(scoresFile->stream(), "probe,video,candidate,score,genuine\n");
    return {};
}

// A threshold needs both kinds of score.
std::string refuseOneSided(const CalibrateOptions& o, const CalibrationScores& s) {
    if (s.genuine.empty())
        return o.manifest + ": no identity matches a person of " + o.dir +
               " by key name (expected the identity's name, or eval's p<k>_<name>)";
    if (s.impostor.empty())
        return o.manifest + ": no impostor scores; expected a second person or identity";
    return {};
}

void printCalibration(const CalibrateOptions& o, const CalibrationScores& s,
                      const msmface::FalseAcceptPoint& at) {
    int enrolled = 0;
    for (const auto& [identity, isEnrolled] : s.identities) enrolled += isEnrolled ? 1 : 0;
    std::printf(
        "%zu videos of %zu identities (%d enrolled in %s, %zu strangers giving impostor scores "
        "only)%s; method %d\n",
        s.videos, s.identities.size(), enrolled, o.dir.c_str(), s.identities.size() - enrolled,
        s.unusable > 0 ? (", " + std::to_string(s.unusable) + " without a face skipped").c_str()
                       : "",
        o.method);
    std::printf("%zu genuine and %zu impostor scores\n", s.genuine.size(), s.impostor.size());
    std::printf(
        "threshold at %.2f%% false accepts: %d (the smallest whole threshold with at most that "
        "share of impostor scores strictly above it)\n",
        100.0 * o.far, at.threshold);
    std::printf("there: false accepts %.2f%%, true accepts %.2f%%\n", 100.0 * at.falseAccept,
                100.0 * at.trueAccept);
}

}  // namespace

int runCalibrate(const CalibrateOptions& o) {
    std::string error = checkCalibrateOptions(o);
    if (!error.empty()) return fail(error);
    const auto list = msmface::readManifest(o.manifest);
    if (!list.ok()) return fail(list.message());
    if (!isDirectory(o.dir)) return fail(o.dir + ": expected an existing dictionary directory");
    // Its threshold is written under the directory's lock like every other change.
    auto opened = openGallery(o.dir, false, o.noWait);
    if (!opened.ok()) return fail(opened.message());
    msmface::Gallery& g = opened.value();
    const std::vector<msmface::Person> persons = g.persons();
    if (persons.empty()) return fail(o.dir + ": no persons are enrolled");

    std::unique_ptr<msm::AtomicFile> scoresFile;
    error = prepareCalibrateOutputs(o, scoresFile);
    if (!error.empty()) return fail(error);
    std::unique_ptr<FrameDescriber> describer;
    if (g.patterns() == msmface::PatternKind::Descriptor) {
        error = makeFrameDescriber({o.model, o.descriptorModel, true, o.dir}, describer);
        if (!error.empty()) return fail(error);
    }
    CalibrationScores scores;
    error = gatherCalibrationScores(g, persons, o, list.value(),
                                    scoresFile ? scoresFile->stream() : nullptr, scores,
                                    describer.get());
    if (!error.empty()) return fail(error);
    if (scoresFile && !scoresFile->Commit()) return fail(msm::lastWriteFailure());
    error = refuseOneSided(o, scores);
    if (!error.empty()) return fail(error);
    const auto calibrated =
        msmface::thresholdAtFalseAcceptRate(scores.genuine, scores.impostor, o.far);
    if (!calibrated.ok()) return fail(calibrated.message());
    const msmface::FalseAcceptPoint& at = calibrated.value();
    printCalibration(o, scores, at);

    const msmface::Status stored = g.setThreshold(at.threshold);
    if (!stored) return fail(stored.message());
    std::printf("stored in %s/%s: recognise takes it unless --threshold is given\n", o.dir.c_str(),
                msmface::kThresholdFileName);
    return 0;
}

}  // namespace msmcli
