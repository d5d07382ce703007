// Evaluation on a manifest of real faces: every person with two or more videos is enrolled from
// all of them but the last and probed with the last, by the single-pattern method, MSM and CMSM,
// and CMSM again over a range of constraint dimensions; for each kind of pattern asked for, in a
// gallery of that kind, and for descriptors also by one mean descriptor per person. The figures
// land in one EvalSummary, which is printed, written as summary.json and drawn as report.html.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <msmface/face_input.h>
#include <msmface/msmface.h>

#include "commands/commands.h"
#include "evaluation/eval_metrics.h"
#include "evaluation/eval_summary.h"
#include "evaluation/key_name.h"
#include "evaluation/progress.h"
#include "evaluation/report_page.h"
#include "input/detected_frames.h"
#include "input/face_finder.h"
#include "input/frame_descriptors.h"
#include "input/frame_source.h"
#include "input/frames.h"
#include "input/image_io.h"
#include "input/program_files.h"
#include "io/atomic_file.h"

#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#endif

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

using msmface::PatternKind;

// The largest constraint dimension of a kind: the length of its pattern, as far as the engine
// takes it.
int maxDimensionOf(PatternKind kind) {
    return kind == PatternKind::Descriptor ? msmface::kDescriptorSize : 256;
}

// The dimensions the CMSM sweep tries: a handful up to the span of the enrolled persons (a space
// has no more meaningful directions than about 30 per person), and the chosen one. Descriptors
// have 128 directions in all; the sweep looks at how many common ones to leave out.
std::vector<int> sweepDimensions(const std::vector<int>& asked, int persons, int chosen,
                                 PatternKind kind) {
    const int span = std::min(maxDimensionOf(kind), 30 * persons);
    std::vector<int> dims;
    if (!asked.empty()) {
        for (int d : asked)
            if (d <= maxDimensionOf(kind)) dims.push_back(d);
    } else {
        const std::vector<int> steps = kind == PatternKind::Descriptor
                                           ? std::vector<int>{16, 32, 64, 96, 112, 120, 128}
                                           : std::vector<int>{10, 25, 50, 100, 150, 200, 256};
        for (int d : steps)
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
    if (o.patterns != "seed" && o.patterns != "descriptor" && o.patterns != "both")
        return "--patterns " + o.patterns + ": expected seed, descriptor or both";
    if (o.descriptorDimension < 1 || o.descriptorDimension > msmface::kDescriptorSize)
        return "--descriptor-dimension: expected 1 to " + std::to_string(msmface::kDescriptorSize);
    if (o.descriptorThreshold < -1 || o.descriptorThreshold > 1000)
        return "--descriptor-threshold: expected 0 to 1000 (or -1: the default of descriptors)";
    for (int d : o.sweep)
        if (d < 1 || d > 256)
            return "--sweep " + std::to_string(d) + ": expected dimensions of 1 to 256";
    return {};
}

// The kinds of pattern of --patterns, in the order they are run and shown.
std::vector<PatternKind> kindsAsked(const EvalOptions& o) {
    if (o.patterns == "both") return {PatternKind::Seed, PatternKind::Descriptor};
    if (o.patterns == "descriptor") return {PatternKind::Descriptor};
    return {PatternKind::Seed};
}

// Where a kind's gallery and scores go: Seed patterns where they always went, descriptors in a
// folder of their own beside them.
struct KindPaths {
    std::string out;  // the folder whose dictionary/ holds the gallery
    std::string dictionary;
    std::string csv;
};

KindPaths kindPathsIn(const std::string& out, PatternKind kind) {
    if (kind == PatternKind::Seed) return {out, out + "/dictionary", out + "/scores.csv"};
    const std::string own = out + "/" + msmface::patternKindName(kind);
    return {own, own + "/dictionary", out + "/scores-" + msmface::patternKindName(kind) + ".csv"};
}

struct EvalPaths {
    std::string json;
    std::string page;
};

EvalPaths evalPathsIn(const std::string& out) {
    return {out + "/summary.json", out + "/report.html"};
}

// Checked before any work: no output may replace the manifest, and the dictionary folders hold
// nothing but an earlier run's files.
std::string prepareEvalOutputs(const EvalOptions& o, const EvalPaths& paths) {
    InputFiles inputs;
    inputs.add(o.manifest);
    std::vector<std::string> outputs = {paths.json, paths.page};
    for (PatternKind kind : kindsAsked(o)) outputs.push_back(kindPathsIn(o.out, kind).csv);
    for (const std::string& output : outputs) {
        const std::string error = inputs.refuseOverwrite("--out", output);
        if (!error.empty()) return error;
    }
    for (PatternKind kind : kindsAsked(o)) {
        const std::string error = prepareRunDictionary(kindPathsIn(o.out, kind).out, "eval");
        if (!error.empty()) return error;
    }
    return {};
}

// One kind of pattern's gallery in the run, with what it was asked to run with.
struct KindGallery {
    PatternKind kind = PatternKind::Seed;
    KindPaths paths;
    msmface::Gallery gallery;
    int dimension = 0;
    int threshold = 0;
    // The persons as of the constraint space: every score vector's order.
    std::vector<msmface::Person> persons;
    // Each evaluated person's probe samples (descriptors' samples view nothing).
    std::vector<std::vector<msmface::Sample>> probes;
};

// The descriptors of eval's frames (grey stills). With --detect one search finds a frame's face,
// its points for Seed patterns and its descriptor; with the manifest's points, the landmark model
// is fitted in the box they imply (msmface::boxFromPoints), where the detector would have put it.
class EvalDescriber {
  public:
    virtual ~EvalDescriber() = default;
    // True when the frame shows a face: points are the ones found, and descriptor holds the
    // face's descriptor, or nothing when it is too small or too near the border to describe.
    virtual bool detect(const GreyImage& image, std::array<double, 28>& points,
                        std::optional<msmface::FaceDescriptor>& descriptor) = 0;
    // The descriptor of the face the frame's points place, or nothing.
    virtual std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) = 0;
};

#ifdef MSMFACE_HAVE_DESCRIPTOR
msmface::FrameView greyView(const GreyImage& image) {
    return {image.pixels.data(), image.width, image.height, 0, msmface::PixelFormat::Grey};
}

class LibraryDescriber : public EvalDescriber {
  public:
    LibraryDescriber(msmface::Detector detector, msmface::Descriptor descriptor)
        : detector_(std::move(detector)),
          // Stills: every frame searched afresh, as eval's face finder searches them.
          describer_(detector_, std::move(descriptor), msmface::FollowerOptions{1}) {}

    bool detect(const GreyImage& image, std::array<double, 28>& points,
                std::optional<msmface::FaceDescriptor>& descriptor) override {
        msmface::DetectedFace face;
        if (!describer_.describe(greyView(image), face, descriptor)) return false;
        for (int k = 0; k < 28; ++k) points[k] = face.points.xy[k];
        return true;
    }

    std::optional<msmface::FaceDescriptor> describeAt(
        const GreyImage& image, const std::array<double, 28>& points) override {
        return describeByPoints(detector_, describer_.descriptor(), image, points);
    }

  private:
    msmface::Detector detector_;
    msmface::FaceDescriber describer_;
};

std::string makeEvalDescriber(std::unique_ptr<EvalDescriber>& out) {
    auto detector = msmface::Detector::create();
    if (!detector) return detector.message();
    auto descriptor = msmface::Descriptor::load();
    if (!descriptor) return descriptor.message();
    out = std::make_unique<LibraryDescriber>(std::move(detector).value(),
                                             std::move(descriptor).value());
    return {};
}
#else
std::string makeEvalDescriber(std::unique_ptr<EvalDescriber>&) {
    return "--patterns: face descriptors are not available in this build (built without the "
           "detector's descriptor, which needs libdlib-dev and libopencv-dnn-dev)";
}
#endif

// Samples given by their descriptors alone, for a gallery of descriptors.
std::vector<msmface::Sample> descriptorSamples(
    const std::vector<msmface::FaceDescriptor>& descriptors) {
    std::vector<msmface::Sample> samples(descriptors.size());
    for (std::size_t i = 0; i < descriptors.size(); ++i) samples[i].descriptor = descriptors[i];
    return samples;
}

// What finds faces, points and descriptors in the frames; each null when not needed.
struct Finders {
    std::unique_ptr<FaceFinder> points;
    std::unique_ptr<EvalDescriber> descriptors;
};

// The models the run needs, loaded before anything is written: a missing one leaves the output
// folder as it was.
std::string makeFinders(const EvalOptions& o, Finders& out) {
    const std::vector<PatternKind> kinds = kindsAsked(o);
    // One search per frame serves both kinds: the face's points and its descriptor.
    if (std::find(kinds.begin(), kinds.end(), PatternKind::Descriptor) != kinds.end())
        return makeEvalDescriber(out.descriptors);
    // With --detect the manifest gives only the pictures; each is a still of its own.
    if (o.detect) return makeFaceFinder("", false, "--detect", out.points);
    return {};
}

// One evaluation over the opened galleries (one per kind of pattern), step by step; each step
// returns an empty string or the one line that ends the run.
class EvalRun {
  public:
    EvalRun(const EvalOptions& o, const EvalPaths& paths, std::vector<EvalPerson> persons,
            int leftOut, std::vector<KindGallery> kinds, Finders finders, const Stopwatch& watch)
        : o_(o),
          paths_(paths),
          persons_(std::move(persons)),
          kinds_(std::move(kinds)),
          finders_(std::move(finders)),
          watch_(watch),
          probePictures_(persons_.size()),
          enrolDescriptors_(persons_.size()),
          probeDescriptors_(persons_.size()),
          enrolledIndex_(persons_.size(), -1) {
        summary_.version = msmface_versionString();
        summary_.settings = {
            o.manifest,          o.jitter, o.enrolFrames, o.probeFrames, kinds_[0].dimension,
            kinds_[0].threshold, o.detect};
        summary_.personsWithVideos = static_cast<int>(persons_.size());
        summary_.leftOut = leftOut;
        for (KindGallery& k : kinds_) {
            k.probes.resize(persons_.size());
            describes_ = describes_ || k.kind == PatternKind::Descriptor;
            KindPart part;
            part.kind = k.kind;
            part.dimension = k.dimension;
            part.threshold = k.threshold;
            summary_.kinds.push_back(part);
        }
    }

    std::string enrolAll();
    std::string buildConstraint();
    std::string probeByEveryMethod();
    std::string sweepConstraintDimensions();
    // summary.json, report.html and the run's record; pageBytes is the report's size.
    std::string writeReport(std::size_t& pageBytes);

    const EvalSummary& summary() const { return summary_; }

  private:
    struct FrameCounts {
        int read = 0, found = 0, described = 0;
    };
    std::string enrolPerson(std::size_t i, FrameCounts& counts);
    void findFaces(std::vector<Frame>& frames, std::vector<msmface::FaceDescriptor>& descriptors,
                   FrameCounts& counts) const;
    std::vector<msmface::Sample> offered(const KindGallery& k, const std::vector<Frame>& frames,
                                         std::size_t i, bool probe) const;
    std::vector<ProbeScores> probeAll(KindGallery& k, msmface::Method method,
                                      const std::string& stage, std::FILE* rows);
    std::vector<ProbeScores> probeByMeanDescriptor(std::FILE* rows);
    bool cmsmFiguresAt(KindGallery& k, int dimension, const Figures& chosen, Figures& f);
    std::string stageName(const KindGallery& k, const std::string& stage) const;

    const EvalOptions& o_;
    const EvalPaths& paths_;
    const std::vector<EvalPerson> persons_;
    std::vector<KindGallery> kinds_;
    Finders finders_;
    Stopwatch watch_;
    EvalSummary summary_;
    ReportFaces faces_;
    bool describes_ = false;
    // The probes' frames, kept for the pictures their offered samples view.
    std::vector<std::vector<Frame>> probePictures_;
    // Every frame's descriptor, computed once: the galleries of descriptors and the mean
    // comparison read them all run long.
    std::vector<std::vector<msmface::FaceDescriptor>> enrolDescriptors_;
    std::vector<std::vector<msmface::FaceDescriptor>> probeDescriptors_;
    std::vector<int> enrolledIndex_;  // index in every gallery, or -1
};

std::string EvalRun::stageName(const KindGallery& k, const std::string& stage) const {
    return namesKinds(summary_) ? std::string(msmface::patternKindName(k.kind)) + ": " + stage
                                : stage;
}

std::string EvalRun::enrolAll() {
    std::printf(
        "%zu persons with two or more videos (%d with one video left out); enrolling from "
        "all but the last video, probing with the last\n",
        persons_.size(), summary_.leftOut);
    FrameCounts counts;
    {
        Progress bar("enrolling", static_cast<int>(persons_.size()));
        for (std::size_t i = 0; i < persons_.size(); ++i) {
            const std::string error = enrolPerson(i, counts);
            if (!error.empty()) return error;
            bar.step(static_cast<int>(i) + 1);
        }
    }
    if (o_.detect)
        std::printf("the detector found a face in %d of %d frames\n", counts.found, counts.read);
    if (describes_)
        std::printf("a descriptor for %d of %d frames\n", counts.described, counts.read);
    summary_.stages.push_back({describes_ ? (o_.detect ? "reading frames, finding and "
                                                         "describing faces and enrolling"
                                                       : "reading frames, describing faces "
                                                         "and enrolling")
                                          : (o_.detect ? "reading frames, finding faces and "
                                                         "enrolling"
                                                       : "reading frames and enrolling"),
                               watch_.lap()});
    return {};
}

// The faces of frames: with --detect their points replaced by those found (frames without a
// face dropped); with descriptors, the descriptor of each face that can be described.
void EvalRun::findFaces(std::vector<Frame>& frames,
                        std::vector<msmface::FaceDescriptor>& descriptors,
                        FrameCounts& counts) const {
    counts.read += static_cast<int>(frames.size());
    if (!finders_.descriptors) {
        if (finders_.points) counts.found += replaceWithFoundPoints(*finders_.points, frames);
        return;
    }
    std::vector<Frame> kept;
    for (Frame& frame : frames) {
        if (!frame.image) continue;
        std::optional<msmface::FaceDescriptor> described;
        if (o_.detect) {
            if (!finders_.descriptors->detect(*frame.image, frame.points, described)) continue;
            ++counts.found;
        } else {
            described = finders_.descriptors->describeAt(*frame.image, frame.points);
        }
        if (described) descriptors.push_back(*described);
        kept.push_back(std::move(frame));
    }
    counts.described += static_cast<int>(descriptors.size());
    frames = std::move(kept);
}

// What kind k's gallery is offered of the i-th person's enrolment or probe: the jittered frames,
// or the frames' descriptors, repeated alike; nothing when there is no face to offer.
std::vector<msmface::Sample> EvalRun::offered(const KindGallery& k,
                                              const std::vector<Frame>& frames, std::size_t i,
                                              bool probe) const {
    const std::vector<msmface::Sample> samples =
        k.kind == PatternKind::Seed
            ? samplesOf(frames)
            : descriptorSamples(probe ? probeDescriptors_[i] : enrolDescriptors_[i]);
    if (samples.empty()) return {};
    const auto seed = static_cast<uint32_t>(1000 + i);
    auto offer = probe ? msmface::offerFrames(samples, o_.probeFrames, o_.jitter, seed + 7777u)
                       : msmface::offerFrames(samples, o_.enrolFrames, o_.jitter, seed);
    return offer.ok() ? std::move(offer).value() : std::vector<msmface::Sample>{};
}

// Enrols the i-th person in every kind's gallery and keeps the person's probe. A person a gallery
// refuses is a warning and is enrolled in none (every kind is measured on the same persons): the
// others are still evaluated.
std::string EvalRun::enrolPerson(std::size_t i, FrameCounts& counts) {
    const EvalPerson& p = persons_[i];
    std::vector<Frame> enrol, probe;
    std::string error = loadFrames(o_.manifest, p.enrolRows, enrol);
    if (error.empty()) error = loadFrames(o_.manifest, p.probeRows, probe);
    if (!error.empty()) return error;
    findFaces(enrol, enrolDescriptors_[i], counts);
    findFaces(probe, probeDescriptors_[i], counts);
    const int id = static_cast<int>(i) + 1;
    std::size_t enrolled = 0;
    for (; enrolled < kinds_.size(); ++enrolled) {
        KindGallery& k = kinds_[enrolled];
        const msmface::Status done = k.gallery.enrol(id, keyNameOf(p.identity, static_cast<int>(i)),
                                                     offered(k, enrol, i, false));
        if (!done.ok()) {
            std::fprintf(stderr, "\nmsmface: warning: %s not enrolled%s: %s\n", p.identity.c_str(),
                         namesKinds(summary_)
                             ? (std::string(" (") + msmface::patternKindName(k.kind) + ")").c_str()
                             : "",
                         done.message().c_str());
            break;
        }
    }
    if (enrolled == kinds_.size()) {
        enrolledIndex_[i] = static_cast<int>(kinds_[0].gallery.persons().size()) - 1;
        summary_.enrolled.push_back(p.identity);
        faces_.enrolled.push_back(pngOf(firstNormalisedFace(enrol)));
        faces_.probe.push_back(pngOf(firstNormalisedFace(probe)));
    } else {
        for (std::size_t k = 0; k < enrolled; ++k) {
            const msmface::Status removed = kinds_[k].gallery.remove(id);
            if (!removed.ok()) return removed.message();
        }
    }
    probePictures_[i] = std::move(probe);
    // Probes are offered whatever the person's enrolment did, as they always were.
    for (KindGallery& k : kinds_) k.probes[i] = offered(k, probePictures_[i], i, true);
    return {};
}

std::string EvalRun::buildConstraint() {
    for (KindGallery& k : kinds_) {
        const msmface::Status built = k.gallery.rebuildConstraint(k.dimension);
        // The library names the dimension by its parameter; the descriptors' is their own flag.
        if (!built.ok() && k.kind != PatternKind::Seed &&
            built.message().rfind("dimension ", 0) == 0)
            return "--descriptor-" + built.message();
        if (!built.ok()) return built.message();
        k.persons = k.gallery.persons();
    }
    summary_.stages.push_back({"constraint space", watch_.lap()});
    return {};
}

// Every enrolled person's probe by one method of kind k: its scores, and the scores file's rows
// when rows is given.
std::vector<ProbeScores> EvalRun::probeAll(KindGallery& k, msmface::Method method,
                                           const std::string& stage, std::FILE* rows) {
    std::vector<ProbeScores> all;
    Progress bar(stage, static_cast<int>(persons_.size()));
    for (std::size_t i = 0; i < persons_.size(); ++i) {
        bar.step(static_cast<int>(i) + 1);
        const int truth = enrolledIndex_[i];
        if (truth < 0) continue;
        const std::vector<int> scores =
            scoresOf(k.gallery.recognise(k.probes[i], {method, k.threshold}), k.persons);
        all.push_back(ProbeScores{truth, scores});
        if (rows == nullptr) continue;
        for (std::size_t c = 0; c < scores.size(); ++c)
            std::fprintf(rows, "%d,%s,%s,%d,%d\n", static_cast<int>(method),
                         persons_[i].identity.c_str(), k.persons[c].name.c_str(), scores[c],
                         static_cast<int>(c) == truth ? 1 : 0);
    }
    return all;
}

// Every enrolled person's probe by the mean-descriptor comparison, in the order of the gallery of
// descriptors. A probe without any descriptor scores -1 (not computed) against everyone.
std::vector<ProbeScores> EvalRun::probeByMeanDescriptor(std::FILE* rows) {
    std::vector<std::optional<msmface::FaceDescriptor>> means;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < persons_.size(); ++i) {
        if (enrolledIndex_[i] < 0) continue;
        means.push_back(meanDirection(enrolDescriptors_[i]));
        names.push_back(keyNameOf(persons_[i].identity, static_cast<int>(i)));
    }
    std::vector<ProbeScores> all;
    for (std::size_t i = 0; i < persons_.size(); ++i) {
        const int truth = enrolledIndex_[i];
        if (truth < 0) continue;
        const auto probe = meanDirection(probeDescriptors_[i]);
        std::vector<int> scores(means.size(), -1);
        for (std::size_t c = 0; c < means.size(); ++c)
            if (probe && means[c]) scores[c] = meanDescriptorScore(*probe, *means[c]);
        all.push_back(ProbeScores{truth, scores});
        if (rows == nullptr) continue;
        for (std::size_t c = 0; c < scores.size(); ++c)
            std::fprintf(rows, "%d,%s,%s,%d,%d\n", kMeanDescriptorMethod,
                         persons_[i].identity.c_str(), names[c].c_str(), scores[c],
                         static_cast<int>(c) == truth ? 1 : 0);
    }
    return all;
}

std::string EvalRun::probeByEveryMethod() {
    const std::pair<msmface::Method, const char*> methods[] = {
        {msmface::Method::SinglePattern, "SINGLE PATTERN"},
        {msmface::Method::Msm, "MSM"},
        {msmface::Method::Cmsm, "CMSM"}};
    for (KindGallery& k : kinds_) {
        // Streamed into a temporary beside the target (all persons' scores by three methods can
        // be large) and renamed over it only when complete.
        msm::clearWriteFailure();
        msm::AtomicFile csv(k.paths.csv.c_str());
        if (csv.stream() == nullptr) return msm::lastWriteFailure();
        std::fprintf(csv.stream(), "method,probe,candidate,score,genuine\n");
        for (const auto& [method, name] : methods) {
            MethodResult m;
            m.method = static_cast<int>(method);
            m.name = name;
            m.kind = k.kind;
            m.scores =
                probeAll(k, method, stageName(k, std::string("probing ") + name), csv.stream());
            m.figures = computeFigures(m.scores, k.threshold);
            summary_.methods.push_back(std::move(m));
            summary_.stages.push_back(
                {stageName(k, std::string("probing by ") + name), watch_.lap()});
        }
        if (k.kind == PatternKind::Descriptor) {
            MethodResult m;
            m.method = kMeanDescriptorMethod;
            m.name = "MEAN DESCRIPTOR";
            m.kind = k.kind;
            m.scores = probeByMeanDescriptor(csv.stream());
            m.figures = computeFigures(m.scores, k.threshold);
            summary_.methods.push_back(std::move(m));
            summary_.stages.push_back({stageName(k, "probing by mean descriptor"), watch_.lap()});
        }
        if (!csv.Commit()) return msm::lastWriteFailure();
    }
    return {};
}

// CMSM's figures with a constraint space of the given dimension; false (said as a warning) when
// the space cannot take it.
bool EvalRun::cmsmFiguresAt(KindGallery& k, int dimension, const Figures& chosen, Figures& f) {
    if (dimension == k.dimension) {
        f = chosen;
        return true;
    }
    const msmface::Status rebuilt = k.gallery.rebuildConstraint(dimension);
    if (!rebuilt.ok()) {
        // One dimension the space cannot take does not spoil the others.
        std::fprintf(stderr, "\nmsmface: warning: sweep left out %d: %s\n", dimension,
                     rebuilt.message().c_str());
        return false;
    }
    f = computeFigures(probeAll(k, msmface::Method::Cmsm,
                                stageName(k, "CMSM at " + std::to_string(dimension)), nullptr),
                       k.threshold);
    return true;
}

std::string EvalRun::sweepConstraintDimensions() {
    if (o_.noSweep) return {};
    for (std::size_t n = 0; n < kinds_.size(); ++n) {
        KindGallery& k = kinds_[n];
        KindPart& part = summary_.kinds[n];
        const Figures* chosen = nullptr;
        for (const MethodResult& m : summary_.methods)
            if (m.kind == k.kind && m.method == static_cast<int>(msmface::Method::Cmsm))
                chosen = &m.figures;
        for (int d : sweepDimensions(o_.sweep, static_cast<int>(summary_.enrolled.size()),
                                     k.dimension, k.kind)) {
            Figures f;
            if (cmsmFiguresAt(k, d, *chosen, f))
                part.sweep.push_back({d, f.rank1, f.eer, f.eerThreshold});
        }
        part.bestDimension = bestSweepDimension(part.sweep);
        // The dictionary is left with the space this run was asked for.
        const msmface::Status rebuilt = k.gallery.rebuildConstraint(k.dimension);
        if (!rebuilt.ok()) return rebuilt.message();
    }
    summary_.sweep = summary_.kinds.front().sweep;
    summary_.bestDimension = summary_.kinds.front().bestDimension;
    summary_.stages.push_back({"CMSM dimension sweep", watch_.lap()});
    return {};
}

std::string EvalRun::writeReport(std::size_t& pageBytes) {
    const std::string page = reportPage(summary_, faces_);
    pageBytes = page.size();
    std::string error = writeOutputFile(paths_.json, summaryJson(summary_));
    if (error.empty()) error = writeOutputFile(paths_.page, page);
    for (const KindGallery& k : kinds_)
        if (error.empty()) error = recordRunDictionary(k.paths.out, "eval");
    return error;
}

// A gallery for each kind asked for, in its own dictionary folder.
std::string openKindGalleries(const EvalOptions& o, std::vector<KindGallery>& out) {
    for (PatternKind kind : kindsAsked(o)) {
        const KindPaths paths = kindPathsIn(o.out, kind);
        msmface::OpenOptions options;
        // A folder that prepareRunDictionary emptied: a gallery of another kind than Seed
        // patterns records its kind there as it is created.
        if (kind != PatternKind::Seed) {
            options.create = true;
            options.patterns = kind;
        }
        auto opened = msmface::Gallery::open(paths.dictionary, options);
        if (!opened.ok()) return opened.message();
        const bool seed = kind == PatternKind::Seed;
        out.push_back(KindGallery{kind,
                                  paths,
                                  std::move(opened).value(),
                                  seed ? o.dimension : o.descriptorDimension,
                                  seed ? o.threshold
                                  : o.descriptorThreshold >= 0
                                      ? o.descriptorThreshold
                                      : msmface::defaultIdentifyThreshold(kind),
                                  {},
                                  {}});
    }
    return {};
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
    Finders finders;
    error = makeFinders(o, finders);
    if (!error.empty()) return fail(error);
    const EvalPaths paths = evalPathsIn(o.out);
    error = prepareEvalOutputs(o, paths);
    if (!error.empty()) return fail(error);
    std::vector<KindGallery> kinds;
    error = openKindGalleries(o, kinds);
    if (!error.empty()) return fail(error);

    EvalRun run(o, paths, std::move(persons), skipped, std::move(kinds), std::move(finders), watch);
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
    std::string written;
    for (PatternKind kind : kindsAsked(o))
        written += (written.empty() ? "" : ", ") + kindPathsIn(o.out, kind).csv;
    std::printf("scores: %s; summary: %s; report: %s (%zu kB); %.1f s\n", written.c_str(),
                paths.json.c_str(), paths.page.c_str(), (pageBytes + 512) / 1024, seconds);
    return 0;
}

}  // namespace msmcli
