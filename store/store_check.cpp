// check and repair of a dictionary directory (<msmface/store.h>).
#include <msmface/store.h>

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include <msmface/FileSummary.h>

#include "dictionary/dictionary_check.h"
#include "io/byte_reader.h"
#include "recognition/constraint_list.h"
#include "store/patterns_file.h"
#include "store/registry.h"
#include "store/store_files.h"
#include "store/store_lock.h"
#include "store/threshold_file.h"

namespace msmface {
namespace {

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// The reason a file of the engine does not read, or empty when it reads.
std::string unreadable(const std::string& path) {
    char reason[512];
    if (msmface_describeFile(path.c_str(), reason, sizeof reason) >= 0) return {};
    return reason;
}

// A person's picture: only its header and size are checked, which is what a truncated write
// damages.
std::string unreadablePicture(const std::string& path) {
    // Without blocking and without following a link: a pipe put in its place must not hang the
    // check, and a link's target is not the directory's picture.
    msm::FileDescriptor fd;
    fd.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() && errno == ELOOP)
        return path + ": expected a BMP picture in a file of the directory, found a symbolic link";
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0)
        return path + ": cannot be read (" + std::strerror(errno) + ")";
    if (!S_ISREG(st.st_mode))
        return path + ": cannot be read (" + msm::kindOfNonFile(st.st_mode) + ")";
    unsigned char head[6] = {};
    const ssize_t n = ::pread(fd.get(), head, sizeof head, 0);
    const unsigned long declared =
        n == sizeof head
            ? (head[2] | head[3] << 8 | head[4] << 16 | static_cast<unsigned long>(head[5]) << 24)
            : 0;
    if (n != sizeof head || head[0] != 'B' || head[1] != 'M' ||
        declared != static_cast<unsigned long>(st.st_size))
        return path + ": expected a BMP picture of the size its header declares";
    return {};
}

// The folder of a stem of dir's constraint list: a bare name is one of dir's own files.
std::string parentOf(const std::string& dir, const std::string& stem) {
    const std::size_t slash = stem.find_last_of('/');
    if (slash == std::string::npos) return dir;
    return slash == 0 ? "/" : stem.substr(0, slash);
}

// The path without ".dck" when it names a person's dictionary, else empty.
std::string personStemOfDictionary(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string stem = msm::personStemOf(name);
    if (stem.empty() || msm::isConstraintStem(stem) || name != stem + ".dck") return {};
    return path.substr(0, path.size() - 4);
}

void add(StoreReport& r, StoreProblemKind kind, const std::string& path, const std::string& what) {
    const bool repairable = kind == StoreProblemKind::Orphan || kind == StoreProblemKind::Temporary;
    r.problems.push_back(StoreProblem{kind, path, what, repairable});
}

// kind: the directory's, or empty when its patterns file does not read (then only whether the
// files read is checked: a shape guessed wrong would condemn every file).
void checkConstraint(const std::string& dir, const std::set<std::string>& files,
                     const std::optional<PatternKind>& kind, StoreReport& r) {
    const std::string list = dir + "/" + msmface::kConstraintListFileName;
    const bool hasList = files.count(msmface::kConstraintListFileName) != 0;
    msm::ConstraintList parsed;
    // A link or a pipe in the list's place: nothing of it is read, the problem is the report.
    if (!hasList && exists(list)) {
        add(r, StoreProblemKind::Constraint, list, msm::constraintListProblem(dir));
        return;
    }
    if (hasList && msm::readConstraintList(list.c_str(), parsed) != msm::ListRead::Accepted) {
        add(r, StoreProblemKind::Constraint, list, list + ": expected a constraint list");
        return;
    }
    const std::string here = msm::realPath(dir);
    // The files of a rebuild that failed or was killed before its list named them, and of the
    // space a finished rebuild replaced but had no time to remove.
    std::set<std::string> named;
    for (const msm::ConstraintListEntry& e : parsed.entries)
        for (const std::string& stem : {e.stem, e.stem2})
            if (!stem.empty() && msm::realPath(parentOf(dir, stem)) == here)
                named.insert(stem.substr(stem.find_last_of('/') + 1));
    for (const std::string& f : files) {
        const std::string stem = msm::personStemOf(f);
        if (msm::isConstraintStem(stem) && named.count(stem) == 0)
            add(r, StoreProblemKind::Orphan, dir + "/" + f,
                dir + "/" + f + ": a constraint file that " + msmface::kConstraintListFileName +
                    " does not name");
    }
    for (const msm::ConstraintListEntry& e : parsed.entries) {
        if (e.kind != msm::kKindFile && e.kind != msm::kKindLearned) continue;
        std::vector<std::string> stems{e.stem};
        if (!e.stem2.empty() && e.stem2 != e.stem) stems.push_back(e.stem2);
        for (const std::string& stem : stems) {
            if (stem.empty()) continue;
            // The list names its files by absolute path; a directory that was moved or copied
            // still points at the old place.
            if (msm::realPath(parentOf(dir, stem)) != here) {
                add(r, StoreProblemKind::Constraint, list,
                    list + ": names " + stem +
                        ", which is not in this directory; run \"msmface "
                        "constraint\" again");
                continue;
            }
            const std::string path = stem.find('/') == std::string::npos ? dir + "/" + stem : stem;
            std::string why = kind ? msm::checkDictionaryFile(path + ".dck",
                                                              detail::constraintBasisShapeOf(*kind))
                                   : unreadable(path + ".dck");
            if (!why.empty()) add(r, StoreProblemKind::Constraint, path + ".dck", why);
            why = kind ? msm::checkDictionaryFile(path + ".dckev",
                                                  detail::constraintValuesShapeOf(*kind))
                       : unreadable(path + ".dckev");
            if (!why.empty()) add(r, StoreProblemKind::Constraint, path + ".dckev", why);
        }
    }
}

bool existsAt(int dirFd, const std::string& name) {
    struct stat st {};
    return ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

// Why lost+found cannot take files ("" when it is a folder of the directory or does not exist).
std::string lostAndFoundProblem(const std::string& dir) {
    const std::string lost = dir + "/" + kLostAndFoundName;
    struct stat st {};
    if (::lstat(lost.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return {};
    return lost + ": expected a folder of the directory, found " +
           (S_ISLNK(st.st_mode) ? "a symbolic link" : "something else") +
           "; a repair moves nothing until it is moved away";
}

// Opens dir and its lost+found (created when missing), refusing a lost+found that is not a real
// folder inside dir.
Status openLostAndFound(const std::string& dir, msm::FileDescriptor& dirFd,
                        msm::FileDescriptor& lostFd) {
    const std::string lost = dir + "/" + kLostAndFoundName;
    dirFd.reset(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.valid())
        return Status::failure(ErrorKind::File,
                               dir + ": cannot be opened (" + std::strerror(errno) + ")");
    if (::mkdirat(dirFd.get(), kLostAndFoundName, 0755) != 0 && errno != EEXIST)
        return Status::failure(ErrorKind::File,
                               lost + ": cannot be created (" + std::strerror(errno) + ")");
    lostFd.reset(
        ::openat(dirFd.get(), kLostAndFoundName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (lostFd.valid()) return {};
    const std::string why = lostAndFoundProblem(dir);
    return Status::failure(
        ErrorKind::File,
        !why.empty() ? why : lost + ": cannot be opened (" + std::strerror(errno) + ")");
}

Status checkReadable(const std::string& dir) {
    struct stat st {};
    if (dir.empty() || ::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return Status::failure(ErrorKind::NotFound,
                               dir + ": expected a dictionary directory, found none");
    if (::access(dir.c_str(), R_OK | X_OK) != 0)
        return Status::failure(ErrorKind::File,
                               dir + ": cannot be read (" + std::strerror(errno) + ")");
    return {};
}

// requires: the caller holds dir's lock, shared or exclusive.
StoreReport checkLocked(const std::string& dir) {
    StoreReport r;
    const std::vector<std::string> names = msm::regularFilesIn(dir);
    const std::set<std::string> files(names.begin(), names.end());
    std::vector<Person> listed;
    const std::string registryError = detail::loadRegistry(dir, listed);
    if (!registryError.empty())
        add(r, StoreProblemKind::Registry, dir + "/" + msmface::kRegistryFileName, registryError);
    r.persons = static_cast<int>(listed.size());

    std::set<std::string> named;
    PatternKind stored = PatternKind::Seed;
    const std::string kindError = detail::loadPatternKind(dir, stored);
    std::optional<PatternKind> kind;
    if (kindError.empty())
        kind = r.patterns = stored;
    else
        add(r, StoreProblemKind::UnreadableFile, detail::patternsPath(dir), kindError);
    int threshold = 0;
    // Without a kind no threshold can be told to be the directory's: the kind file is the problem.
    const std::string thresholdError =
        kind ? detail::loadThreshold(dir, 0, threshold, *kind) : std::string();
    if (!thresholdError.empty())
        add(r, StoreProblemKind::UnreadableFile, detail::thresholdPath(dir), thresholdError);
    for (const Person& p : listed) {
        if (msm::isReservedKeyName(p.name)) {
            // Its files, if any, are the constraint space's: never checked or moved as its own.
            add(r, StoreProblemKind::Registry, detail::registryPath(dir),
                detail::registryPath(dir) + ": person " + std::to_string(p.id) + " " +
                    msm::reservedKeyNameReason(p.name) +
                    "; it is left out (delete it and enrol "
                    "it again under another name)");
            continue;
        }
        named.insert(p.name);
        const std::string stem = dir + "/" + p.name;
        for (const char* ext : {".dck", ".mck"}) {
            const std::string path = stem + ext;
            if (!exists(path)) {
                add(r, StoreProblemKind::MissingFiles, path,
                    path + ": missing; person " + std::to_string(p.id) + " (" + p.name +
                        ") is listed without it");
                continue;
            }
            // A dictionary is held to what the gallery checks when it loads the person.
            const std::string why =
                ext == std::string(".dck") && kind
                    ? msm::checkDictionaryFile(path, detail::personShapeOf(*kind))
                    : unreadable(path);
            if (!why.empty()) add(r, StoreProblemKind::UnreadableFile, path, why);
        }
        if (exists(stem + ".bmp")) {
            const std::string why = unreadablePicture(stem + ".bmp");
            if (!why.empty()) add(r, StoreProblemKind::UnreadableFile, stem + ".bmp", why);
        }
    }
    for (const std::string& name : names) {
        const std::string path = dir + "/" + name;
        if (msm::isOwnTemporaryName(name)) {
            add(r, StoreProblemKind::Temporary, path,
                path + ": a temporary left by an interrupted write");
            continue;
        }
        const std::string stem = msm::personStemOf(name);
        // Without a registry (a directory of a legacy host) no file can be called an orphan.
        if (stem.empty() || msm::isConstraintStem(stem) || !registryError.empty() ||
            named.count(stem) != 0 || files.count(msmface::kRegistryFileName) == 0)
            continue;
        add(r, StoreProblemKind::Orphan, path, path + ": no person of the registry names it");
    }
    const std::string lostProblem = lostAndFoundProblem(dir);
    if (!lostProblem.empty())
        add(r, StoreProblemKind::UnreadableFile, dir + "/" + kLostAndFoundName, lostProblem);
    checkConstraint(dir, files, kind, r);
    std::stable_sort(r.problems.begin(), r.problems.end(),
                     [](const StoreProblem& a, const StoreProblem& b) {
                         return a.kind != b.kind ? a.kind < b.kind : a.path < b.path;
                     });
    return r;
}

}  // namespace

Result<StoreReport> checkStore(const std::string& dir) {
    Status readable = checkReadable(dir);
    if (!readable.ok()) return readable;
    // Shared: a writer's change is either wholly before or wholly after what we read.
    msm::DirectoryLock lock;
    Status locked = msm::DirectoryLock::acquire(dir, msm::LockMode::Shared, {}, lock);
    if (!locked.ok()) return locked;
    return checkLocked(dir);
}

Result<StoreReport> repairStore(const std::string& dir, const LockOptions& options) {
    Status readable = checkReadable(dir);
    if (!readable.ok()) return readable;
    msm::DirectoryLock lock;
    Status locked = msm::DirectoryLock::acquire(dir, msm::LockMode::Exclusive,
                                                msm::LockWait{options.wait, options.notice}, lock);
    if (!locked.ok()) return locked;
    std::vector<std::string> repaired;
    for (const std::string& name : msm::removeOwnTemporaries(dir))
        repaired.push_back("removed " + dir + "/" + name);
    const StoreReport now = checkLocked(dir);
    const std::string lost = dir + "/" + kLostAndFoundName;
    std::vector<StoreProblem> toMove;
    for (const StoreProblem& p : now.problems) {
        if (p.kind == StoreProblemKind::Orphan) toMove.push_back(p);
        // A listed person whose dictionary does not load keeps its entry (the only record of the
        // ID number, as for missing files) but its files go aside, where nothing loads them.
        if (p.kind == StoreProblemKind::UnreadableFile && personStemOfDictionary(p.path) != "")
            for (const char* ext : {".dck", ".mck", ".bmp", ".dckev"}) {
                const std::string file = personStemOfDictionary(p.path) + ext;
                if (exists(file)) toMove.push_back(StoreProblem{p.kind, file, p.message, false});
            }
    }
    // Every move is made relative to the two folders as opened here: a folder swapped for a link
    // meanwhile cannot take a file out of the directory.
    msm::FileDescriptor dirFd, lostFd;
    for (const StoreProblem& p : toMove) {
        if (!lostFd.valid()) {
            Status opened = openLostAndFound(dir, dirFd, lostFd);
            if (!opened.ok()) return opened;
        }
        const std::string name = p.path.substr(p.path.find_last_of('/') + 1);
        std::string target = name;
        for (int n = 1; existsAt(lostFd.get(), target) && n < 1000; ++n)
            target = name + "." + std::to_string(n);
        if (::renameat(dirFd.get(), name.c_str(), lostFd.get(), target.c_str()) != 0)
            return Status::failure(ErrorKind::File, p.path + ": cannot be moved to " + lost + " (" +
                                                        std::strerror(errno) + ")");
        repaired.push_back("moved " + p.path + " to " + lost + "/" + target);
    }
    StoreReport after = checkLocked(dir);
    after.repaired = std::move(repaired);
    return after;
}

}  // namespace msmface
