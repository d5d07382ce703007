// What a Gallery and its Streams share, and the steps both take to fill an engine with the
// persons of a dictionary directory.
#ifndef MSMFACE_GALLERY_GALLERY_IMPL_H
#define MSMFACE_GALLERY_GALLERY_IMPL_H

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include <msmface/frame.h>
#include <msmface/gallery.h>

#include "core/constraint_spaces.h"
#include "core/input.h"
#include "core/snapshot.h"
#include "gallery/face_reader.h"
#include "gallery/pattern_settings.h"
#include "normalise/face_cropping.h"
#include "store/store_files.h"
#include "store/store_lock.h"

namespace msmface::detail {

inline Status fail(ErrorKind kind, std::string message) {
    return Status::failure(kind, std::move(message));
}

inline bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// The path with every link resolved, or as given when it does not resolve.
inline std::string absolute(const std::string& path) {
    const std::string real = msm::realPath(path);
    return real.empty() ? path : real;
}

inline bool hasBlank(const std::string& s) {
    return s.find_first_of(" \t\n\r\v\f") != std::string::npos;
}

// What recognitions score against: the persons with one snapshot of their dictionaries (projected
// into the directory's constraint spaces when it has a list that loads). Never changed once
// published: a change of the directory publishes a new one, and a stream keeps the one it
// scores against alive while it uses it.
struct GalleryView {
    std::vector<Person> persons;  // snapshot order
    std::shared_ptr<const core::Snapshot> snapshot;
    // The loaded spaces, kept so that a person added later is projected into the same ones.
    std::shared_ptr<const core::ConstraintSpaces> spaces;
    // Why the constraint-space methods cannot be used (empty when the snapshot holds spaces).
    std::string spaceError;
    ErrorKind spaceErrorKind = ErrorKind::NotFound;
    // Raised whenever the persons change: a stream's ranking may name persons who are gone.
    uint64_t personsRevision = 0;
};

// The directory's persons as this process knows them, shared by the gallery (the one writer)
// and its streams (readers, each on its own thread).
struct GalleryState {
    std::string dir;
    // Read when the gallery opens the directory and never changed: a directory keeps its kind.
    PatternKind kind = PatternKind::Seed;
    const PatternSettings& settings() const { return patternSettings(kind); }
    // Held exclusively by the gallery while it changes the directory's files and the fields
    // below, shared by a stream while it copies them and reads the files they name.
    mutable std::shared_mutex mutex;
    std::vector<Person> persons;   // with a valid dictionary, registry order = the view's order
    std::vector<Person> orphans;   // listed without a dictionary file
    std::vector<LeftOut> leftOut;  // every listed person not in persons, orphans included
    std::vector<Person> listed;    // the registry as read, in its order
    int threshold = kDefaultIdentifyThreshold;
    std::shared_ptr<const GalleryView> view;  // replaced whole, under the lock
    uint64_t nextRevision = 1;
    // Raised after every change under the lock; a stream whose copy is older reloads.
    std::atomic<uint64_t> generation{0};
    // The directory's files as the fields above were read from them.
    msm::DirectoryStamp stamp;
    // The directory, open for as long as any engine of this state may name its files through it.
    msm::FileDescriptor folder;

    uint64_t newRevision() { return nextRevision++; }
};

// The registry and the stored threshold, with the listed persons split into those an engine can
// load and the others.
struct Listing {
    std::vector<Person> listed;    // registry order
    std::vector<Person> persons;   // a valid dictionary each
    std::vector<Person> orphans;   // without a dictionary file
    std::vector<LeftOut> leftOut;  // every listed person not in persons, with the reason
    int threshold = kDefaultIdentifyThreshold;
    std::shared_ptr<GalleryView> view;  // the persons' snapshot
};

// Reads the registry and the threshold, and every listed person's dictionary once, checked and
// laid into the listing's view (with the directory's constraint spaces). requires: the caller
// holds the directory's lock (shared or exclusive) or accepts a view that a writer may change
// meanwhile.
std::string readListed(const GalleryState& state, Listing& out);

// A view of the persons of `previous` with `added` appended (its dictionary read and checked
// from the directory), or without the person of `removedId`; the other persons' rows are copied
// from the previous snapshot, their files are not read again.
Result<std::shared_ptr<GalleryView>> viewWith(const GalleryState& state,
                                              const GalleryView& previous, const Person& added);
Result<std::shared_ptr<GalleryView>> viewWithout(const GalleryView& previous, int removedId);
// The view of the same persons with the directory's constraint spaces loaded again.
Result<std::shared_ptr<GalleryView>> viewWithSpaces(const GalleryState& state,
                                                    const GalleryView& previous);
// Makes the view the state's current one; a view of other persons gets a new revision.
// requires: the state's lock held exclusively.
void publishView(GalleryState& state, std::shared_ptr<GalleryView> view, bool personsChanged);

// NotFound, naming the directory, when it is no longer there.
Status checkDirectoryPresent(const std::string& dir);

// Brings the shared list and view up to the directory when another process changed it since the
// list was read: once for the gallery and all its streams. requires: the directory's lock (shared
// or exclusive) and the state's lock exclusively. Returns the error of the directory's files.
std::string refreshFromDisk(GalleryState& state);

// The directory's lock as the gallery's options ask for it.
Status lockDirectory(const std::string& dir, msm::LockMode mode, const LockOptions& options,
                     msm::DirectoryLock& lock);

std::string constraintListPath(const std::string& dir);
bool hasConstraintList(const std::string& dir);
// The directory as an engine's constraint list names it: its absolute path or, where that holds
// a blank (which would split a token of the list), /proc/self/fd/N of the state's open folder.
std::string engineFolder(const GalleryState& state);
// The directory's constraint spaces for a snapshot, checked and placed as for an engine; null
// with the reason (and its kind: NotFound without a list, else File) when they do not load.
std::shared_ptr<const core::ConstraintSpaces> loadSpaces(const GalleryState& state,
                                                         std::string& error, ErrorKind& kind);

// For tests: called with the stem of a rebuilt constraint space once its files are written, before
// they are loaded and the list names them (null: nothing).
void setSpaceWrittenHook(std::function<void(const std::string& stem)> hook);

// An empty string or the reason the method or threshold cannot be used.
std::string checkMethod(Method m);
std::string checkThresholdOption(int threshold);

// Persons in the engine's ranked list of a recognition, best first, ties in inside order.
// scores: per inside number, -1 where none was computed.
Ranking rankingOf(const std::vector<Person>& persons, const std::vector<int>& scores,
                  int threshold);
// The core's method of a gallery method.
core::Method coreMethod(Method m);
// The input's last ranking as scores per person of the snapshot.
std::vector<int> scoresOf(const core::Input& input, int persons);

}  // namespace msmface::detail

namespace msmface {

// The gallery's side: the directory's one writer in this process, with an engine that recognises.
// Enrolments and rebuilds write their files through the dictionary and constraint components.
class Gallery::Impl {
  public:
    explicit Impl(const std::string& dir) : state(std::make_shared<detail::GalleryState>()) {
        state->dir = dir;
    }

    const std::string& dir() const { return state->dir; }

    // Reads the registry and the threshold and publishes a view of the listed persons that have
    // a valid dictionary. Called with the state's lock held exclusively, or before any stream
    // exists.
    Status load();
    // Starts a change: takes the directory's lock exclusively (kept in lock until the change is
    // done), removes the temporaries of killed writers, and reads the directory again when another
    // process changed it. The change ends with finishWrite, under the same lock.
    Status beginWrite(msm::DirectoryLock& lock);
    void finishWrite();
    // Reads the directory again when its stamp differs from the loaded one. requires: the
    // directory's lock is held.
    Status reloadIfChanged();
    Status checkWritable() const;
    int findPerson(int id) const;
    // Frames, and descriptors, that cannot be read are refused before the directory is touched;
    // so are descriptors handed to a gallery of Seed patterns.
    Status checkSamples(const std::vector<Sample>& frames) const;
    // The sample's frame in grey into image, and its points; none when it has no face.
    std::optional<PartsPosition> greyFrame(const Sample& sample);
    // A gallery of descriptors: the sample's face as the pattern the core compares (kDescriptorSize
    // floats): its own descriptor, or the one the descriptor finder gives. False when it has
    // none; fails (Argument, naming the frame of the count) on a finder's descriptor that is not
    // one.
    Result<bool> descriptorPattern(const Sample& sample, std::size_t index, std::size_t count,
                                   float* pattern);
    void removePersonFiles(const std::string& name) const;
    // The first file of a person of this key name that exists in the directory (any type, a
    // dangling link included), or empty.
    std::string existingPersonFile(const std::string& name) const;

    // The directory changed under the gallery's write lock (the state's lock held exclusively):
    // a new view is published. personAdded: the person's files and registry entry are written;
    // personRemoved: its entry and files are gone (reads no file, cannot fail);
    // constraintRebuilt: the list names a new space.
    Status personAdded(const Person& p);
    void personRemoved(int id);
    Status constraintRebuilt();

    std::shared_ptr<detail::GalleryState> state;
    // The directory's files as this gallery last read them: a stream may bring the shared state up
    // to another process's change first, and the gallery still compares the disk with these.
    msm::DirectoryStamp loadedStamp;
    std::shared_ptr<PointFinder> finder;
    std::shared_ptr<DescriptorFinder> describer;  // a gallery of descriptors' finder
    LockOptions lockOptions;
    std::function<bool()> interrupted;                                 // OpenOptions::interrupted
    std::unique_ptr<detail::FaceReader> reader;                        // the recognitions' faces
    BasicImageFile image;                                              // the current frame in grey
    BasicImageFile face{kNormalisedFaceSize, kNormalisedFaceSize, 8};  // its normalised face
};

}  // namespace msmface

#endif  // MSMFACE_GALLERY_GALLERY_IMPL_H
