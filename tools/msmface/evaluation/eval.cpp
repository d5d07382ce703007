// Evaluation on a manifest of real faces: every person with two or more videos is enrolled from
// all of them but the last and probed with the last, by the single-pattern method, MSM and CMSM,
// and CMSM again over a range of constraint dimensions. The figures land in one EvalSummary,
// which is printed, written as summary.json and drawn as report.html.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <msmface/msmface.h>

#include "commands/commands.h"
#include "evaluation/eval_metrics.h"
#include "evaluation/eval_summary.h"
#include "evaluation/key_name.h"
#include "evaluation/progress.h"
#include "evaluation/report_page.h"
#include "input/detected_frames.h"
#include "input/face_finder.h"
#include "input/frame_source.h"
#include "input/frames.h"
#include "input/image_io.h"
#include "input/program_files.h"
#include "io/atomic_file.h"

namespace msmcli {
namespace {

struct EvalPerson {
    std::string identity;
    std::vector<FrameRow> enrolRows;
    std::vector<FrameRow> probeRows;
};

// Videos ordered as numbers when they are numbers, so that video 10 comes after video 9.
bool videoBefore(const std::string& a, const std::string& b) {
    char* endA = nullptr;
    char* endB = nullptr;
    const long x = std::strtol(a.c_str(), &endA, 10), y = std::strtol(b.c_str(), &endB, 10);
    if (*endA == '\0' && *endB == '\0' && !a.empty() && !b.empty()) return x < y;
    return a < b;
}

std::vector<EvalPerson> splitByVideo(const std::vector<FrameRow>& rows, int& skipped) {
    std::vector<std::string> order;
    std::map<std::string, std::map<std::string, std::vector<FrameRow>,
                                   bool (*)(const std::string&, const std::string&)>>
        byPerson;
    for (const FrameRow& r : rows) {
        auto it = byPerson.find(r.identity);
        if (it == byPerson.end()) {
            order.push_back(r.identity);
            it = byPerson.emplace(r.identity, decltype(byPerson)::mapped_type(videoBefore)).first;
        }
        it->second[r.video].push_back(r);
    }
    std::vector<EvalPerson> persons;
    skipped = 0;
    for (const std::string& id : order) {
        auto& videos = byPerson.at(id);
        if (videos.size() < 2) {
            ++skipped;
            continue;
        }
        EvalPerson p;
        p.identity = id;
        for (auto it = videos.begin(); it != videos.end(); ++it) {
            auto& target = std::next(it) == videos.end() ? p.probeRows : p.enrolRows;
            target.insert(target.end(), it->second.begin(), it->second.end());
        }
        persons.push_back(std::move(p));
    }
    return persons;
}

// The dimensions the CMSM sweep tries: a handful up to the span of the enrolled persons (a space
// has no more meaningful directions than about 30 per person), and the chosen one.
std::vector<int> sweepDimensions(const std::vector<int>& asked, int persons, int chosen) {
    const int span = std::min(256, 30 * persons);
    std::vector<int> dims;
    if (!asked.empty()) {
        dims = asked;
    } else {
        for (int d : {10, 25, 50, 100, 150, 200, 256})
            if (d <= span) dims.push_back(d);
        dims.push_back(span);
        dims.push_back(chosen);
    }
    std::sort(dims.begin(), dims.end());
    dims.erase(std::unique(dims.begin(), dims.end()), dims.end());
    return dims;
}

std::string pngOf(const std::vector<unsigned char>& face) {
    if (face.size() != 64 * 64) return {};
    const std::vector<unsigned char> png = encodePng(64, 64, 1, face.data());
    return std::string(png.begin(), png.end());
}

class Stopwatch {
  public:
    double lap() {
        const auto now = std::chrono::steady_clock::now();
        const double s = std::chrono::duration<double>(now - last_).count();
        last_ = now;
        return s;
    }

  private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace

int runEval(const EvalOptions& o) {
    const auto start = std::chrono::steady_clock::now();
    Stopwatch watch;
    if (!(o.jitter >= 0 && o.jitter <= 20)) return fail("--jitter: expected 0 to 20 pixels");
    if (o.enrolFrames < 50 || o.enrolFrames > 2000)
        return fail("--enrol-frames: expected 50 to 2000");
    if (o.probeFrames < 1 || o.probeFrames > 2000)
        return fail("--probe-frames: expected 1 to 2000");
    if (o.threshold < 0 || o.threshold > 1000) return fail("--threshold: expected 0 to 1000");
    if (o.dimension < 1 || o.dimension > 256) return fail("--dimension: expected 1 to 256");
    for (int d : o.sweep)
        if (d < 1 || d > 256)
            return fail("--sweep " + std::to_string(d) + ": expected dimensions of 1 to 256");
    const auto list = msmface::readManifest(o.manifest);
    if (!list.ok()) return fail(list.message());
    std::string error;
    int skipped = 0;
    std::vector<EvalPerson> persons = splitByVideo(list.value(), skipped);
    if (persons.size() < 2)
        return fail(o.manifest + ": expected at least two persons with two or more videos each");
    const std::string dictionary = o.out + "/dictionary";
    const std::string csvPath = o.out + "/scores.csv";
    const std::string jsonPath = o.out + "/summary.json";
    const std::string pagePath = o.out + "/report.html";
    InputFiles inputs;
    inputs.add(o.manifest);
    for (const std::string& output : {csvPath, jsonPath, pagePath}) {
        error = inputs.refuseOverwrite("--out", output);
        if (!error.empty()) return fail(error);
    }
    error = prepareRunDictionary(o.out, "eval");
    if (!error.empty()) return fail(error);
    auto opened = msmface::Gallery::open(dictionary);
    if (!opened.ok()) return fail(opened.message());
    msmface::Gallery& g = opened.value();

    EvalSummary summary;
    summary.version = msmface_versionString();
    summary.settings = {o.manifest,    o.jitter,    o.enrolFrames,
                        o.probeFrames, o.dimension, o.threshold};
    summary.personsWithVideos = static_cast<int>(persons.size());
    summary.leftOut = skipped;
    ReportFaces faces;

    std::printf(
        "%zu persons with two or more videos (%d with one video left out); enrolling from "
        "all but the last video, probing with the last\n",
        persons.size(), skipped);
    // With --detect the manifest gives only the pictures; each is a still of its own.
    std::unique_ptr<FaceFinder> finder;
    if (o.detect) {
        error = makeFaceFinder("", false, "--detect", finder);
        if (!error.empty()) return fail(error);
    }
    int framesRead = 0, framesFound = 0;
    // The probes' frames, kept for the pictures their samples view.
    std::vector<std::vector<Frame>> probePictures(persons.size());
    std::vector<std::vector<msmface::Sample>> probeSamples(persons.size());
    std::vector<int> enrolledIndex(persons.size(), -1);  // index in the gallery, or -1
    {
        Progress bar("enrolling", static_cast<int>(persons.size()));
        for (std::size_t i = 0; i < persons.size(); ++i) {
            const EvalPerson& p = persons[i];
            std::vector<Frame> enrol, probe;
            error = loadFrames(o.manifest, p.enrolRows, enrol);
            if (error.empty()) error = loadFrames(o.manifest, p.probeRows, probe);
            if (!error.empty()) return fail(error);
            if (finder) {
                framesRead += static_cast<int>(enrol.size() + probe.size());
                framesFound += replaceWithFoundPoints(*finder, enrol);
                framesFound += replaceWithFoundPoints(*finder, probe);
            }
            const auto seed = static_cast<uint32_t>(1000 + i);
            const auto offered =
                msmface::offerFrames(samplesOf(enrol), o.enrolFrames, o.jitter, seed);
            if (!offered.ok()) return fail(offered.message());
            const msmface::Status enrolled = g.enrol(
                static_cast<int>(i) + 1, keyNameOf(p.identity, static_cast<int>(i)), *offered);
            if (!enrolled.ok()) {
                std::fprintf(stderr, "\nmsmface: warning: %s not enrolled: %s\n",
                             p.identity.c_str(), enrolled.message().c_str());
            } else {
                enrolledIndex[i] = static_cast<int>(g.persons().size()) - 1;
                summary.enrolled.push_back(p.identity);
                faces.enrolled.push_back(pngOf(firstNormalisedFace(enrol)));
                faces.probe.push_back(pngOf(firstNormalisedFace(probe)));
            }
            auto probed =
                msmface::offerFrames(samplesOf(probe), o.probeFrames, o.jitter, seed + 7777u);
            if (!probed.ok()) return fail(probed.message());
            probeSamples[i] = std::move(probed.value());
            probePictures[i] = std::move(probe);
            bar.step(static_cast<int>(i) + 1);
        }
    }
    if (finder)
        std::printf("the detector found a face in %d of %d frames\n", framesFound, framesRead);
    summary.stages.push_back(
        {o.detect ? "reading frames, finding faces and enrolling" : "reading frames and enrolling",
         watch.lap()});
    const msmface::Status built = g.rebuildConstraint(o.dimension);
    if (!built.ok()) return fail(built.message());
    summary.stages.push_back({"constraint space", watch.lap()});
    const std::vector<msmface::Person> enrolledPersons = g.persons();

    // Streamed into a temporary beside the target (all persons' scores by three methods can be
    // large) and renamed over it only when complete.
    msm::clearWriteFailure();
    msm::AtomicFile csv(csvPath.c_str());
    if (csv.stream() == nullptr) return fail(msm::lastWriteFailure());
    std::fprintf(csv.stream(), "method,probe,candidate,score,genuine\n");
    // Every enrolled person's probe by one method: its scores, and the scores file's rows when
    // csv is given.
    auto probeAll = [&](msmface::Method method, const std::string& stage, std::FILE* rows) {
        std::vector<ProbeScores> all;
        Progress bar(stage, static_cast<int>(persons.size()));
        for (std::size_t i = 0; i < persons.size(); ++i) {
            bar.step(static_cast<int>(i) + 1);
            const int truth = enrolledIndex[i];
            if (truth < 0) continue;
            const std::vector<int> scores =
                scoresOf(g.recognise(probeSamples[i], {method, o.threshold}), enrolledPersons);
            all.push_back(ProbeScores{truth, scores});
            if (rows == nullptr) continue;
            for (std::size_t c = 0; c < scores.size(); ++c)
                std::fprintf(rows, "%d,%s,%s,%d,%d\n", static_cast<int>(method),
                             persons[i].identity.c_str(), enrolledPersons[c].name.c_str(),
                             scores[c], static_cast<int>(c) == truth ? 1 : 0);
        }
        return all;
    };
    const std::pair<msmface::Method, const char*> methods[] = {
        {msmface::Method::SinglePattern, "SINGLE PATTERN"},
        {msmface::Method::Msm, "MSM"},
        {msmface::Method::Cmsm, "CMSM"}};
    for (const auto& [method, name] : methods) {
        MethodResult m;
        m.method = static_cast<int>(method);
        m.name = name;
        m.scores = probeAll(method, std::string("probing ") + name, csv.stream());
        m.figures = computeFigures(m.scores, o.threshold);
        summary.methods.push_back(std::move(m));
        summary.stages.push_back({std::string("probing by ") + name, watch.lap()});
    }
    if (!csv.Commit()) return fail(msm::lastWriteFailure());

    if (!o.noSweep) {
        for (int d :
             sweepDimensions(o.sweep, static_cast<int>(summary.enrolled.size()), o.dimension)) {
            Figures f;
            if (d == o.dimension) {
                f = summary.methods.back().figures;
            } else {
                const msmface::Status rebuilt = g.rebuildConstraint(d);
                if (!rebuilt.ok()) {
                    // One dimension the space cannot take does not spoil the others.
                    std::fprintf(stderr, "\nmsmface: warning: sweep left out %d: %s\n", d,
                                 rebuilt.message().c_str());
                    continue;
                }
                f = computeFigures(
                    probeAll(msmface::Method::Cmsm, "CMSM at " + std::to_string(d), nullptr),
                    o.threshold);
            }
            summary.sweep.push_back({d, f.rank1, f.eer, f.eerThreshold});
        }
        summary.bestDimension = bestSweepDimension(summary.sweep);
        // The dictionary is left with the space this run was asked for.
        const msmface::Status rebuilt = g.rebuildConstraint(o.dimension);
        if (!rebuilt.ok()) return fail(rebuilt.message());
        summary.stages.push_back({"CMSM dimension sweep", watch.lap()});
    }

    const std::string page = reportPage(summary, faces);
    error = writeOutputFile(jsonPath, summaryJson(summary));
    if (error.empty()) error = writeOutputFile(pagePath, page);
    if (error.empty()) error = recordRunDictionary(o.out, "eval");
    if (!error.empty()) return fail(error);

    std::fputs(summaryTable(summary).c_str(), stdout);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("scores: %s; summary: %s; report: %s (%zu kB); %.1f s\n", csvPath.c_str(),
                jsonPath.c_str(), pagePath.c_str(), (page.size() + 512) / 1024, seconds);
    return 0;
}

}  // namespace msmcli
