// Reading a dictionary directory into the persons a gallery and its streams share: the registry,
// the threshold, and which listed persons have a usable dictionary.
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
#include "gallery/view_builder.h"
#include "store/patterns_file.h"
#include "store/registry.h"
#include "store/threshold_file.h"

namespace msmface {

namespace detail {

std::string readListed(const GalleryState& state, Listing& out) {
    const std::string& dir = state.dir;
    Listing l;
    // A gallery's view, streams and inputs are made for its kind: a directory recorded anew as
    // another one (emptied and made again by another process) is opened again, not mixed in.
    PatternKind kind = PatternKind::Seed;
    std::string error = loadPatternKind(dir, kind);
    if (!error.empty()) return error;
    if (kind != state.kind)
        return patternsPath(dir) + ": the directory now holds " + patternKindName(kind) +
               " patterns, not the " + patternKindName(state.kind) +
               " patterns it was opened with; open it again";
    error = loadRegistry(dir, l.listed);
    if (!error.empty()) return error;
    l.threshold = defaultIdentifyThreshold(kind);
    error = loadThreshold(dir, l.threshold, l.threshold, kind);
    if (!error.empty()) return error;
    ViewBuilder builder(state);
    // One person's bad file must not take the others down: it is left out, and said why.
    for (const Person& p : l.listed) {
        const std::string who = "person " + std::to_string(p.id) + " (" + p.name + ")";
        const std::string dck = dir + "/" + p.name + ".dck";
        if (!exists(dck)) {
            l.orphans.push_back(p);
            l.leftOut.push_back({p, dir + ": " + who + " has no dictionary file; ignored"});
            continue;
        }
        // Enrolled under the constraint space's name by an older version or written by hand: its
        // files are the space's, none of its own.
        if (msm::isReservedKeyName(p.name)) {
            l.orphans.push_back(p);
            l.leftOut.push_back(
                {p, dir + ": " + who + " is listed under the constraint space's name; ignored"});
            continue;
        }
        const std::string problem = builder.add(p);
        if (!problem.empty()) {
            l.leftOut.push_back({p, problem + "; " + who + " ignored"});
            continue;
        }
        l.persons.push_back(p);
    }
    auto view = builder.finish();
    if (!view.ok()) return view.message();
    l.view = std::move(*view);
    out = std::move(l);
    return {};
}

Status checkDirectoryPresent(const std::string& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0)
        return fail(ErrorKind::File,
                    dir + ": the dictionary directory is gone (" + std::strerror(errno) + ")");
    if (!S_ISDIR(st.st_mode))
        return fail(ErrorKind::File,
                    dir + ": the dictionary directory is gone (a file is in its place)");
    return {};
}

std::string refreshFromDisk(GalleryState& state) {
    // Taken before the files are read: a change after it shows as a newer stamp, never as one
    // that was missed.
    const msm::DirectoryStamp stamp = msm::stampOf(state.dir);
    if (stamp == state.stamp) return {};
    Listing listing;
    const std::string error = readListed(state, listing);
    if (!error.empty()) return error;
    // Which persons another process replaced cannot be told from the registry: all are new.
    publishView(state, std::move(listing.view), true);
    state.persons = std::move(listing.persons);
    state.orphans = std::move(listing.orphans);
    state.leftOut = std::move(listing.leftOut);
    state.listed = std::move(listing.listed);
    state.threshold = listing.threshold;
    state.stamp = stamp;
    state.generation.fetch_add(1);
    return {};
}

Status lockDirectory(const std::string& dir, msm::LockMode mode, const LockOptions& options,
                     msm::DirectoryLock& lock) {
    return msm::DirectoryLock::acquire(dir, mode, msm::LockWait{options.wait, options.notice},
                                       lock);
}

}  // namespace detail

}  // namespace msmface
