// The Gallery: opening a dictionary directory, reading it again when it changed, and recognising
// a run of frames against its persons.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "gallery/face_reader.h"
#include "gallery/frame_input.h"
#include "gallery/gallery_impl.h"
#include "io/folders.h"
#include "recognition/descriptor_patterns.h"
#include "store/patterns_file.h"
#include "store/registry.h"
#include "store/threshold_file.h"

namespace msmface {

using detail::fail;
using detail::GalleryState;

namespace {

constexpr std::size_t kMaxDirectoryName = 200;

std::string frameOf(std::size_t index, std::size_t count) {
    return "frame " + std::to_string(index + 1) + " of " + std::to_string(count);
}

// Why a directory without a kind file cannot become one of another kind: anything of the Seed
// patterns it may hold (persons, their files, a constraint space, a threshold). Empty when it
// holds none. requires: the directory's lock is held exclusively.
std::string heldSeedPatterns(const std::string& dir) {
    std::vector<Person> listed;
    std::string error = detail::loadRegistry(dir, listed);
    if (!error.empty()) return error;
    if (!listed.empty())
        return dir + ": lists " + std::to_string(listed.size()) + " person" +
               (listed.size() == 1 ? "" : "s") + " of seed patterns";
    for (const std::string& name : msm::regularFilesIn(dir))
        if (!msm::personStemOf(name).empty() || name == kThresholdFileName ||
            name == kConstraintListFileName)
            return dir + "/" + name + ": a file of seed patterns";
    return {};
}

// Makes the kind of the directory the asked one: an existing kind must be it; a directory without
// a kind file (Seed) that holds nothing yet is recorded as the asked kind when the open may create.
Status settleKind(const std::string& dir, const OpenOptions& options, PatternKind& kind) {
    const auto differs = [&dir](PatternKind held, PatternKind asked) {
        return fail(ErrorKind::Argument, dir + ": holds " + patternKindName(held) +
                                             " patterns, not " + patternKindName(asked) +
                                             " patterns (a directory keeps the kind it was "
                                             "created with)");
    };
    std::string error = detail::loadPatternKind(dir, kind);
    if (!error.empty()) return fail(ErrorKind::File, error);
    if (!options.patterns || *options.patterns == kind) return {};
    // Only a directory of no recorded kind can still take one, and only when asked to create.
    if (kind != PatternKind::Seed || !options.create || detail::exists(detail::patternsPath(dir)))
        return differs(kind, *options.patterns);
    msm::DirectoryLock lock;
    Status status = detail::lockDirectory(dir, msm::LockMode::Exclusive, options.lock, lock);
    if (!status.ok()) return status;
    // Under the lock: another process may have recorded a kind or enrolled meanwhile.
    error = detail::loadPatternKind(dir, kind);
    if (!error.empty()) return fail(ErrorKind::File, error);
    if (kind == *options.patterns) return {};
    if (detail::exists(detail::patternsPath(dir))) return differs(kind, *options.patterns);
    const std::string held = heldSeedPatterns(dir);
    if (!held.empty())
        return fail(ErrorKind::Argument, held + "; a directory of " +
                                             patternKindName(*options.patterns) +
                                             " patterns needs a new or empty one");
    // Under the lock, no temporary of a live writer is among these.
    msm::removeOwnTemporaries(dir);
    error = detail::savePatternKind(dir, *options.patterns);
    if (!error.empty()) return fail(ErrorKind::File, error);
    kind = *options.patterns;
    return {};
}

}  // namespace

// --- Gallery::Impl ------------------------------------------------------------------------------

Status Gallery::Impl::load() {
    // Taken before the files are read: a change after it shows as a newer stamp, never as one
    // that was missed.
    const msm::DirectoryStamp stamp = msm::stampOf(dir());
    Status present = detail::checkDirectoryPresent(dir());
    if (!present.ok()) return present;
    detail::Listing listing;
    std::string error = detail::readListed(*state, listing);
    if (!error.empty()) return fail(ErrorKind::File, error);
    detail::publishView(*state, std::move(listing.view), true);
    state->persons = std::move(listing.persons);
    state->orphans = std::move(listing.orphans);
    state->leftOut = std::move(listing.leftOut);
    state->listed = std::move(listing.listed);
    state->threshold = listing.threshold;
    state->stamp = stamp;
    loadedStamp = stamp;
    return {};
}

Status Gallery::Impl::reloadIfChanged() {
    if (msm::stampOf(dir()) == loadedStamp) return {};
    std::unique_lock<std::shared_mutex> lock(state->mutex);
    Status status = load();
    state->generation.fetch_add(1);
    return status;
}

Status Gallery::Impl::personAdded(const Person& p) {
    auto view = detail::viewWith(*state, *state->view, p);
    if (!view.ok()) return view.status();
    detail::publishView(*state, std::move(*view), true);
    return {};
}

void Gallery::Impl::personRemoved(int id) {
    // Only memory can fail a copy of rows already loaded; the view then keeps the person, whom
    // the next reload of the directory drops.
    auto view = detail::viewWithout(*state->view, id);
    if (view.ok()) detail::publishView(*state, std::move(*view), true);
}

Status Gallery::Impl::constraintRebuilt() {
    auto view = detail::viewWithSpaces(*state, *state->view);
    if (!view.ok()) return view.status();
    detail::publishView(*state, std::move(*view), false);
    return {};
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

int Gallery::Impl::findPerson(int id) const {
    for (std::size_t i = 0; i < state->persons.size(); ++i)
        if (state->persons[i].id == id) return static_cast<int>(i);
    return -1;
}

Status Gallery::Impl::checkSamples(const std::vector<Sample>& frames) const {
    const bool descriptors = state->kind == PatternKind::Descriptor;
    float pattern[kDescriptorSize];
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const Sample& s = frames[i];
        std::string error;
        if (s.descriptor && !descriptors)
            error = "a descriptor, but " + dir() +
                    " holds seed patterns (give the frame and its points)";
        else if (s.descriptor)
            // The frame of a sample with its descriptor is not used: it may be empty.
            error = msm::descriptorPattern(*s.descriptor, pattern);
        else
            error = detail::checkFrame(s.frame);
        if (!error.empty())
            return fail(ErrorKind::Argument, frameOf(i, frames.size()) + ": " + error);
    }
    return {};
}

Result<bool> Gallery::Impl::descriptorPattern(const Sample& sample, std::size_t index,
                                              std::size_t count, float* pattern) {
    FaceDescriptor found;
    const FaceDescriptor* descriptor = sample.descriptor ? &*sample.descriptor : nullptr;
    if (descriptor == nullptr) {
        if (!describer || !describer->findDescriptor(sample.frame, found)) return false;
        descriptor = &found;
    }
    const std::string error = msm::descriptorPattern(*descriptor, pattern);
    if (!error.empty())
        return fail(ErrorKind::Argument,
                    frameOf(index, count) + ": the descriptor finder gave " + error);
    return true;
}

std::optional<PartsPosition> Gallery::Impl::greyFrame(const Sample& sample) {
    FacePoints points;
    if (sample.points)
        points = *sample.points;
    else if (!finder || !finder->findPoints(sample.frame, points))
        return std::nullopt;
    if (!detail::toGrey(sample.frame, image)) return std::nullopt;
    PartsPosition parts = toPartsPosition(points);
    if (!anyPointPresent(parts)) return std::nullopt;
    return parts;
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
        const std::string made = msm::makeDirectories(dir);
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
    Status status = settleKind(dir, options, impl->state->kind);
    if (!status.ok()) return status;
    // Shared: a change another process is writing is either wholly in what we load or not at all.
    msm::DirectoryLock lock;
    status = detail::lockDirectory(dir, msm::LockMode::Shared, options.lock, lock);
    if (!status.ok()) return status;
    status = impl->load();
    if (!status.ok()) return status;
    return Gallery(std::move(impl));
}

const std::string& Gallery::directory() const {
    return impl_->dir();
}

PatternKind Gallery::patterns() const {
    return impl_->state->kind;
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

namespace {}  // namespace

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
    std::shared_ptr<const detail::GalleryView> view;
    {
        std::shared_lock<std::shared_mutex> lock(g.state->mutex);
        view = g.state->view;
    }
    const int n = static_cast<int>(view->persons.size());
    if (n == 0) {
        const std::vector<LeftOut> left = leftOut();
        if (left.empty()) return fail(ErrorKind::NotFound, g.dir() + ": no persons are enrolled");
        return fail(ErrorKind::NotFound, g.dir() + ": none of the " + std::to_string(left.size()) +
                                             " listed persons can be recognised (" +
                                             left.front().reason + ")");
    }
    const core::Snapshot& snapshot = *view->snapshot;
    const core::Method method = detail::coreMethod(options.method);
    const bool constrained = method == core::Method::Cmsm || method == core::Method::CmsmAllSpaces;
    if (constrained && snapshot.spaceCount() == 0)
        return fail(view->spaceErrorKind, view->spaceError);
    auto input = core::Input::create(snapshot, g.state->settings().input);
    if (!input.ok()) return input.status();
    const bool descriptors = g.state->kind == PatternKind::Descriptor;
    if (!descriptors && !g.reader)
        g.reader = std::make_unique<detail::FaceReader>(snapshot.shape());
    float descriptor[kDescriptorSize];
    const float* const descriptorRows[] = {descriptor};
    // The single-pattern method scores each frame alone: a run's score is the mean of its frames'.
    std::vector<double> sums(static_cast<std::size_t>(n), 0.0);
    std::vector<int> counts(static_cast<std::size_t>(n), 0);
    int framesUsed = 0;
    for (std::size_t k = 0; k < frames.size(); ++k) {
        const Sample& s = frames[k];
        if (g.interrupted && g.interrupted()) return fail(ErrorKind::Argument, "interrupted");
        if (descriptors) {
            Result<bool> face = g.descriptorPattern(s, k, frames.size(), descriptor);
            if (!face.ok()) return face.status();
            if (!*face) continue;
            (*input)->update(descriptorRows);
        } else {
            FacePoints points;
            if (s.points)
                points = *s.points;
            else if (!g.finder || !g.finder->findPoints(s.frame, points))
                continue;
            if (g.reader->read(s.frame, points) != detail::FaceRead::Face) continue;
            (*input)->update(g.reader->patterns());
        }
        ++framesUsed;
        if (method != core::Method::SinglePattern) continue;
        status = core::score(snapshot, **input, method);
        if (!status.ok()) return status;
        const std::vector<int> scores = detail::scoresOf(**input, n);
        for (int i = 0; i < n; ++i)
            if (scores[static_cast<std::size_t>(i)] >= 0) {
                sums[static_cast<std::size_t>(i)] += scores[static_cast<std::size_t>(i)];
                ++counts[static_cast<std::size_t>(i)];
            }
    }
    if (framesUsed == 0)
        return fail(ErrorKind::Argument,
                    descriptors ? "none of the frames gave a face (no descriptor, and no "
                                  "descriptor finder found one)"
                                : "none of the frames gave a face (check the points)");
    std::vector<int> scores(static_cast<std::size_t>(n), -1);
    if (method == core::Method::SinglePattern) {
        for (std::size_t i = 0; i < scores.size(); ++i)
            if (counts[i] > 0) scores[i] = static_cast<int>(sums[i] / counts[i]);
    } else {
        // The subspace methods' ranking depends on the input alone: scored once, at the end.
        status = core::score(snapshot, **input, method);
        if (!status.ok()) return status;
        scores = detail::scoresOf(**input, n);
    }
    const int threshold = options.threshold >= 0 ? options.threshold : this->threshold();
    Ranking ranking = detail::rankingOf(view->persons, scores, threshold);
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
    const std::string error = detail::saveThreshold(g.dir(), threshold, g.state->kind);
    if (!error.empty()) return fail(ErrorKind::File, error);
    g.finishWrite();
    g.state->threshold = threshold;
    g.state->generation.fetch_add(1);
    return {};
}

void Gallery::setPointFinder(std::shared_ptr<PointFinder> finder) {
    impl_->finder = std::move(finder);
}

void Gallery::setDescriptorFinder(std::shared_ptr<DescriptorFinder> finder) {
    impl_->describer = std::move(finder);
}

}  // namespace msmface
