// enrol, recognise, delete, list, constraint and inspect: the commands that work on a dictionary
// directory or a file in it.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "commands.h"
#include "frame_source.h"
#include "session.h"

namespace msmcli {
namespace {

constexpr uint32_t kJitterSeed = 20240611u;

std::string selectRows(const FrameOptions& o, std::vector<FrameRow>& rows, std::string& list) {
    const bool fromManifest = !o.manifest.empty();
    if (fromManifest == !o.points.empty())
        return "frames: expected either --manifest FILE --identity NAME or --points FILE";
    if (o.copies < 1 || o.copies > 1000) return "--copies: expected 1 to 1000";
    if (!(o.jitter >= 0.0 && o.jitter <= 20.0)) return "--jitter: expected 0 to 20 pixels";
    FrameList parsed;
    if (!fromManifest) {
        list = o.points;
        std::string error = readPointsFile(o.points, parsed);
        rows = std::move(parsed.rows);
        return error;
    }
    if (o.identity.empty()) return "--identity: expected the identity to take from the manifest";
    list = o.manifest;
    std::string error = readManifest(o.manifest, parsed);
    if (!error.empty()) return error;
    for (FrameRow& r : parsed.rows)
        if (r.identity == o.identity &&
            (o.videos.empty() ||
             std::find(o.videos.begin(), o.videos.end(), r.video) != o.videos.end()))
            rows.push_back(std::move(r));
    if (rows.empty())
        return o.manifest + ": no rows of identity \"" + o.identity + "\"" +
               (o.videos.empty() ? "" : " in the videos given");
    return {};
}

std::string gatherFrames(const FrameOptions& o, std::vector<Frame>& frames) {
    std::vector<FrameRow> rows;
    std::string list;
    std::string error = selectRows(o, rows, list);
    if (!error.empty()) return error;
    std::vector<Frame> plain;
    error = loadFrames(list, rows, plain);
    if (!error.empty()) return error;
    frames = jitterFrames(plain, o.copies, o.jitter, kJitterSeed);
    return {};
}

std::string openSession(Session& s, const std::string& dir) {
    std::string error = s.open(dir);
    for (const Person& p : s.orphans())
        std::fprintf(stderr,
                     "msmface: warning: %s: person %d (%s) has no dictionary file; ignored\n",
                     dir.c_str(), p.id, p.name.c_str());
    return error;
}

}  // namespace

int fail(const std::string& message) {
    std::fprintf(stderr, "msmface: %s\n", message.c_str());
    return kExitFailure;
}

std::string makeFolder(const std::string& dir) {
    if (dir.empty()) return "expected a folder name";
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? std::string() : dir + ": expected a folder, found a file";
    const std::size_t slash = dir.find_last_of('/', dir.size() > 1 ? dir.size() - 2 : 0);
    if (slash != std::string::npos && slash > 0) {
        std::string error = makeFolder(dir.substr(0, slash));
        if (!error.empty()) return error;
    }
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return dir + ": cannot create the folder (" + std::strerror(errno) + ")";
    return {};
}

void clearFolder(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d)) names.push_back(e->d_name);
    ::closedir(d);
    for (const std::string& name : names) {
        const std::string path = dir + "/" + name;
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) ::unlink(path.c_str());
    }
}

int runEnrol(const EnrolOptions& o) {
    // Everything a user can get wrong is checked before the first file is written.
    std::vector<Frame> frames;
    std::string error = gatherFrames(o.frames, frames);
    if (!error.empty()) return fail(error);
    struct stat st {};
    if (::stat(o.dir.c_str(), &st) != 0) {
        error = makeFolder(o.dir);
        if (!error.empty()) return fail(error);
    }
    Session s;
    error = openSession(s, o.dir);
    if (!error.empty()) return fail(error);
    error = s.enrol(o.id, o.name, frames);
    if (!error.empty()) return fail(error);
    std::printf("enrolled %s as ID %d in %s (%zu persons)\n", o.name.c_str(), o.id, o.dir.c_str(),
                s.persons().size());
    return 0;
}

int runRecognise(const RecogniseOptions& o) {
    if (o.method != 0 && o.method != 1 && o.method != 2 && o.method != 4)
        return fail("--method " + std::to_string(o.method) +
                    ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)");
    if (o.threshold < 0 || o.threshold > 1000) return fail("--threshold: expected 0 to 1000");
    std::vector<Frame> frames;
    std::string error = gatherFrames(o.frames, frames);
    if (!error.empty()) return fail(error);
    Session s;
    error = openSession(s, o.dir);
    if (!error.empty()) return fail(error);
    s.engine().Set_Identify_thresvalue(o.threshold);
    Recognition r;
    error = s.recognise(frames, o.method, r);
    if (!error.empty()) return fail(error);
    std::vector<int> order(r.scores.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return r.scores[a] > r.scores[b]; });
    std::printf("%d of %zu frames gave a face; method %d\n", r.framesUsed, frames.size(), o.method);
    std::printf("rank  id  name                 score\n");
    for (int k = 0; k < std::min<int>(o.top, static_cast<int>(order.size())); ++k) {
        const Person& p = s.persons()[order[k]];
        std::printf("%4d %4d  %-20s %5d\n", k + 1, p.id, p.name.c_str(), r.scores[order[k]]);
    }
    const Person& best = s.persons()[r.best];
    if (r.accepted)
        std::printf("identified: %s (ID %d), score %d > %d\n", best.name.c_str(), best.id,
                    r.bestScore, o.threshold);
    else
        std::printf("not identified: best %s (ID %d), score %d <= %d\n", best.name.c_str(), best.id,
                    r.bestScore, o.threshold);
    return 0;
}

int runDelete(const std::string& dir, int id) {
    Session s;
    std::string error = openSession(s, dir);
    if (!error.empty()) return fail(error);
    const int index = s.findById(id);
    const std::string name = index >= 0 ? s.persons()[index].name : std::string();
    error = s.remove(id);
    if (!error.empty()) return fail(error);
    std::printf("deleted ID %d%s%s from %s\n", id, name.empty() ? "" : " ", name.c_str(),
                dir.c_str());
    return 0;
}

int runList(const std::string& dir) {
    Session s;
    std::string error = openSession(s, dir);
    if (!error.empty()) return fail(error);
    std::printf("%zu person%s in %s%s\n", s.persons().size(), s.persons().size() == 1 ? "" : "s",
                dir.c_str(), s.hasConstraint() ? " (with a constraint space)" : "");
    for (const Person& p : s.persons()) std::printf("%6d  %s\n", p.id, p.name.c_str());
    return 0;
}

int runConstraint(const std::string& dir, int dimension) {
    Session s;
    std::string error = openSession(s, dir);
    if (!error.empty()) return fail(error);
    error = s.buildConstraint(dimension);
    if (!error.empty()) return fail(error);
    std::printf(
        "constraint space of %d dimensions from %zu persons: %s/%s.dck, .dckev, .mck; "
        "list %s/%s\n",
        dimension, s.persons().size(), dir.c_str(), kConstraintStem, dir.c_str(),
        kConstraintListName);
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
