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

// One line naming the flag and the values it takes, or empty.
std::string checkEvalOptions(const EvalOptions& o) {
    if (!(o.jitter >= 0 && o.jitter <= 20)) return "--jitter: expected 0 to 20 pixels";
    if (o.enrolFrames < 50 || o.enrolFrames > 2000) return "--enrol-frames: expected 50 to 2000";
    if (o.probeFrames < 1 || o.probeFrames > 2000) return "--probe-frames: expected 1 to 2000";
    if (o.threshold < 0 || o.threshold > 1000) return "--threshold: expected 0 to 1000";
    if (o.dimension < 1 || o.dimension > 256) return "--dimension: expected 1 to 256";
    for (int d : o.sweep)
        if (d < 1 || d > 256)
            return "--sweep " + std::to_string(d) + ": expected dimensions of 1 to 256";
    return {};
}

struct EvalPaths {
    std::string dictionary;
    std::string csv;
    std::string json;
    std::string page;
};

EvalPaths evalPathsIn(const std::string& out) {
    return {out + "/dictionary", out + "/scores.csv", out + "/summary.json", out + "/report.html"};
}

// Checked before any work: no output may replace the manifest, and the dictionary folder holds
// nothing but an earlier run's files.
std::string prepareEvalOutputs(const EvalOptions& o, const EvalPaths& paths) {
    InputFiles inputs;
    inputs.add(o.manifest);
    for (const std::string& output : {paths.csv, paths.json, paths.page}) {
        const std::string error = inputs.refuseOverwrite("--out", output);
        if (!error.empty()) return error;
    }
    return prepareRunDictionary(o.out, "eval");
}

// One evaluation over an opened gallery, step by step; each step returns an empty string or the
// one line that ends the run.
class EvalRun {
  public:
    EvalRun(const EvalOptions& o, const EvalPaths& paths, std::vector<EvalPerson> persons,
            int leftOut, msmface::Gallery& g, const Stopwatch& watch)
        : o_(o),
          paths_(paths),
          persons_(std::move(persons)),
          g_(g),
          watch_(watch),
          probePictures_(persons_.size()),
          probeSamples_(persons_.size()),
          enrolledIndex_(persons_.size(), -1) {
        summary_.version = msmface_versionString();
        summary_.settings = {o.manifest,    o.jitter,    o.enrolFrames,
                             o.probeFrames, o.dimension, o.threshold};
        summary_.personsWithVideos = static_cast<int>(persons_.size());
        summary_.leftOut = leftOut;
    }

    std::string enrolAll();
    std::string buildConstraint();
    std::string probeByEveryMethod();
    std::string sweepConstraintDimensions();
    // summary.json, report.html and the run's record; pageBytes is the report's size.
    std::string writeReport(std::size_t& pageBytes);

    const EvalSummary& summary() const { return summary_; }

  private:
    std::string enrolPerson(std::size_t i, FaceFinder* finder, int& framesRead, int& framesFound);
    std::vector<ProbeScores> probeAll(msmface::Method method, const std::string& stage,
                                      std::FILE* rows);
    bool cmsmFiguresAt(int dimension, Figures& f);

    const EvalOptions& o_;
    const EvalPaths& paths_;
    const std::vector<EvalPerson> persons_;
    msmface::Gallery& g_;
    Stopwatch watch_;
    EvalSummary summary_;
    ReportFaces faces_;
    // The probes' frames, kept for the pictures their offered samples view.
    std::vector<std::vector<Frame>> probePictures_;
    std::vector<std::vector<msmface::Sample>> probeSamples_;
    std::vector<int> enrolledIndex_;  // index in the gallery, or -1
    std::vector<msmface::Person> enrolledPersons_;
};

std::string EvalRun::enrolAll() {
    std::printf(
        "%zu persons with two or more videos (%d with one video left out); enrolling from "
        "all but the last video, probing with the last\n",
        persons_.size(), summary_.leftOut);
    // With --detect the manifest gives only the pictures; each is a still of its own.
    std::unique_ptr<FaceFinder> finder;
    if (o_.detect) {
        const std::string error = makeFaceFinder("", false, "--detect", finder);
        if (!error.empty()) return error;
    }
    int framesRead = 0, framesFound = 0;
    {
        Progress bar("enrolling", static_cast<int>(persons_.size()));
        for (std::size_t i = 0; i < persons_.size(); ++i) {
            const std::string error = enrolPerson(i, finder.get(), framesRead, framesFound);
            if (!error.empty()) return error;
            bar.step(static_cast<int>(i) + 1);
        }
    }
    if (finder)
        std::printf("the detector found a face in %d of %d frames\n", framesFound, framesRead);
    summary_.stages.push_back(
        {o_.detect ? "reading frames, finding faces and enrolling" : "reading frames and enrolling",
         watch_.lap()});
    return {};
}

// Enrols the i-th person from the jittered enrolment frames and keeps the person's jittered probe
// frames. A person the gallery refuses is a warning: the others are still evaluated.
std::string EvalRun::enrolPerson(std::size_t i, FaceFinder* finder, int& framesRead,
                                 int& framesFound) {
    const EvalPerson& p = persons_[i];
    std::vector<Frame> enrol, probe;
    std::string error = loadFrames(o_.manifest, p.enrolRows, enrol);
    if (error.empty()) error = loadFrames(o_.manifest, p.probeRows, probe);
    if (!error.empty()) return error;
    if (finder) {
        framesRead += static_cast<int>(enrol.size() + probe.size());
        framesFound += replaceWithFoundPoints(*finder, enrol);
        framesFound += replaceWithFoundPoints(*finder, probe);
    }
    const auto seed = static_cast<uint32_t>(1000 + i);
    const auto offered = msmface::offerFrames(samplesOf(enrol), o_.enrolFrames, o_.jitter, seed);
    if (!offered.ok()) return offered.message();
    const msmface::Status enrolled =
        g_.enrol(static_cast<int>(i) + 1, keyNameOf(p.identity, static_cast<int>(i)), *offered);
    if (!enrolled.ok()) {
        std::fprintf(stderr, "\nmsmface: warning: %s not enrolled: %s\n", p.identity.c_str(),
                     enrolled.message().c_str());
    } else {
        enrolledIndex_[i] = static_cast<int>(g_.persons().size()) - 1;
        summary_.enrolled.push_back(p.identity);
        faces_.enrolled.push_back(pngOf(firstNormalisedFace(enrol)));
        faces_.probe.push_back(pngOf(firstNormalisedFace(probe)));
    }
    auto probed = msmface::offerFrames(samplesOf(probe), o_.probeFrames, o_.jitter, seed + 7777u);
    if (!probed.ok()) return probed.message();
    probeSamples_[i] = std::move(probed.value());
    probePictures_[i] = std::move(probe);
    return {};
}

std::string EvalRun::buildConstraint() {
    const msmface::Status built = g_.rebuildConstraint(o_.dimension);
    if (!built.ok()) return built.message();
    summary_.stages.push_back({"constraint space", watch_.lap()});
    enrolledPersons_ = g_.persons();
    return {};
}

// Every enrolled person's probe by one method: its scores, and the scores file's rows when rows is
// given.
std::vector<ProbeScores> EvalRun::probeAll(msmface::Method method, const std::string& stage,
                                           std::FILE* rows) {
    std::vector<ProbeScores> all;
    Progress bar(stage, static_cast<int>(persons_.size()));
    for (std::size_t i = 0; i < persons_.size(); ++i) {
        bar.step(static_cast<int>(i) + 1);
        const int truth = enrolledIndex_[i];
        if (truth < 0) continue;
        const std::vector<int> scores =
            scoresOf(g_.recognise(probeSamples_[i], {method, o_.threshold}), enrolledPersons_);
        all.push_back(ProbeScores{truth, scores});
        if (rows == nullptr) continue;
        for (std::size_t c = 0; c < scores.size(); ++c)
            std::fprintf(rows, "%d,%s,%s,%d,%d\n", static_cast<int>(method),
                         persons_[i].identity.c_str(), enrolledPersons_[c].name.c_str(), scores[c],
                         static_cast<int>(c) == truth ? 1 : 0);
    }
    return all;
}

std::string EvalRun::probeByEveryMethod() {
    // Streamed into a temporary beside the target (all persons' scores by three methods can be
    // large) and renamed over it only when complete.
    msm::clearWriteFailure();
    msm::AtomicFile csv(paths_.csv.c_str());
    if (csv.stream() == nullptr) return msm::lastWriteFailure();
    std::fprintf(csv.stream(), "method,probe,candidate,score,genuine\n");
    const std::pair<msmface::Method, const char*> methods[] = {
        {msmface::Method::SinglePattern, "SINGLE PATTERN"},
        {msmface::Method::Msm, "MSM"},
        {msmface::Method::Cmsm, "CMSM"}};
    for (const auto& [method, name] : methods) {
        MethodResult m;
        m.method = static_cast<int>(method);
        m.name = name;
        m.scores = probeAll(method, std::string("probing ") + name, csv.stream());
        m.figures = computeFigures(m.scores, o_.threshold);
        summary_.methods.push_back(std::move(m));
        summary_.stages.push_back({std::string("probing by ") + name, watch_.lap()});
    }
    if (!csv.Commit()) return msm::lastWriteFailure();
    return {};
}

// CMSM's figures with a constraint space of the given dimension; false (said as a warning) when
// the space cannot take it.
bool EvalRun::cmsmFiguresAt(int dimension, Figures& f) {
    if (dimension == o_.dimension) {
        f = summary_.methods.back().figures;
        return true;
    }
    const msmface::Status rebuilt = g_.rebuildConstraint(dimension);
    if (!rebuilt.ok()) {
        // One dimension the space cannot take does not spoil the others.
        std::fprintf(stderr, "\nmsmface: warning: sweep left out %d: %s\n", dimension,
                     rebuilt.message().c_str());
        return false;
    }
    f = computeFigures(
        probeAll(msmface::Method::Cmsm, "CMSM at " + std::to_string(dimension), nullptr),
        o_.threshold);
    return true;
}

std::string EvalRun::sweepConstraintDimensions() {
    if (o_.noSweep) return {};
    for (int d :
         sweepDimensions(o_.sweep, static_cast<int>(summary_.enrolled.size()), o_.dimension)) {
        Figures f;
        if (cmsmFiguresAt(d, f)) summary_.sweep.push_back({d, f.rank1, f.eer, f.eerThreshold});
    }
    summary_.bestDimension = bestSweepDimension(summary_.sweep);
    // The dictionary is left with the space this run was asked for.
    const msmface::Status rebuilt = g_.rebuildConstraint(o_.dimension);
    if (!rebuilt.ok()) return rebuilt.message();
    summary_.stages.push_back({"CMSM dimension sweep", watch_.lap()});
    return {};
}

std::string EvalRun::writeReport(std::size_t& pageBytes) {
    const std::string page = reportPage(summary_, faces_);
    pageBytes = page.size();
    std::string error = writeOutputFile(paths_.json, summaryJson(summary_));
    if (error.empty()) error = writeOutputFile(paths_.page, page);
    if (error.empty()) error = recordRunDictionary(o_.out, "eval");
    return error;
}

}  // namespace

int runEval(const EvalOptions& o) {
    const auto start = std::chrono::steady_clock::now();
    const Stopwatch watch;
    std::string error = checkEvalOptions(o);
    if (!error.empty()) return fail(error);
    const auto list = msmface::readManifest(o.manifest);
    if (!list.ok()) return fail(list.message());
    int skipped = 0;
    std::vector<EvalPerson> persons = splitByVideo(list.value(), skipped);
    if (persons.size() < 2)
        return fail(o.manifest + ": expected at least two persons with two or more videos each");
    const EvalPaths paths = evalPathsIn(o.out);
    error = prepareEvalOutputs(o, paths);
    if (!error.empty()) return fail(error);
    auto opened = msmface::Gallery::open(paths.dictionary);
    if (!opened.ok()) return fail(opened.message());

    EvalRun run(o, paths, std::move(persons), skipped, opened.value(), watch);
    error = run.enrolAll();
    if (error.empty()) error = run.buildConstraint();
    if (error.empty()) error = run.probeByEveryMethod();
    if (error.empty()) error = run.sweepConstraintDimensions();
    std::size_t pageBytes = 0;
    if (error.empty()) error = run.writeReport(pageBytes);
    if (!error.empty()) return fail(error);

    std::fputs(summaryTable(run.summary()).c_str(), stdout);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("scores: %s; summary: %s; report: %s (%zu kB); %.1f s\n", paths.csv.c_str(),
                paths.json.c_str(), paths.page.c_str(), (pageBytes + 512) / 1024, seconds);
    return 0;
}

}  // namespace msmcli
