// The Gallery: a dictionary directory, its registry and one engine that enrols, removes and
// recognises in it the way the msmface program always has.
#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

#include <msmface/FileSummary.h>
#include <msmface/store.h>

#include "dictionary/atomic_file.h"
#include "dictionary/dictionary_check.h"
#include "dictionary/registry.h"
#include "dictionary/threshold_file.h"
#include "engine/frame_input.h"
#include "engine/gallery_impl.h"
#include "numeric/diagnostics.h"
#include "recognition/constraint_list.h"

namespace msmface {

using detail::GalleryState;
using detail::PersonTable;

namespace {

constexpr std::size_t kMaxDirectoryName = 200;

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

Status fail(ErrorKind kind, std::string message) {
    return Status::failure(kind, std::move(message));
}

std::string absolute(const std::string& dir) {
    char buf[PATH_MAX];
    return ::realpath(dir.c_str(), buf) != nullptr ? std::string(buf) : dir;
}

// Creates dir and its missing parents.
std::string makeDirectories(const std::string& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? std::string() : dir + ": expected a folder, found a file";
    const std::size_t slash = dir.find_last_of('/', dir.size() > 1 ? dir.size() - 2 : 0);
    if (slash != std::string::npos && slash > 0) {
        std::string error = makeDirectories(dir.substr(0, slash));
        if (!error.empty()) return error;
    }
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return dir + ": cannot create the folder (" + std::strerror(errno) + ")";
    return {};
}

bool hasBlank(const std::string& s) {
    return s.find_first_of(" \t\n\r\v\f") != std::string::npos;
}

// A file only this process reads, such as a constraint list that names the directory through
// /proc/self/fd: in memory, named by /proc/self/fd/N while this object lives.
class MemoryFile {
  public:
    explicit MemoryFile(const std::string& text) {
        fd_.reset(::memfd_create("msmface", MFD_CLOEXEC));
        if (!fd_.valid()) {
            error_ = errno;
        } else if (::write(fd_.get(), text.data(), text.size()) !=
                   static_cast<ssize_t>(text.size())) {
            error_ = errno != 0 ? errno : EIO;
            fd_.reset(-1);
        }
    }
    bool ok() const { return fd_.valid(); }
    int error() const { return error_; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

  private:
    msm::FileDescriptor fd_;
    int error_ = 0;
};

bool namesBareStems(const msm::ConstraintList& list) {
    for (const msm::ConstraintListEntry& e : list.entries)
        for (const std::string* stem : {&e.stem, &e.stem2})
            if (!stem->empty() && stem->find('/') == std::string::npos) return true;
    return false;
}

// The list's text with its bare names placed in folder.
std::string constraintListText(const msm::ConstraintList& list, const std::string& folder) {
    const auto placed = [&folder](const std::string& stem) {
        return stem.find('/') == std::string::npos ? folder + "/" + stem : stem;
    };
    std::string text =
        std::to_string(list.entries.size()) + "\n" + std::to_string(list.selected + 1) + "\n";
    for (const msm::ConstraintListEntry& e : list.entries) {
        const std::string dimension = std::to_string(e.dimension);
        if (e.kind == msm::kKindFile)
            text += "CMSMF " + placed(e.stem) + " " + dimension + "\n";
        else if (e.kind == msm::kKindLearned)
            text += "CMSML " + placed(e.stem) + " " + dimension + " " + placed(e.stem2) + "\n";
        else
            text += "MSM\n";
    }
    return text;
}

}  // namespace

// --- Shared steps -------------------------------------------------------------------------------

namespace detail {

std::string loadPersons(FaceRecognition& engine, const std::string& dir,
                        const std::vector<Person>& persons, PersonTable& table) {
    IDDatabase& db = *engine.idDatabase;
    db.RemoveAllDictionary(false);
    table.clear();
    db.SetDicPath(dir.c_str());
    if (db.InitIdDictionary(static_cast<int>(persons.size())) != 1)
        return dir + ": more persons than the engine holds (" + std::to_string(kMaxLoadedPersons) +
               ")";
    for (const Person& p : persons) db.PushIdDictionary(table.add(p));
    if (persons.empty()) return {};
    int read = 0;
    {
        // Our own message names the file; the engine's words would only repeat it.
        msm::DiagnosticCapture quiet;
        read = db.ReadIdDictionaries();
    }
    if (read == 1) return {};
    for (const Person& p : persons) {
        const std::string path = dir + "/" + p.name + ".dck";
        char reason[512];
        if (msmface_describeFile(path.c_str(), reason, sizeof reason) < 0)
            return std::string(reason);
    }
    return dir + ": the persons' dictionaries do not load";
}

std::string readListed(const std::string& dir, Listing& out) {
    Listing l;
    std::string error = loadRegistry(dir, l.listed);
    if (!error.empty()) return error;
    error = loadThreshold(dir, kDefaultIdentifyThreshold, l.threshold);
    if (!error.empty()) return error;
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
        if (l.persons.size() >= static_cast<std::size_t>(kMaxLoadedPersons)) {
            l.leftOut.push_back({p, dir + ": " + who + " is beyond the " +
                                        std::to_string(kMaxLoadedPersons) +
                                        " persons an engine holds; ignored"});
            continue;
        }
        const std::string problem = msm::checkDictionaryFile(dck, msm::personDictionaryShape());
        if (!problem.empty()) {
            l.leftOut.push_back({p, problem + "; " + who + " ignored"});
            continue;
        }
        l.persons.push_back(p);
    }
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
    const std::string error = readListed(state.dir, listing);
    if (!error.empty()) return error;
    // Which persons another process replaced cannot be told from the registry: all are new.
    state.serials.clear();
    for (std::size_t i = 0; i < listing.persons.size(); ++i)
        state.serials.push_back(state.newSerial());
    state.persons = std::move(listing.persons);
    state.orphans = std::move(listing.orphans);
    state.leftOut = std::move(listing.leftOut);
    state.listed = std::move(listing.listed);
    state.threshold = listing.threshold;
    // The other process may have rebuilt the space as well.
    ++state.constraintRevision;
    state.stamp = stamp;
    state.generation.fetch_add(1);
    return {};
}

Status lockDirectory(const std::string& dir, msm::LockMode mode, const LockOptions& options,
                     msm::DirectoryLock& lock) {
    return msm::DirectoryLock::acquire(dir, mode, msm::LockWait{options.wait, options.notice},
                                       lock);
}

std::string constraintListPath(const std::string& dir) {
    return dir + "/" + kConstraintListFileName;
}

bool hasConstraintList(const std::string& dir) {
    return exists(constraintListPath(dir));
}

// Empty, or the first file of the list's spaces that does not hold a valid basis or eigenvalues. A
// list that does not read is left to the engine, which says so.
std::string checkConstraintFiles(const std::string& dir, const std::string& list) {
    msm::ConstraintList parsed;
    {
        msm::DiagnosticCapture quiet;
        if (msm::readConstraintList(list.c_str(), parsed) != msm::ListRead::Accepted) return {};
    }
    // A bare stem is one of the directory's own files.
    const auto at = [&](const std::string& stem) {
        return stem.find('/') == std::string::npos ? dir + "/" + stem : stem;
    };
    for (const msm::ConstraintListEntry& e : parsed.entries) {
        if (e.kind != msm::kKindFile && e.kind != msm::kKindLearned) continue;
        std::string problem =
            msm::checkDictionaryFile(at(e.stem) + ".dck", msm::constraintBasisShape());
        if (problem.empty())
            problem = msm::checkDictionaryFile(at(e.stem) + ".dckev", msm::constraintValuesShape());
        if (problem.empty() && e.kind == msm::kKindLearned && e.stem2 != e.stem)
            problem = msm::checkDictionaryFile(at(e.stem2) + ".dck", msm::constraintBasisShape());
        if (!problem.empty()) return problem;
    }
    return {};
}

std::string engineFolder(const GalleryState& state) {
    const std::string here = absolute(state.dir);
    if (!hasBlank(here) || !state.folder.valid()) return here;
    return "/proc/self/fd/" + std::to_string(state.folder.get());
}

std::string loadConstraintSpace(FaceRecognition& engine, const GalleryState& state) {
    const std::string& dir = state.dir;
    const std::string list = constraintListPath(dir);
    if (!hasConstraintList(dir))
        return dir + ": no constraint space yet (run \"msmface constraint " + dir + "\")";
    const std::string problem = msm::constraintListProblem(dir);
    if (!problem.empty()) return problem;
    const std::string invalid = checkConstraintFiles(dir, list);
    if (!invalid.empty())
        return list + ": the constraint space does not load (" + invalid +
               "); run \"msmface constraint\" again";
    int status = 0;
    {
        msm::DiagnosticCapture quiet;
        msm::ConstraintList parsed;
        std::optional<MemoryFile> placed;
        if (msm::readConstraintList(list.c_str(), parsed) == msm::ListRead::Accepted &&
            namesBareStems(parsed)) {
            placed.emplace(constraintListText(parsed, engineFolder(state)));
            if (!placed->ok())
                return list + ": cannot be read (" + std::strerror(placed->error()) + ")";
        }
        status = engine.InitConstraintMSM(placed ? placed->path().c_str() : list.c_str());
    }
    if (status <= 0)
        return list + ": the constraint space does not load (status " + std::to_string(status) +
               "); run \"msmface constraint\" again";
    engine.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
    engine.DicConvert();
    return {};
}

int engineMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
        case Method::Msm:
        case Method::CmsmFirstSpace:
        case Method::Cmsm:
            return static_cast<int>(m);
    }
    return -1;
}

std::string checkMethod(Method m) {
    if (engineMethod(m) >= 0) return {};
    return "method " + std::to_string(static_cast<int>(m)) +
           ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)";
}

std::string checkThresholdOption(int threshold) {
    if (threshold == -1 || (threshold >= 0 && threshold <= kMaxThreshold)) return {};
    return "threshold " + std::to_string(threshold) +
           ": expected 0 to 1000, or -1 for the gallery's stored one";
}

Ranking rankingOf(const std::vector<Person>& persons, const std::vector<int>& scores,
                  int threshold) {
    Ranking r;
    r.threshold = threshold;
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < scores.size() && i < persons.size(); ++i)
        if (scores[i] >= 0) order.push_back(i);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
    // The dictionaries are checked when they load; this only keeps a score the engine computed
    // past its scale from reaching a host that trusts the documented range.
    for (std::size_t i : order)
        r.matches.push_back(Match{persons[i].id, persons[i].name, std::min(scores[i], 1000)});
    if (!r.matches.empty() && r.matches.front().score > threshold) r.identified = r.matches.front();
    return r;
}

std::vector<int> currentScores(FaceRecognition& engine, int persons) {
    std::vector<int> scores(static_cast<std::size_t>(std::max(persons, 0)), -1);
    const RECOGRESULT* r = engine.Get_ResultRecog();
    const int length = std::max(persons, 10);
    for (int i = 0; r != nullptr && i < length; ++i) {
        const int who = r[i].id;
        if (who < 0 || who >= persons || r[i].similarity < 0) continue;
        scores[static_cast<std::size_t>(who)] = r[i].similarity;
    }
    return scores;
}

}  // namespace detail

// --- Gallery::Impl
// --------------------------------------------------------------------------------

Status Gallery::Impl::load(bool keepSerials) {
    // Taken before the files are read: a change after it shows as a newer stamp, never as one
    // that was missed.
    const msm::DirectoryStamp stamp = msm::stampOf(dir());
    // A stream that already brought the shared list up to these files gave their persons the
    // serials it loaded them under.
    keepSerials = keepSerials || stamp == state->stamp;
    Status present = detail::checkDirectoryPresent(dir());
    if (!present.ok()) return present;
    detail::Listing listing;
    std::string error = detail::readListed(dir(), listing);
    if (!error.empty()) return fail(ErrorKind::File, error);
    error = detail::loadPersons(*engine, dir(), listing.persons, table);
    if (!error.empty()) return fail(ErrorKind::File, error);
    std::vector<uint64_t> serials;
    for (const Person& p : listing.persons) {
        uint64_t serial = 0;
        for (std::size_t i = 0; keepSerials && i < state->persons.size(); ++i)
            if (state->persons[i].id == p.id && state->persons[i].name == p.name)
                serial = state->serials[i];
        serials.push_back(serial != 0 ? serial : state->newSerial());
    }
    state->persons = std::move(listing.persons);
    state->serials = std::move(serials);
    state->orphans = std::move(listing.orphans);
    state->leftOut = std::move(listing.leftOut);
    state->listed = std::move(listing.listed);
    state->threshold = listing.threshold;
    state->stamp = stamp;
    loadedPersons = state->persons;
    loadedStamp = stamp;
    return {};
}

Status Gallery::Impl::reloadIfChanged() {
    if (msm::stampOf(dir()) == loadedStamp) return {};
    std::unique_lock<std::shared_mutex> lock(state->mutex);
    engine = newEngine();
    table.clear();
    constraintLoaded = false;
    Status status = load();
    state->generation.fetch_add(1);
    return status;
}

Status Gallery::Impl::beginWrite(msm::DirectoryLock& lock) {
    Status status = detail::lockDirectory(dir(), msm::LockMode::Exclusive, lockOptions, lock);
    if (!status.ok()) return status;
    // Under the lock no live writer's temporary can be among them.
    msm::removeOwnTemporaries(dir());
    return reloadIfChanged();
}

void Gallery::Impl::finishWrite() {
    state->stamp = msm::stampOf(dir());
    loadedStamp = state->stamp;
}

Status Gallery::Impl::checkWritable() const {
    const std::string probe = dir() + "/.msmface-write-check" + std::to_string(::getpid());
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail(ErrorKind::File, dir() + ": the dictionary directory is not writable (" +
                                         std::strerror(errno) + ")");
    ::close(fd);
    ::unlink(probe.c_str());
    return {};
}

int Gallery::Impl::findPerson(int id) const {
    for (std::size_t i = 0; i < state->persons.size(); ++i)
        if (state->persons[i].id == id) return static_cast<int>(i);
    return -1;
}

Status Gallery::Impl::checkSamples(const std::vector<Sample>& frames) const {
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const std::string error = detail::checkFrame(frames[i].frame);
        if (!error.empty())
            return fail(ErrorKind::Argument, "frame " + std::to_string(i + 1) + " of " +
                                                 std::to_string(frames.size()) + ": " + error);
    }
    return {};
}

bool Gallery::Impl::crop(const Sample& sample) {
    FacePoints points;
    if (sample.points)
        points = *sample.points;
    else if (!finder || !finder->findPoints(sample.frame, points))
        return false;
    if (!detail::toGrey(sample.frame, image)) return false;
    PartsPosition parts = detail::toParts(points);
    if (!detail::anyPointPresent(parts)) return false;
    return engine->FaceCropping(&image, nullptr, &parts, &face) == 1;
}

void Gallery::Impl::removePersonFiles(const std::string& name) const {
    // The constraint space's files are never a person's, whatever the registry says.
    if (msm::isReservedKeyName(name)) return;
    for (const char* ext : msm::kPersonExtensions) ::unlink((dir() + "/" + name + ext).c_str());
}

std::string Gallery::Impl::existingPersonFile(const std::string& name) const {
    for (const char* ext : msm::kPersonExtensions) {
        const std::string path = dir() + "/" + name + ext;
        struct stat st {};
        // lstat: a link, a folder or a pipe of that name is in the way as much as a file is.
        if (::lstat(path.c_str(), &st) == 0) return path;
    }
    return {};
}

Status Gallery::Impl::loadConstraint() {
    const std::string error = detail::loadConstraintSpace(*engine, *state);
    if (!error.empty())
        return fail(detail::hasConstraintList(dir()) ? ErrorKind::File : ErrorKind::NotFound,
                    error);
    constraintLoaded = true;
    return {};
}

// --- Gallery ------------------------------------------------------------------------------------

Gallery::Gallery(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Gallery::Gallery(Gallery&&) noexcept = default;
Gallery& Gallery::operator=(Gallery&&) noexcept = default;
Gallery::~Gallery() = default;

Result<Gallery> Gallery::open(const std::string& dir, const OpenOptions& options) {
    if (dir.empty())
        return fail(ErrorKind::Argument, "the dictionary directory: expected a folder name");
    // The engine keeps the directory in a fixed buffer; refused before anything is created.
    if (dir.size() > kMaxDirectoryName)
        return fail(ErrorKind::Argument,
                    dir + ": the directory name is too long (at most 200 characters)");
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) {
        const int error = errno;
        if (!options.create)
            return fail(ErrorKind::NotFound, dir + ": the dictionary directory does not exist (" +
                                                 std::strerror(error) + ")");
        const std::string made = makeDirectories(dir);
        if (!made.empty()) return fail(ErrorKind::File, made);
        if (::stat(dir.c_str(), &st) != 0)
            return fail(ErrorKind::File,
                        dir + ": cannot create the folder (" + std::strerror(errno) + ")");
    }
    if (!S_ISDIR(st.st_mode))
        return fail(ErrorKind::File, dir + ": expected a dictionary directory, found a file");
    auto impl = std::make_unique<Impl>(dir);
    impl->state->folder.reset(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    impl->lockOptions = options.lock;
    impl->interrupted = options.interrupted;
    // Shared: a change another process is writing is either wholly in what we load or not at all.
    msm::DirectoryLock lock;
    Status status = detail::lockDirectory(dir, msm::LockMode::Shared, options.lock, lock);
    if (!status.ok()) return status;
    status = impl->load();
    if (!status.ok()) return status;
    return Gallery(std::move(impl));
}

const std::string& Gallery::directory() const {
    return impl_->dir();
}

std::vector<Person> Gallery::persons() const {
    // A stream may be bringing the shared list up to another process's change.
    std::shared_lock<std::shared_mutex> lock(impl_->state->mutex);
    return impl_->state->persons;
}

std::vector<Person> Gallery::orphans() const {
    std::shared_lock<std::shared_mutex> lock(impl_->state->mutex);
    return impl_->state->orphans;
}

std::vector<LeftOut> Gallery::leftOut() const {
    std::shared_lock<std::shared_mutex> lock(impl_->state->mutex);
    return impl_->state->leftOut;
}

Status Gallery::refresh() {
    Impl& g = *impl_;
    Status present = detail::checkDirectoryPresent(g.dir());
    if (!present.ok()) return present;
    if (msm::stampOf(g.dir()) == g.loadedStamp) return {};
    msm::DirectoryLock lock;
    Status status = detail::lockDirectory(g.dir(), msm::LockMode::Shared, g.lockOptions, lock);
    if (!status.ok()) return status;
    return g.reloadIfChanged();
}

std::optional<Person> Gallery::find(int id) const {
    std::shared_lock<std::shared_mutex> lock(impl_->state->mutex);
    const int index = impl_->findPerson(id);
    if (index < 0) return std::nullopt;
    return impl_->state->persons[static_cast<std::size_t>(index)];
}

Status Gallery::enrol(int id, const std::string& name, const std::vector<Sample>& frames) {
    Impl& g = *impl_;
    if (id < 1)
        return fail(ErrorKind::Argument,
                    "--id " + std::to_string(id) + ": expected an ID number of 1 or more");
    if (!detail::validKeyName(name))
        return fail(ErrorKind::Argument, "--name \"" + name +
                                             "\": expected 1 to 64 letters, digits, '_', '-' "
                                             "or '.', not starting with '.'");
    if (msm::isReservedKeyName(name))
        return fail(ErrorKind::Argument, "--name " + msm::reservedKeyNameReason(name));
    if (frames.empty())
        return fail(ErrorKind::Argument, "no frames: expected at least one image with its points");
    Status status = g.checkSamples(frames);
    if (!status.ok()) return status;
    // From here to the registry's replacement no other process changes the directory, and what
    // another one changed before is read again first: its person stays listed.
    msm::DirectoryLock directoryLock;
    status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    for (const Person& p : g.state->persons) {
        if (p.id == id)
            return fail(ErrorKind::Argument, "--id " + std::to_string(id) +
                                                 ": the ID number is taken by \"" + p.name + "\"");
        if (p.name == name)
            return fail(ErrorKind::Argument,
                        "--name " + name + ": the key name is taken by ID " + std::to_string(p.id));
    }
    for (const LeftOut& left : g.state->leftOut) {
        const Person& p = left.person;
        if (p.id != id && p.name != name) continue;
        const bool orphan = std::any_of(g.state->orphans.begin(), g.state->orphans.end(),
                                        [&](const Person& o) { return o.id == p.id; });
        return fail(ErrorKind::Argument,
                    "--id/--name: " + std::to_string(p.id) + " " + p.name +
                        (orphan ? " is listed without its files"
                                : " is listed but not loaded (" + left.reason + ")") +
                        "; delete it first");
    }
    // Every host of the directory loads every listed person: one more than an engine holds would
    // make the directory unusable to them.
    if (g.state->listed.size() >= static_cast<std::size_t>(kMaxLoadedPersons))
        return fail(ErrorKind::Argument,
                    g.dir() + ": already lists " + std::to_string(g.state->listed.size()) +
                        " persons, as many as an engine holds (" +
                        std::to_string(kMaxLoadedPersons) + "); delete one first");
    // A file of this name that no entry lists is the user's (a person taken out of the registry
    // by hand, a picture put there): the enrolment would replace it, and a failed one remove it.
    const std::string foreign = g.existingPersonFile(name);
    // Without a registry nothing tells a killed enrolment's files from a host's person: only
    // with one does a repair move them.
    if (!foreign.empty())
        return fail(ErrorKind::File,
                    foreign + ": exists, and no person of the registry names it; move it away" +
                        (exists(detail::registryPath(g.dir()))
                             ? std::string(" or run \"msmface check --repair\" (which moves it "
                                           "to ") +
                                   kLostAndFoundName + ")"
                             : std::string()));
    status = g.checkWritable();
    if (!status.ok()) return status;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    FaceRecognition& e = *g.engine;
    // The engine's writers say only that a file failed; which one and why is kept aside.
    msm::clearWriteFailure();
    if (e.idDatabase->SetNewKeyname(name.c_str()) != 1)
        return fail(ErrorKind::Internal, "the engine refused the key name");
    e.image_size_set(frames.front().frame.width, frames.front().frame.height);
    e.Set_RecogORRegist(2);
    e.Reset_gather_counter();
    int gathered = 0;
    bool interrupted = false;
    for (const Sample& s : frames) {
        if (e.Get_RecogORRegist() != 2) break;
        if (g.interrupted && g.interrupted()) {
            interrupted = true;
            break;
        }
        if (!g.crop(s)) continue;
        ++gathered;
        e.FrameProcess(2);
    }
    const bool ran = !interrupted && e.Get_RecogORRegist() != 2;
    const bool ok = ran && e.Get_RegistCondition();
    e.Set_RecogORRegist(1);
    // The picture's writer reports no failure of its own (hosts of the engine rely on that); a
    // gallery keeps a person only with all files complete.
    const std::string writeFailure = msm::lastWriteFailure();
    if (!ok || !writeFailure.empty()) {
        e.idDatabase->FreeNewKeyname();
        g.removePersonFiles(name);
        if (!writeFailure.empty()) return fail(ErrorKind::File, writeFailure);
        if (interrupted) return fail(ErrorKind::Argument, "interrupted");
        if (!ran)
            return fail(ErrorKind::Argument,
                        "only " + std::to_string(gathered) + " of " +
                            std::to_string(frames.size()) +
                            " frames gave a face; a registration needs " +
                            std::to_string(e.Get_DICACQUISITIONNUM()) +
                            " (add --copies and --jitter to make more from few)");
        return fail(ErrorKind::Argument, "the registration of \"" + name +
                                             "\" failed: its faces span too few directions");
    }
    std::vector<Person> next = g.state->listed;
    next.push_back(Person{id, name});
    const std::string error = detail::saveRegistry(g.dir(), next);
    if (!error.empty()) {
        e.idDatabase->FreeNewKeyname();
        g.removePersonFiles(name);
        return fail(ErrorKind::File, error);
    }
    g.finishWrite();
    g.state->persons.push_back(Person{id, name});
    g.state->listed.push_back(Person{id, name});
    g.state->serials.push_back(g.state->newSerial());
    g.loadedPersons.push_back(Person{id, name});
    e.idDatabase->AddNewDictionary(g.table.add(Person{id, name}));
    e.idDatabase->ReadIdDictionaries();
    if (g.constraintLoaded) {
        // The registration moved the space itself; the engine projects only under the
        // all-spaces method, whichever method the last recognition used.
        e.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
        e.DicConvert();
    }
    g.state->generation.fetch_add(1);
    return {};
}

Status Gallery::remove(int id) {
    Impl& g = *impl_;
    msm::DirectoryLock directoryLock;
    Status status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    const int index = g.findPerson(id);
    // A person left out (no files, files that do not load) is removed all the same.
    int orphan = -1;
    for (std::size_t i = 0; i < g.state->leftOut.size(); ++i)
        if (g.state->leftOut[i].person.id == id) orphan = static_cast<int>(i);
    if (index < 0 && orphan < 0)
        return fail(ErrorKind::NotFound,
                    "--id " + std::to_string(id) + ": no person with this ID number in " + g.dir());
    status = g.checkWritable();
    if (!status.ok()) return status;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    const std::string name = index >= 0
                                 ? g.state->persons[static_cast<std::size_t>(index)].name
                                 : g.state->leftOut[static_cast<std::size_t>(orphan)].person.name;
    std::vector<Person> next;
    for (const Person& p : g.state->listed)
        if (p.id != id) next.push_back(p);
    std::string error = detail::saveRegistry(g.dir(), next);
    if (index >= 0) {
        msm::DiagnosticCapture quiet;
        g.engine->Deletion(index, true);
    }
    if (!error.empty()) {
        // The registry's replacement needs room for its temporary, which on a full disk only the
        // person's own files can give: they go first, and the entry is written again. Should that
        // fail as well, the person is listed without files, which a load leaves out and another
        // deletion clears.
        g.removePersonFiles(name);
        error = detail::saveRegistry(g.dir(), next);
    }
    g.removePersonFiles(name);
    // The engine leaves the record table to its host: start again from the files.
    g.engine = Impl::newEngine();
    g.table.clear();
    g.constraintLoaded = false;
    if (!error.empty()) {
        g.load(true);
        g.finishWrite();
        g.state->generation.fetch_add(1);
        return fail(ErrorKind::File, error);
    }
    status = g.load(true);
    if (!status.ok()) {
        // The person is gone from the registry and the disk whatever else does not load now.
        if (index >= 0) {
            g.state->persons.erase(g.state->persons.begin() + index);
            g.state->serials.erase(g.state->serials.begin() + index);
        }
        g.loadedPersons = g.state->persons;
        auto& orphans = g.state->orphans;
        orphans.erase(std::remove_if(orphans.begin(), orphans.end(),
                                     [id](const Person& p) { return p.id == id; }),
                      orphans.end());
        auto& leftOut = g.state->leftOut;
        leftOut.erase(std::remove_if(leftOut.begin(), leftOut.end(),
                                     [id](const LeftOut& p) { return p.person.id == id; }),
                      leftOut.end());
        g.state->listed = std::move(next);
    }
    g.finishWrite();
    g.state->generation.fetch_add(1);
    return status;
}

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
    ++g.state->constraintRevision;
    g.state->generation.fetch_add(1);
    return status;
}

bool Gallery::hasConstraint() const {
    return detail::hasConstraintList(impl_->dir());
}

Result<Ranking> Gallery::recognise(const std::vector<Sample>& frames,
                                   const RecogniseOptions& options) {
    Impl& g = *impl_;
    std::string error = detail::checkMethod(options.method);
    if (error.empty()) error = detail::checkThresholdOption(options.threshold);
    if (!error.empty()) return fail(ErrorKind::Argument, error);
    Status status = g.checkSamples(frames);
    if (!status.ok()) return status;
    // Another process's enrolment or deletion since the last call counts for this recognition.
    status = refresh();
    if (!status.ok()) return status;
    const int n = static_cast<int>(g.loadedPersons.size());
    if (n == 0) {
        const std::vector<LeftOut> left = leftOut();
        if (left.empty()) return fail(ErrorKind::NotFound, g.dir() + ": no persons are enrolled");
        return fail(ErrorKind::NotFound, g.dir() + ": none of the " + std::to_string(left.size()) +
                                             " listed persons can be recognised (" +
                                             left.front().reason + ")");
    }
    const int method = detail::engineMethod(options.method);
    if ((options.method == Method::CmsmFirstSpace || options.method == Method::Cmsm) &&
        !g.constraintLoaded) {
        status = g.loadConstraint();
        if (!status.ok()) return status;
    }
    FaceRecognition& e = *g.engine;
    e.Set_recognitionmethod(method);
    e.Set_RecognitionResultMode(1, std::max(n, 10));
    e.Set_RecogORRegist(1);
    e.Refresh_input();
    // The single-pattern method scores each frame alone: a run's score is the mean of its frames'.
    std::vector<double> sums(static_cast<std::size_t>(n), 0.0);
    std::vector<int> counts(static_cast<std::size_t>(n), 0);
    int framesUsed = 0;
    std::vector<int> last;
    for (const Sample& s : frames) {
        if (g.interrupted && g.interrupted()) {
            e.Refresh_input();
            return fail(ErrorKind::Argument, "interrupted");
        }
        if (!g.crop(s)) continue;
        ++framesUsed;
        if (e.FrameProcess(2) != 13) continue;
        if (options.method != Method::SinglePattern) continue;
        const std::vector<int> scores = detail::currentScores(e, n);
        for (int i = 0; i < n; ++i)
            if (scores[static_cast<std::size_t>(i)] >= 0) {
                sums[static_cast<std::size_t>(i)] += scores[static_cast<std::size_t>(i)];
                ++counts[static_cast<std::size_t>(i)];
            }
    }
    if (framesUsed == 0)
        return fail(ErrorKind::Argument, "none of the frames gave a face (check the points)");
    std::vector<int> scores(static_cast<std::size_t>(n), -1);
    if (options.method == Method::SinglePattern) {
        for (std::size_t i = 0; i < scores.size(); ++i)
            if (counts[i] > 0) scores[i] = static_cast<int>(sums[i] / counts[i]);
    } else {
        scores = detail::currentScores(e, n);
    }
    const int threshold = options.threshold >= 0 ? options.threshold : this->threshold();
    Ranking ranking = detail::rankingOf(g.loadedPersons, scores, threshold);
    if (ranking.matches.empty())
        return fail(ErrorKind::Argument, "too few frames gave a face to form an input subspace");
    ranking.framesUsed = framesUsed;
    return ranking;
}

int Gallery::threshold() const {
    std::shared_lock<std::shared_mutex> lock(impl_->state->mutex);
    return impl_->state->threshold;
}

Status Gallery::setThreshold(int threshold) {
    Impl& g = *impl_;
    if (threshold < 0 || threshold > detail::kMaxThreshold)
        return fail(ErrorKind::Argument,
                    "threshold " + std::to_string(threshold) + ": expected 0 to 1000");
    msm::DirectoryLock directoryLock;
    Status status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    const std::string error = detail::saveThreshold(g.dir(), threshold);
    if (!error.empty()) return fail(ErrorKind::File, error);
    g.finishWrite();
    g.state->threshold = threshold;
    g.state->generation.fetch_add(1);
    return {};
}

void Gallery::setPointFinder(std::shared_ptr<PointFinder> finder) {
    impl_->finder = std::move(finder);
}

}  // namespace msmface
