// Building the directory's constraint space from its persons: the new space goes to a stem the
// list does not name, and only the list's replacement makes it current.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>

#include "core/constraint_spaces.h"
#include "dictionary/DictChunk.h"
#include "gallery/gallery_impl.h"
#include "gallery/memory_file.h"
#include "io/atomic_file.h"
#include "numeric/diagnostics.h"
#include "recognition/class_data.h"
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

// The directions the persons' leading vectors span, from the eigenvalues of a space written
// under stem: those above rounding noise (a ten-thousandth of the largest). -1 when the file does
// not read.
int spannedDirections(const std::string& stem) {
    DictChunk values;
    values.SetModeAndLimit(kDicPrimFloat, 0);
    if (values.ReadAll((stem + ".dckev").c_str()) != 1 || values.count < 1) return -1;
    const DicPrim& v = values.prims[0];
    const int rows = std::min(v.count, v.allocatedRows);
    if (v.frows == nullptr || rows < 1) return -1;
    const float largest = v.frows[0][0];
    int spanned = 0;
    for (int r = 0; r < rows; ++r)
        if (v.frows[r][0] > 1e-4f * largest && v.frows[r][0] > 0.0f) ++spanned;
    return spanned;
}

void removeConstraintFiles(const std::string& dir, const std::string& stem) {
    for (const char* ext : {".dck", ".dckev", ".mck"}) ::unlink((dir + "/" + stem + ext).c_str());
}

std::function<void(const std::string&)>& spaceWrittenHook() {
    static std::function<void(const std::string&)> hook;
    return hook;
}

}  // namespace

namespace detail {

void setSpaceWrittenHook(std::function<void(const std::string& stem)> hook) {
    spaceWrittenHook() = std::move(hook);
}

}  // namespace detail

Status Gallery::rebuildConstraint(int dimension) {
    Impl& g = *impl_;
    // The constraint space holds at most every direction of the directory's patterns.
    const core::PatternShape shape = g.state->settings().shape;
    if (dimension < 1 || dimension > shape.dimension)
        return fail(ErrorKind::Argument, "dimension " + std::to_string(dimension) +
                                             ": expected 1 to " + std::to_string(shape.dimension) +
                                             " for " + patternKindName(g.state->kind) +
                                             " patterns");
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
    const auto listText = [dimension](const std::string& at) {
        return "1\n1\nCMSML " + at + " " + std::to_string(dimension) + " " + at + "\n";
    };

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    // Left by a rebuild that was killed: not named by any list.
    removeConstraintFiles(g.dir(), fresh);
    // Every person the gallery recognises, in its order, from their dictionaries.
    std::vector<std::string> dictionaries;
    for (const Person& p : g.state->persons)
        dictionaries.push_back(g.dir() + "/" + p.name + ".dck");
    {
        // Our own message names the file; the legacy words would only repeat it.
        msm::DiagnosticCapture quiet;
        status =
            msm::generateConstraintSpace(dictionaries, 0, shape.channels, g.dir() + "/" + fresh,
                                         shape.dimension, g.state->settings().constraintBasisCount);
    }
    if (!status.ok()) {
        removeConstraintFiles(g.dir(), fresh);
        return status;
    }
    // A space weighs each direction it keeps by the inverse root of its eigenvalue: directions no
    // person spans (eigenvalues of rounding noise) would outweigh every other, and all scores
    // fall to nothing. Descriptors, of few vectors per person, meet that at ordinary dimensions.
    if (g.state->kind == PatternKind::Descriptor) {
        const int spanned = spannedDirections(g.dir() + "/" + fresh);
        if (spanned >= 0 && dimension > spanned) {
            removeConstraintFiles(g.dir(), fresh);
            return fail(ErrorKind::Argument,
                        "dimension " + std::to_string(dimension) + ": the " +
                            std::to_string(g.state->persons.size()) +
                            " persons' leading vectors span " + std::to_string(spanned) +
                            " directions; expected at most " + std::to_string(spanned) +
                            " (more persons span more)");
        }
    }
    if (spaceWrittenHook()) spaceWrittenHook()(g.dir() + "/" + fresh);
    const std::string list = detail::constraintListPath(g.dir());
    // A pipe or a device in the list's place was never a list (loading refuses it unread): it
    // gives way to the new one, which the writer would otherwise refuse to put over it.
    struct stat inPlace {};
    if (::lstat(list.c_str(), &inPlace) == 0 && !S_ISREG(inPlace.st_mode) &&
        !S_ISLNK(inPlace.st_mode) && !S_ISDIR(inPlace.st_mode))
        ::unlink(list.c_str());
    msm::clearWriteFailure();
    msm::AtomicFile listFile(list.c_str());
    const std::string text = listText(stem);
    errno = 0;
    if (listFile.stream() == nullptr ||
        !msm::writeAll(listFile.stream(), text.data(), text.size()) ||
        std::fflush(listFile.stream()) != 0) {
        const int error = errno;
        removeConstraintFiles(g.dir(), fresh);
        const std::string why = msm::lastWriteFailure();
        return fail(ErrorKind::File, !why.empty()
                                         ? why
                                         : list + ": cannot be written (" +
                                               std::strerror(error != 0 ? error : ENOSPC) + ")");
    }
    // The new space is loaded as recognition will load it before the list names it: a space that
    // does not load never becomes current, and the old one stays.
    {
        msm::DiagnosticCapture quiet;
        std::optional<MemoryFile> placed;
        if (blanks) placed.emplace(listText(detail::engineFolder(*g.state) + "/" + fresh));
        auto loaded =
            core::ConstraintSpaces::load(placed ? placed->path() : listFile.temporaryPath(), shape);
        if (!loaded.ok()) {
            removeConstraintFiles(g.dir(), fresh);
            return fail(ErrorKind::File, g.dir() + "/" + fresh +
                                             ": the new constraint space does not load (" +
                                             loaded.message() + "); the old one stays");
        }
    }
    if (!listFile.Commit()) {
        removeConstraintFiles(g.dir(), fresh);
        return fail(ErrorKind::File, msm::lastWriteFailure());
    }
    // Only a space of ours is removed: a list written by hand may name any file.
    if (msm::isConstraintStem(old) && old != fresh && !listed(old))
        removeConstraintFiles(g.dir(), old);
    g.finishWrite();
    status = g.constraintRebuilt();
    g.state->generation.fetch_add(1);
    return status;
}

}  // namespace msmface
