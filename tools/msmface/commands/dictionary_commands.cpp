// enrol, recognise, delete, list, constraint and inspect: the commands that work on a dictionary
// directory or a file in it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>

#include <msmface/msmface.h>

#include "commands/commands.h"
#include "commands/flag_names.h"
#include "input/detected_frames.h"
#include "input/frame_descriptors.h"
#include "input/frame_source.h"
#include "input/frames.h"
#include "io/folders.h"

namespace msmcli {
namespace {

constexpr uint32_t kJitterSeed = 20240611u;

std::string selectRows(const FrameOptions& o, std::vector<FrameRow>& rows, std::string& list) {
    const bool fromManifest = !o.manifest.empty();
    if (fromManifest == !o.points.empty())
        return "frames: expected either --manifest FILE --identity NAME or --points FILE";
    if (o.copies < 1 || o.copies > msmface::kMaxJitterCopies) return "--copies: expected 1 to 1000";
    if (!(o.jitter >= 0.0 && o.jitter <= 20.0)) return "--jitter: expected 0 to 20 pixels";
    if (!fromManifest) {
        list = o.points;
        auto parsed = msmface::readPointsFile(o.points);
        if (!parsed.ok()) return parsed.message();
        rows = std::move(parsed.value());
        return {};
    }
    if (o.identity.empty()) return "--identity: expected the identity to take from the manifest";
    list = o.manifest;
    auto parsed = msmface::readManifest(o.manifest);
    if (!parsed.ok()) return parsed.message();
    for (FrameRow& r : parsed.value())
        if (r.identity == o.identity &&
            (o.videos.empty() ||
             std::find(o.videos.begin(), o.videos.end(), r.video) != o.videos.end()))
            rows.push_back(std::move(r));
    if (rows.empty())
        return o.manifest + ": no rows of identity \"" + o.identity + "\"" +
               (o.videos.empty() ? "" : " in the videos given");
    return {};
}

// Frames of pictures, a video or a camera, with the points the detector finds (and for a
// directory of descriptors, describeFor, each face's descriptor).
std::string gatherFoundFrames(const FrameOptions& o, const std::optional<std::string>& describeFor,
                              std::vector<Frame>& frames) {
    if (o.images.empty() && o.videos.empty() && o.camera == -1)
        return "frames: expected either --manifest FILE --identity NAME or --points FILE, or "
               "--images FILE..., --video FILE or --camera INDEX";
    if (o.videos.size() > 1)
        return "--video: expected one video file (several only as names of a --manifest)";
    if (o.copies < 1 || o.copies > msmface::kMaxJitterCopies) return "--copies: expected 1 to 1000";
    if (!(o.jitter >= 0.0 && o.jitter <= 20.0)) return "--jitter: expected 0 to 20 pixels";
    PictureSourceOptions source;
    source.images = o.images;
    source.video = o.videos.empty() ? std::string() : o.videos.front();
    source.camera = o.camera;
    source.frames = o.frames;
    std::unique_ptr<FrameDescriber> describer;
    if (describeFor) {
        const std::string error =
            makeFrameDescriber({o.model, o.descriptorModel, false, *describeFor}, describer);
        if (!error.empty()) return error;
    }
    return gatherDetectedFrames(source, o.model, frames, describer.get());
}

std::string readFrames(const FrameOptions& o, const std::optional<std::string>& describeFor,
                       std::vector<Frame>& frames) {
    if (o.manifest.empty() && o.points.empty()) return gatherFoundFrames(o, describeFor, frames);
    if (!o.images.empty() || o.camera != -1)
        return "frames: expected one source, --points or --manifest or pictures, not both";
    std::vector<FrameRow> rows;
    std::string list;
    std::string error = selectRows(o, rows, list);
    if (!error.empty()) return error;
    error = loadFrames(list, rows, frames);
    if (!error.empty() || !describeFor) return error;
    std::unique_ptr<FrameDescriber> describer;
    error = makeFrameDescriber({o.model, o.descriptorModel, true, *describeFor}, describer);
    if (!error.empty()) return error;
    return describeFramesByPoints(*describer, list, frames);
}

// The frames of the options and the samples made of them, which view the frames' pictures. A
// directory of seed patterns is offered --copies of each frame, jittered; one of descriptors each
// frame's descriptor once (jitter moves points, and a descriptor is not made from them).
std::string gatherFrames(const FrameOptions& o, const std::string& dir, msmface::PatternKind kind,
                         std::vector<Frame>& frames, std::vector<msmface::Sample>& samples) {
    // The directory is named where descriptors cannot be made in this build.
    std::optional<std::string> describeFor;
    if (kind == msmface::PatternKind::Descriptor) describeFor = dir;
    std::string error = readFrames(o, describeFor, frames);
    if (!error.empty()) return error;
    if (describeFor) {
        samples = samplesOf(frames);
        return {};
    }
    auto jittered = msmface::jitterFrames(samplesOf(frames), o.copies, o.jitter, kJitterSeed);
    if (!jittered.ok()) return jittered.message();
    samples = std::move(jittered.value());
    return {};
}

void warnAboutLeftOut(const msmface::Gallery& g) {
    for (const msmface::LeftOut& left : g.leftOut())
        std::fprintf(stderr, "msmface: warning: %s\n", left.reason.c_str());
}

}  // namespace

msmface::Result<msmface::Gallery> openGallery(const std::string& dir, bool create, bool noWait,
                                              std::optional<msmface::PatternKind> patterns) {
    msmface::OpenOptions options;
    options.create = create;
    options.patterns = patterns;
    options.lock.wait = !noWait;
    // Said once, so that a user who started two commands knows why this one does not go on yet.
    options.lock.notice = [](const std::string& m) {
        std::fprintf(stderr, "msmface: %s\n", m.c_str());
    };
    msmface::Result<msmface::Gallery> g = msmface::Gallery::open(dir, options);
    if (g.ok()) warnAboutLeftOut(g.value());
    return g;
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int fail(const std::string& message) {
    std::fprintf(stderr, "msmface: %s\n", withFlagNames(message).c_str());
    return kExitFailure;
}

int runEnrol(const EnrolOptions& o) {
    std::optional<msmface::PatternKind> requested;
    if (!o.patterns.empty()) {
        requested = msmface::patternKindNamed(o.patterns);
        if (!requested) return fail("--patterns " + o.patterns + ": expected seed or descriptor");
    }
    // An existing directory tells the kind the frames must be turned into, and refuses another
    // kind before any frame is read (an empty one still takes the kind asked); a new one is made
    // only once the frames are known to be good, so that everything a user can get wrong is
    // checked before the first file is written.
    std::optional<msmface::Gallery> existing;
    msmface::PatternKind kind = requested.value_or(msmface::PatternKind::Seed);
    if (isDirectory(o.dir)) {
        auto g = openGallery(o.dir, false, o.noWait);
        if (!g.ok()) return fail(g.message());
        if (!requested || *requested == g->patterns()) {
            kind = g->patterns();
            existing.emplace(std::move(g).value());
        } else if (!g->persons().empty() || !g->leftOut().empty()) {
            // The library's refusal, which names both kinds.
            auto refused = openGallery(o.dir, false, o.noWait, requested);
            if (!refused.ok()) return fail(refused.message());
            existing.emplace(std::move(refused).value());
        }
    }
    std::vector<Frame> frames;
    std::vector<msmface::Sample> samples;
    std::string error = gatherFrames(o.frames, o.dir, kind, frames, samples);
    if (!error.empty()) return fail(error);
    if (!existing) {
        auto g = openGallery(o.dir, true, o.noWait, kind);
        if (!g.ok()) return fail(g.message());
        existing.emplace(std::move(g).value());
    }
    msmface::Gallery& g = *existing;
    const msmface::Status enrolled = g.enrol(o.id, o.name, samples);
    if (!enrolled.ok()) return fail(enrolled.message());
    std::printf("enrolled %s as ID %d in %s (%zu persons)\n", o.name.c_str(), o.id, o.dir.c_str(),
                g.persons().size());
    return 0;
}

int runRecognise(const RecogniseOptions& o) {
    if (o.method != 0 && o.method != 1 && o.method != 2 && o.method != 4)
        return fail("--method " + std::to_string(o.method) +
                    ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)");
    if (o.threshold < -1 || o.threshold > 1000)
        return fail("--threshold: expected 0 to 1000 (or -1 for the directory's stored one)");
    if (o.top < 1) return fail("--top " + std::to_string(o.top) + ": expected 1 or more");
    auto g = openGallery(o.dir);
    if (!g.ok()) return fail(g.message());
    std::vector<Frame> frames;
    std::vector<msmface::Sample> samples;
    std::string error = gatherFrames(o.frames, o.dir, g->patterns(), frames, samples);
    if (!error.empty()) return fail(error);
    const auto r = g->recognise(samples, {static_cast<msmface::Method>(o.method), o.threshold});
    if (!r.ok()) return fail(r.message());
    std::printf("%d of %zu frames gave a face; method %d\n", r->framesUsed, samples.size(),
                o.method);
    std::printf("rank  id  name                 score\n");
    const int shown = std::min<int>(o.top, static_cast<int>(r->matches.size()));
    for (int k = 0; k < shown; ++k) {
        const msmface::Match& m = r->matches[static_cast<std::size_t>(k)];
        std::printf("%4d %4d  %-20s %5d\n", k + 1, m.id, m.name.c_str(), m.score);
    }
    const msmface::Match& best = r->matches.front();
    if (r->identified)
        std::printf("identified: %s (ID %d), score %d > %d\n", best.name.c_str(), best.id,
                    best.score, r->threshold);
    else
        std::printf("not identified: best %s (ID %d), score %d <= %d\n", best.name.c_str(), best.id,
                    best.score, r->threshold);
    return 0;
}

int runDelete(const std::string& dir, int id, bool noWait) {
    auto g = openGallery(dir, false, noWait);
    if (!g.ok()) return fail(g.message());
    const std::optional<msmface::Person> person = g->find(id);
    const msmface::Status removed = g->remove(id);
    if (!removed.ok()) return fail(removed.message());
    std::printf("deleted ID %d%s%s from %s\n", id, person ? " " : "",
                person ? person->name.c_str() : "", dir.c_str());
    return 0;
}

int runList(const std::string& dir) {
    auto g = openGallery(dir);
    if (!g.ok()) return fail(g.message());
    const std::vector<msmface::Person> persons = g->persons();
    std::printf("%zu person%s in %s, %s patterns%s\n", persons.size(),
                persons.size() == 1 ? "" : "s", dir.c_str(),
                msmface::patternKindName(g->patterns()),
                g->hasConstraint() ? " (with a constraint space)" : "");
    for (const msmface::Person& p : persons) std::printf("%6d  %s\n", p.id, p.name.c_str());
    return 0;
}

int runConstraint(const std::string& dir, int dimension, bool noWait) {
    auto g = openGallery(dir, false, noWait);
    if (!g.ok()) return fail(g.message());
    const msmface::Status built = g->rebuildConstraint(dimension);
    if (!built.ok()) return fail(built.message());
    std::printf(
        "constraint space of %d dimensions from %zu persons: the files cmsm*.dck, .dckev, .mck "
        "named by %s/%s\n",
        dimension, g->persons().size(), dir.c_str(), msmface::kConstraintListFileName);
    return 0;
}

int runInspect(const std::string& path) {
    const int needed = msmface_describeFile(path.c_str(), nullptr, 0);
    const int length = needed >= 0 ? needed : -needed - 1;
    std::vector<char> text(static_cast<std::size_t>(length) + 1);
    msmface_describeFile(path.c_str(), text.data(), length + 1);
    if (needed < 0) return fail(text.data());
    std::fputs(text.data(), stdout);
    return 0;
}

}  // namespace msmcli
