// The modern face of the library: a gallery of persons kept in a dictionary directory, and
// streams that recognise the faces of a camera against it. It does in a few calls what a host of
// the legacy FaceRecognition / IDDatabase interface writes for itself (the registry of persons,
// ID number and key name, kept in step with their files, the enrolment sequence and the frame
// cycle), on the library's recognition core instead of an engine: one snapshot of the persons'
// dictionaries serves the gallery and all its streams, whatever the number of persons.
//
// Ownership and lifetime. A Gallery owns one snapshot of its persons' dictionaries, shared by its
// streams; it is movable, not copyable (a moved-from Gallery or Stream may only be assigned to or
// destroyed). A Stream shares the gallery's list of persons and its snapshot (not the Gallery
// object): it may outlive the Gallery, and then keeps recognising the persons it last saw. Frames
// and points are read during a call and never kept.
//
// Threads. One thread at a time per Gallery and per Stream. Streams of one gallery may run on
// different threads at once (each has its own input; none copies the persons' dictionaries),
// also while the gallery changes (enrol, remove, rebuildConstraint,
// setThreshold): a stream picks such a change up at its next frame, keeping the face it is
// gathering. A change waits while a stream takes the new snapshot, and a stream waits for a change
// to finish; frames themselves never wait.
//
// Errors. Every call that can fail returns a Status or a Result carrying one line of text
// (<msmface/result.h>); nothing is thrown. A call that fails leaves the directory as it was.
#ifndef MSMFACE_GALLERY_H
#define MSMFACE_GALLERY_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/export.h>
#include <msmface/frame.h>
#include <msmface/result.h>
#include <msmface/store.h>

namespace msmface {

namespace detail {
struct GalleryState;
}

// A frame and, when the caller knows them, its fourteen points. Without points the gallery's
// point finder (setPointFinder) looks for the face; without a finder the frame has no face. A
// frame whose fourteen points are all absent has no face either.
//
// In a gallery of descriptors (PatternKind::Descriptor) a face is its descriptor: a sample with
// one is that face (frame and points unused); without one the gallery's descriptor finder
// (setDescriptorFinder) looks at the frame; without a finder the frame has no face. A gallery of
// Seed patterns refuses samples that carry a descriptor (Argument).
struct Sample {
    FrameView frame;
    std::optional<FacePoints> points;
    // Initialised, so that a host's {frame, points} still gives every member -Wextra asks for.
    std::optional<FaceDescriptor> descriptor = std::nullopt;
};

// A listed person the gallery does not recognise, and why: the dictionary file is missing, does
// not read, or does not hold a valid dictionary.
struct LeftOut {
    Person person;
    std::string reason;  // one line naming the file and what is wrong
};

struct Match {
    int id = 0;
    std::string name;
    int score = 0;  // similarity in thousandths, 0 .. 1000
};

struct Ranking {
    std::vector<Match> matches;  // every scored person, best first (ties keep registry order)
    int framesUsed = 0;          // frames whose face could be normalised (a stream: its input's)
    int threshold = kDefaultIdentifyThreshold;
    // The best match when its score is strictly above the threshold.
    std::optional<Match> identified;
};

enum class Method : int {
    SinglePattern = 0,   // the newest frame's pattern; a run's score is averaged over its frames
    Msm = 1,             // input subspace of the recent frames against each person (default)
    CmsmFirstSpace = 2,  // the same inside the first constraint space only
    Cmsm = 4,            // the same inside every constraint space (rebuildConstraint first)
};

struct RecogniseOptions {
    Method method = Method::Msm;
    int threshold = -1;  // -1: the gallery's stored threshold
};

struct OpenOptions {
    bool create = false;  // create the directory (and its parent) when it does not exist
    // How every call that changes the directory waits for another process that is changing it:
    // by default it waits (and tells lock.notice whom it waits for); with lock.wait = false it
    // fails at once with ErrorKind::Busy.
    LockOptions lock = {};
    // Asked between frames by enrol and recognise, which may go through thousands of frames: when
    // it returns true the call stops there and fails (Argument, "interrupted"), leaving the
    // directory as it was. Lets a host honour a user's interrupt without waiting for the call to
    // end. Called on the calling thread; empty: never interrupted.
    std::function<bool()> interrupted = {};
    // The kind of pattern. A directory created by this open records it (empty: Seed); an existing
    // one keeps the kind it was created with, and a kind given here that differs fails
    // (Argument, naming both). Empty: whatever the directory holds. With create, an existing
    // directory of no recorded kind that holds nothing yet (no person, no person's file, no
    // threshold, no constraint space) takes the kind given.
    std::optional<PatternKind> patterns = {};
};

class MSMFACE_API Gallery {
  public:
    // Opens a dictionary directory and loads the persons of its registry and its stored
    // threshold. A listed person whose dictionary file is missing or listed under a key name the
    // directory keeps for its constraint space (both: orphans()), whose dictionary does not read,
    // or does not hold an orthonormal dictionary of the directory's shape is left out of
    // persons() and reported by leftOut(); the others are recognised, as many as memory holds.
    // Fails (File) on a registry, threshold or kind file that does not parse, naming it;
    // (NotFound) on a missing directory unless options.create.
    static Result<Gallery> open(const std::string& dir, const OpenOptions& options = {});

    Gallery(Gallery&&) noexcept;
    Gallery& operator=(Gallery&&) noexcept;
    ~Gallery();

    const std::string& directory() const;
    // The kind of pattern every person of the directory is made of.
    PatternKind patterns() const;
    // As of the last call that read the directory (open, refresh, recognise, any change).
    std::vector<Person> persons() const;  // registry order
    std::vector<Person> orphans() const;
    // Every listed person that is not in persons(), with the reason (orphans included), in
    // registry order: what a host shows its user as warnings.
    std::vector<LeftOut> leftOut() const;
    std::optional<Person> find(int id) const;

    // Reads the directory again when another process changed it since (a person enrolled or
    // removed, the constraint space or the threshold replaced). Waits while a change is written.
    // Fails (File) when the directory is gone.
    Status refresh();

    // Every call below that changes the directory holds the directory's lock for its whole
    // read-modify-write (other processes' changes are read again under it, so none is lost), and
    // first removes what writers killed earlier left (temporaries).

    // Registers a new person from frames (a registration gathers 50 normalised faces; frames
    // beyond are not used; a gallery of descriptors gathers up to 50 descriptors, makes a person
    // of one already and writes no picture). Writes the person's files first and the registry
    // last. requires: id >= 1 and unused; name of 1 to 64 letters, digits, '_', '-' or '.', not
    // starting with '.', unused, and none of the constraint space's ("cmsm", "cmsm-2", "cmsm-3"
    // in any case). Fails (File) while a file of that name that no entry lists is in the
    // directory: an enrolment neither replaces nor removes a file it did not create. An enrolment
    // leaves the constraint space as it is: a person enrolled after a rebuild is projected into
    // that space, which takes the person into account only from the next rebuildConstraint on.
    Status enrol(int id, const std::string& name, const std::vector<Sample>& frames);
    // Removes a person: the registry entry first, then the files (the files first where the
    // registry's replacement finds no room on the disk). Once the registry no longer lists the
    // person the call succeeds: the gallery drops the person without reading the directory again.
    // The constraint space stays as it is until the next rebuildConstraint.
    Status remove(int id);

    // Builds the constraint space (methods Cmsm) from every person and loads it. dimension: 1 to
    // 256 constraint vectors (a gallery of descriptors: 1 to 128, of use up to the directions the
    // persons' leading vectors span); at least two persons. The new space is loaded and checked
    // before the directory's list names it: a space that does not load is removed, and the old
    // one stays.
    Status rebuildConstraint(int dimension);
    bool hasConstraint() const;

    // Recognises frames as one face seen by a camera.
    Result<Ranking> recognise(const std::vector<Sample>& frames,
                              const RecogniseOptions& options = {});

    // The identify threshold stored in the directory (defaultIdentifyThreshold(patterns()) when
    // none is).
    int threshold() const;
    // Stores it (0 .. 1000) for every later open of the directory.
    Status setThreshold(int threshold);

    // Finds the points of samples that come without them. nullptr: none (the default).
    void setPointFinder(std::shared_ptr<PointFinder> finder);
    // A gallery of descriptors: finds the descriptors of samples that come without them.
    void setDescriptorFinder(std::shared_ptr<DescriptorFinder> finder);

    class Impl;

  private:
    explicit Gallery(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
    friend class Stream;
    friend class TrackRecognition;
};

struct StreamOptions {
    Method method = Method::Msm;
    int threshold = -1;    // -1: the gallery's stored threshold
    int refreshTime = -2;  // face-less frames before the input is cleared; -2: the default, 5
    std::shared_ptr<PointFinder> finder;  // used by push(frame); one per stream (it may follow)
    // A gallery of descriptors: used by push(frame) instead of finder.
    std::shared_ptr<DescriptorFinder> describer = nullptr;
};

// What a stream knows after a frame.
struct StreamState {
    bool face = false;  // this frame had a face that was normalised
    int frames = 0;     // faces in the current input (0 after it was cleared)
    Ranking ranking;    // empty until the first face was recognised
};

class MSMFACE_API Stream {
  public:
    // A stream over the gallery's current persons (and its constraint space for the Cmsm
    // methods: NotFound without one). Reads no file and copies no dictionary: every stream
    // scores against the gallery's one snapshot of its persons, and picks up a newer one at its
    // next push (the face being gathered is kept).
    static Result<Stream> create(Gallery& gallery, const StreamOptions& options = {});

    Stream(Stream&&) noexcept;
    Stream& operator=(Stream&&) noexcept;
    ~Stream();

    // One camera frame with the face's points: the face is normalised and recognised against
    // every person (points that do not give a face make a face-less frame). Fails (Argument) on
    // a bad view, and (File) when the directory is gone or a change of the gallery cannot be
    // loaded; the stream then tries again at its next frame. A person whose files
    // become unusable is left out (Gallery::leftOut), the others go on being recognised. A
    // gallery of descriptors normalises no face: it refuses points (Argument).
    Result<StreamState> push(const FrameView& frame, const FacePoints& points);
    // One camera frame without known points: the stream's finder looks for the face; without a
    // finder, or when it finds none, this is a face-less frame.
    Result<StreamState> push(const FrameView& frame);
    // A gallery of descriptors: one frame's face given by its descriptor. Fails (Argument) on a
    // gallery of Seed patterns, and on a descriptor that is not finite or has no length.
    Result<StreamState> push(const FaceDescriptor& descriptor);
    // A frame without a face (counts toward the refresh time), for hosts that find faces
    // themselves.
    Result<StreamState> pushWithoutFace();
    // Clears the input: the next face starts a new recognition.
    void reset();

    class Impl;

  private:
    explicit Stream(std::unique_ptr<Impl> impl);
    // The same on the gallery's shared state, for hosts that outlive the Gallery object.
    static Result<Stream> create(std::shared_ptr<detail::GalleryState> state,
                                 const StreamOptions& options);
    std::unique_ptr<Impl> impl_;
    friend class TrackRecognition;
};

}  // namespace msmface

#endif  // MSMFACE_GALLERY_H
