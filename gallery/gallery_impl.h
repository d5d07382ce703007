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

#include <msmface/FaceRecognition.h>
#include <msmface/frame.h>
#include <msmface/gallery.h>

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
// The engine is made for this camera size; an enrolment sets the size of its own frames.
inline constexpr int kDefaultFrameWidth = 320;
inline constexpr int kDefaultFrameHeight = 240;
inline constexpr int kFaceSide = 64;

// The directory's persons as this process knows them, shared by the gallery (the one writer)
// and its streams (readers, each on its own thread).
struct GalleryState {
    std::string dir;
    // Held exclusively by the gallery while it changes the directory's files and the fields
    // below, shared by a stream while it copies them and reads the files they name.
    mutable std::shared_mutex mutex;
    std::vector<Person> persons;  // with a dictionary file, registry order = the engine's order
    // One per person: a number that changes whenever the person's files may have changed, so
    // that a stream reloads only the persons who are new to it.
    std::vector<uint64_t> serials;
    std::vector<Person> orphans;   // listed without a dictionary file
    std::vector<LeftOut> leftOut;  // every listed person not in persons, orphans included
    std::vector<Person> listed;    // the registry as read, in its order
    int threshold = kDefaultIdentifyThreshold;
    uint64_t constraintRevision = 0;  // raised when the constraint space was rebuilt
    uint64_t nextSerial = 1;
    // Raised after every change under the lock; a stream whose copy is older reloads.
    std::atomic<uint64_t> generation{0};
    // The directory's files as the fields above were read from them.
    msm::DirectoryStamp stamp;
    // The directory, open for as long as any engine of this state may name its files through it.
    msm::FileDescriptor folder;

    uint64_t newSerial() { return nextSerial++; }
};

// The registry and the stored threshold, with the listed persons split into those an engine can
// load and the others.
struct Listing {
    std::vector<Person> listed;    // registry order
    std::vector<Person> persons;   // a valid dictionary each, at most kMaxLoadedPersons
    std::vector<Person> orphans;   // without a dictionary file
    std::vector<LeftOut> leftOut;  // every listed person not in persons, with the reason
    int threshold = kDefaultIdentifyThreshold;
};

// Reads the registry and the threshold and checks every listed person's dictionary. requires: the
// caller holds the directory's lock (shared or exclusive) or accepts a view that a writer may
// change meanwhile.
std::string readListed(const std::string& dir, Listing& out);

// NotFound, naming the directory, when it is no longer there.
Status checkDirectoryPresent(const std::string& dir);

// Brings the shared list up to the directory when another process changed it since the list was
// read: persons keep their serial only where the list already matched the directory, so a stream
// reads again every person whose files may have changed. requires: the directory's lock (shared
// or exclusive) and the state's lock exclusively. Returns the error of the directory's files.
std::string refreshFromDisk(GalleryState& state);

// The directory's lock as the gallery's options ask for it.
Status lockDirectory(const std::string& dir, msm::LockMode mode, const LockOptions& options,
                     msm::DirectoryLock& lock);

// The database records an engine points into: HumanID holds a bare char*, so the names live
// here, at addresses that stay put while records are added.
class PersonTable {
  public:
    void clear() {
        records_.clear();
        names_.clear();
    }
    HumanID* add(const Person& p) {
        names_.push_back(p.name);
        records_.push_back(HumanID{p.id, names_.back().data()});
        return &records_.back();
    }

  private:
    std::deque<std::string> names_;
    std::deque<HumanID> records_;
};

// Empties the engine's database and enters persons (inside number = index), reading their
// dictionaries from dir. Returns an empty string or a one-line reason naming the file that does
// not load.
std::string loadPersons(FaceRecognition& engine, const std::string& dir,
                        const std::vector<Person>& persons, PersonTable& table);

std::string constraintListPath(const std::string& dir);
bool hasConstraintList(const std::string& dir);
// The directory as an engine's constraint list names it: its absolute path or, where that holds
// a blank (which would split a token of the list), /proc/self/fd/N of the state's open folder.
std::string engineFolder(const GalleryState& state);
// Loads the directory's constraint space into the engine and projects its persons (method 4).
// A list of bare names (that of a folder whose path holds blanks) is placed in the directory
// through engineFolder: the engine names the files through the state's folder from then on.
std::string loadConstraintSpace(FaceRecognition& engine, const GalleryState& state);

// For tests: called with the stem of a rebuilt constraint space once its files are written, before
// they are loaded and the list names them (null: nothing).
void setSpaceWrittenHook(std::function<void(const std::string& stem)> hook);

// The engine's method number; -1 for a value outside the enumeration.
int engineMethod(Method m);
// An empty string or the reason the method or threshold cannot be used.
std::string checkMethod(Method m);
std::string checkThresholdOption(int threshold);

// Persons in the engine's ranked list of a recognition, best first, ties in inside order.
// scores: per inside number, -1 where none was computed.
Ranking rankingOf(const std::vector<Person>& persons, const std::vector<int>& scores,
                  int threshold);
// The engine's current list as scores per inside number.
std::vector<int> currentScores(FaceRecognition& engine, int persons);

}  // namespace msmface::detail

namespace msmface {

// The gallery's side: the directory's one writer in this process, with an engine that recognises.
// Enrolments and rebuilds write their files through the dictionary and constraint components.
class Gallery::Impl {
  public:
    explicit Impl(const std::string& dir)
        : state(std::make_shared<detail::GalleryState>()), engine(newEngine()) {
        state->dir = dir;
    }

    static std::unique_ptr<FaceRecognition> newEngine() {
        return std::make_unique<FaceRecognition>(detail::kDefaultFrameWidth,
                                                 detail::kDefaultFrameHeight);
    }

    const std::string& dir() const { return state->dir; }

    // Reads the registry and the threshold and loads the listed persons that have a dictionary.
    // Called with the state's lock held exclusively, or before any stream exists. keepSerials:
    // persons already known keep their serial (their files did not change).
    Status load(bool keepSerials = false);
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
    Status checkSamples(const std::vector<Sample>& frames) const;
    // The sample's frame in grey into image, and its points; none when it has no face.
    std::optional<PartsPosition> greyFrame(const Sample& sample);
    // The sample's face normalised into the engine's next ring slot; false when it has none.
    bool crop(const Sample& sample);
    void removePersonFiles(const std::string& name) const;
    // The first file of a person of this key name that exists in the directory (any type, a
    // dangling link included), or empty.
    std::string existingPersonFile(const std::string& name) const;
    Status loadConstraint();

    // The gallery's recognition follows a change of the directory (gallery_follow.cpp). Each is
    // called with the directory's and the state's locks held, once the change is on disk (the
    // registry or the constraint list replaced) and the state's lists (persons, listed, serials,
    // orphans, leftOut) show it. After an enrolment: the new person, last in persons. After a
    // removal: the person's ID; this cannot fail, the directory no longer lists the person. After
    // a rebuild: the new space, whose list and files are checked to load.
    Status personAdded(const Person& p);
    void personRemoved(int id);
    Status constraintRebuilt();

    std::shared_ptr<detail::GalleryState> state;
    std::unique_ptr<FaceRecognition> engine;
    detail::PersonTable table;
    // What this engine holds, in its inside order, and the directory's files it was read from. A
    // stream may bring the shared list up to another process's change before the gallery reads
    // the disk again; the gallery's own engine is compared with the disk through these.
    std::vector<Person> loadedPersons;
    msm::DirectoryStamp loadedStamp;
    bool constraintLoaded = false;
    std::shared_ptr<PointFinder> finder;
    LockOptions lockOptions;
    std::function<bool()> interrupted;                             // OpenOptions::interrupted
    BasicImageFile image;                                          // the current frame in grey
    BasicImageFile face{detail::kFaceSide, detail::kFaceSide, 8};  // its normalised face
};

}  // namespace msmface

#endif  // MSMFACE_GALLERY_GALLERY_IMPL_H
