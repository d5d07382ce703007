// Recognition of many faces at once: every face a tracker follows through a video is a track, and
// each track is recognised against the gallery as a Stream recognises one camera's face, with an
// input subspace of its own and the gallery's one shared snapshot of the persons' dictionaries.
// How the faces are found and followed is the host's business (the detector library's tracker,
// or a host's own): this turns the faces of numbered tracks into identities.
//
// A track is named a person only when the same person ranks first with a score strictly above
// the threshold at several faces in a row (confirmFrames), and once named it keeps that person
// for as long as it lives: a track never carries one person's name and then another's. Scores
// of single frames of a face turning or blurred by motion do put another person first now and
// then; the run of agreeing faces keeps such a frame from naming anybody, and the fixed identity
// keeps it from renaming somebody.
//
// Ownership and threads. A TrackRecognition shares the gallery's state (not the Gallery object,
// which it may outlive, as a Stream may) and picks up the gallery's changes at the next face of
// each track. One thread at a time per TrackRecognition. Frames are read during a call and never
// kept.
//
// Errors. Calls that can fail return a Status or a Result with one line naming the track and the
// argument; a call that fails changes no track.
#ifndef MSMFACE_TRACKS_H
#define MSMFACE_TRACKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <msmface/export.h>
#include <msmface/frame.h>
#include <msmface/gallery.h>
#include <msmface/result.h>

namespace msmface {

struct TrackOptions {
    Method method = Method::Msm;
    int threshold = -1;  // -1: the gallery's stored threshold
    // Faces in a row whose first-ranked person is the same one, strictly above the threshold,
    // before the track is named that person (1 .. 1000). Three: at a camera's 25 frames a second
    // a name comes 0.12 s after the input subspace first points at the person, while one stray
    // frame, or two, of another person above the threshold names nobody. One names a track at its
    // first face above the threshold (a Stream's own rule).
    int confirmFrames = 3;
    // Live tracks at once (1 .. 10000). A seed gallery's track holds about 8 MB: this bounds the
    // memory of a video with hundreds of small faces. A new track beyond it is refused.
    int maxTracks = 64;
};

enum class TrackEventKind : int {
    Started = 0,     // the first observation of a track number (or of one that had ended)
    Identified = 1,  // the track was named a person; it keeps that person until it ends
    Ended = 2,       // end() or endAll(): the track is gone, its number free again
};

// What happened to a track. Fields that an event kind does not use hold their defaults.
struct TrackEvent {
    TrackEventKind kind = TrackEventKind::Started;
    int64_t track = 0;
    // Started and Identified: the frame (and its time, in the host's seconds) of the call that
    // caused the event. Ended: the track's last observed frame and time.
    int64_t frame = 0;
    double time = 0.0;
    // Identified: the person named. Ended: the person the track was identified as, or 0 and ""
    // when it never was.
    int person = 0;
    std::string name;
    // Identified: the person's score (thousandths) at that frame. Ended: the best score the
    // track reached: for an identified track its person's best score over the track's faces,
    // for an unknown one the best first-ranked score of any of its faces (how near it came).
    int score = 0;
    // Ended: the frames the track was observed at, with or without a usable face, and those
    // whose face was recognised.
    int framesSeen = 0;
    int facesUsed = 0;
};

// A live track as it stands after its last observation.
struct TrackStatus {
    int64_t track = 0;
    int64_t firstFrame = 0, lastFrame = 0;
    double firstTime = 0.0, lastTime = 0.0;
    int framesSeen = 0;
    int facesUsed = 0;
    // The person the track is identified as, or 0 and "" while it is unknown.
    int person = 0;
    std::string name;
    // The last recognised face's score of that person (identified), or of its first-ranked
    // person (unknown); 0 before any face.
    int score = 0;
};

class MSMFACE_API TrackRecognition {
  public:
    // Recognition of tracks against the gallery's persons (and its constraint space for the Cmsm
    // methods: NotFound without one). Fails (Argument) on options out of their ranges, naming the
    // option. Reads no file and copies no dictionary.
    static Result<TrackRecognition> create(Gallery& gallery, const TrackOptions& options = {});

    TrackRecognition(TrackRecognition&&) noexcept;
    TrackRecognition& operator=(TrackRecognition&&) noexcept;
    ~TrackRecognition();

    // Track `track` was seen at frame `frame` (time in seconds) with a face. A number that is not
    // live starts a new track with an empty input (Started first), also a number that ended
    // before: numbers may be reused, nothing of an ended track is carried into a new one. Within
    // a track the frame must rise and the time must not fall (Argument otherwise: a host that
    // replays or reorders frames would have the same face counted twice). Track numbers are 0
    // or more; a new track beyond maxTracks fails (Argument).
    //
    // A seed gallery takes a frame and the face's fourteen points (frames may change size from
    // call to call); a gallery of descriptors takes the face's descriptor. The other kind fails
    // (Argument). Returns the events of the call: Started, Identified, or none.
    Result<std::vector<TrackEvent>> observe(int64_t track, int64_t frame, double time,
                                            const FrameView& view, const FacePoints& points);
    Result<std::vector<TrackEvent>> observe(int64_t track, int64_t frame, double time,
                                            const FaceDescriptor& descriptor);
    // The track was followed at this frame but its face could not be used (turned away, cut by
    // the border): counted in framesSeen, it neither adds to nor breaks a run of agreeing faces,
    // and the input keeps what it gathered.
    Result<std::vector<TrackEvent>> observeWithoutFace(int64_t track, int64_t frame, double time);

    // The track is gone (the tracker lost it): its Ended event. Fails (NotFound) on a number
    // that is not live.
    Result<TrackEvent> end(int64_t track);
    // Every live track ends (a cut to another shot, the end of a video), in track number order.
    std::vector<TrackEvent> endAll();

    // The live tracks, in track number order.
    std::vector<TrackStatus> tracks() const;
    const TrackOptions& options() const;

    class Impl;

  private:
    explicit TrackRecognition(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace msmface

#endif  // MSMFACE_TRACKS_H
