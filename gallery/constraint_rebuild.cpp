// Building the directory's constraint space from its persons: the new space goes to a stem the
// list does not name, and only the list's replacement makes it current.
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
#include "gallery/memory_file.h"
#include "io/atomic_file.h"
#include "numeric/diagnostics.h"
#include "recognition/constraint_list.h"
#include "store/registry.h"
#include "store/store_files.h"

namespace msmface {

using detail::absolute;
using detail::exists;
using detail::fail;
using detail::hasBlank;
using detail::MemoryFile;

namespace {

// The stem the current list names in dir, or empty without a list.
std::string currentConstraintStem(const std::string& dir) {
    msm::ConstraintList list;
    const std::string path = detail::constraintListPath(dir);
    struct stat st {};
    // A link or a pipe is not our list: it names no space of ours.
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
    msm::DiagnosticCapture quiet;
    if (msm::readConstraintList(path.c_str(), list) != msm::ListRead::Accepted ||
        list.entries.empty())
        return {};
    const std::string& stem = list.entries.front().stem;
    return stem.substr(stem.find_last_of('/') + 1);
}

void removeConstraintFiles(const std::string& dir, const std::string& stem) {
    for (const char* ext : {".dck", ".dckev", ".mck"}) ::unlink((dir + "/" + stem + ext).c_str());
}

}  // namespace

Status Gallery::rebuildConstraint(int dimension) {
    Impl& g = *impl_;
    if (dimension < 1 || dimension > 256)
        return fail(ErrorKind::Argument,
                    "--dimension " + std::to_string(dimension) + ": expected 1 to 256");
    msm::DirectoryLock directoryLock;
    Status status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    if (g.state->persons.size() < 2)
        return fail(ErrorKind::Argument,
                    g.dir() + ": a constraint space needs at least two persons");
    status = g.checkWritable();
    if (!status.ok()) return status;
    // The new space goes to the stem the list does not name: until the list is replaced, the old
    // space stays whole, whatever stops the rebuild.
    const std::string old = currentConstraintStem(g.dir());
    // A person that an older version let enrol under a constraint stem keeps its files: neither
    // the new space nor the removal of the old one may touch them.
    const auto listed = [&g](const std::string& stem) {
        for (const auto* group : {&g.state->persons, &g.state->orphans})
            for (const Person& p : *group)
                if (::strcasecmp(p.name.c_str(), stem.c_str()) == 0) return true;
        return false;
    };
    std::string fresh;
    for (const char* candidate : msm::kConstraintStems)
        if (fresh.empty() && candidate != old && !listed(candidate)) fresh = candidate;
    if (fresh.empty())
        return fail(ErrorKind::Argument,
                    detail::registryPath(g.dir()) +
                        ": lists persons under every name the constraint space can take; delete "
                        "one of them (its files stay) and enrol it under another name");
    // The list names the space by absolute path, which legacy hosts load as it is; where blanks
    // would split that path, by its bare name, which the gallery places in the directory itself.
    const std::string here = absolute(g.dir());
    const bool blanks = hasBlank(here);
    if (blanks && !g.state->folder.valid())
        return fail(ErrorKind::File, g.dir() + ": cannot be opened to build a constraint space");
    const std::string stem = blanks ? fresh : here + "/" + fresh;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    // Left by a rebuild that was killed: not named by any list.
    removeConstraintFiles(g.dir(), fresh);
    const std::string list = detail::constraintListPath(g.dir());
    // The engine generates the space from this list before it takes the list's name, so that
    // the list never names a space whose files are not written yet.
    std::string temp = list + ".tmpXXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0)
        return fail(ErrorKind::File, list + ": cannot be written (" + std::strerror(errno) + ")");
    ::fchmod(fd, 0644);
    const std::string text =
        "1\n1\nCMSML " + stem + " " + std::to_string(dimension) + " " + stem + "\n";
    errno = 0;
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    written = written && ::fsync(fd) == 0;
    const int writeError = errno != 0 ? errno : ENOSPC;
    written = ::close(fd) == 0 && written;
    if (!written) {
        ::unlink(temp.c_str());
        return fail(ErrorKind::File,
                    list + ": cannot be written (" + std::strerror(writeError) + ")");
    }
    status = g.fillEngine();
    if (!status.ok()) {
        ::unlink(temp.c_str());
        return status;
    }
    FaceRecognition& e = *g.engine;
    e.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
    int generated = 0;
    msm::clearWriteFailure();
    {
        // Before the first generation the space's files do not exist yet: the load fails, but
        // the list is known and the generation writes the files.
        msm::DiagnosticCapture quiet;
        std::optional<MemoryFile> placed;
        if (blanks) {
            const std::string at = detail::engineFolder(*g.state) + "/" + fresh;
            placed.emplace("1\n1\nCMSML " + at + " " + std::to_string(dimension) + " " + at + "\n");
        }
        e.InitConstraintMSM(placed ? placed->path().c_str() : temp.c_str());
        generated = e.UpdateCMSMDictionary(0);
    }
    const std::string writeFailure = msm::lastWriteFailure();
    if (generated != 1 || !writeFailure.empty()) {
        ::unlink(temp.c_str());
        removeConstraintFiles(g.dir(), fresh);
        g.constraintLoaded = false;
        g.finishWrite();
        return fail(ErrorKind::File,
                    !writeFailure.empty()
                        ? writeFailure
                        : g.dir() + ": the constraint space could not be generated or written");
    }
    if (::rename(temp.c_str(), list.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        ::unlink(temp.c_str());
        removeConstraintFiles(g.dir(), fresh);
        g.constraintLoaded = false;
        g.finishWrite();
        return fail(ErrorKind::File, list + ": cannot be written (" + reason + ")");
    }
    msm::syncDirectory(g.dir());
    // Only a space of ours is removed: a list written by hand may name any file.
    if (msm::isConstraintStem(old) && old != fresh && !listed(old))
        removeConstraintFiles(g.dir(), old);
    g.finishWrite();
    g.constraintLoaded = false;
    status = g.loadConstraint();
    if (status.ok()) status = g.constraintRebuilt();
    g.state->generation.fetch_add(1);
    return status;
}

}  // namespace msmface
