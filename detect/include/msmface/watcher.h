// Every face of a video, named: the one place where a frame becomes named tracks. A Watcher runs
// a Tracker over the frames, gives each tracked face to its own track of a TrackRecognition (the
// fourteen points for a gallery of seed patterns, the face's descriptor for a gallery of
// descriptors) and hands back, frame by frame, the faces with their identities and one stream of
// events: a track started, was identified as a person, ended. Hosts (the msmface program, the
// Python module, a camera's own loop) all see the same events for the same frames.
//
// Time. Each frame comes with its time in seconds. A time that is not a finite number, or that is
// before the previous frame's, breaks the video as a cut does: every track ends (their Ended
// events come first in that frame) and the frame is taken as the first of a new shot. A time that
// is not finite is then recorded as the previous frame's time (0 at the first frame), so that
// every event carries a finite time.
//
// Ownership and threads. A Watcher belongs to one video or camera and is used by one thread at a
// time. It shares the Detector's model and the gallery's state (it may outlive the Gallery object
// and picks up its changes as a Stream does). With WatcherOptions::threads above 1 the faces of a
// frame are described on that many threads at once, each with a Descriptor of its own; the
// events and identities are those of a single thread, exactly. Movable, not copyable.
#ifndef MSMFACE_WATCHER_H
#define MSMFACE_WATCHER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <msmface/detect.h>
#include <msmface/gallery.h>
#include <msmface/result.h>
#include <msmface/tracker.h>
#include <msmface/tracks.h>

namespace msmface {

struct WatcherOptions {
    TrackerOptions tracker;
    TrackOptions recognition;
    // Where the descriptor model is (DescriptorOptions::modelPath of <msmface/descriptor.h>: the
    // model's folder or its manifest; empty: MSMFACE_DESCRIPTOR_MODEL, else the user's data
    // folder). Read only for a gallery of descriptors; a missing model fails create() with the
    // command that installs it.
    std::string descriptorModel;
    // Threads that describe the faces of a frame at once (a gallery of descriptors), 0 to 16.
    // 0: the machine's cores, at least 1 and at most 4. Each thread beyond the first loads a
    // descriptor of its own (about 6 MB and a fraction of a second at create()).
    int threads = 0;
};

// A face of the current frame and what its track is known as.
struct WatchedFace {
    int64_t track = 0;
    FaceBox box;
    FacePoints points;  // the fourteen, in this frame's pixels
    // The person the track is identified as, or 0 and "" while it is unknown.
    int person = 0;
    std::string name;
    // The track's last recognised face's score of that person (identified) or of its
    // first-ranked person (unknown); 0 before any face was recognised.
    int score = 0;
    // This frame's face was recognised (false: too small, turned away or too close to the border
    // to describe or normalise; the track still lives).
    bool used = false;
};

// Started: a new track (its number, the frame and box it was first seen at). Identified: the
// track was named a person; it keeps that person until it ends. Ended: the track is gone (not seen
// for a while, a cut, a time break, finish()).
using WatchEventKind = TrackEventKind;

// One event: the recognition's event of the track (<msmface/tracks.h>; for Ended, framesSeen
// counts the frames its face was seen in) and where the face was. Started: where it was first
// seen. Identified: where it is in that frame. Ended: where it was last seen. Fields an event kind
// does not use hold their defaults.
struct WatchEvent : TrackEvent {
    FaceBox box;
};

// What update() makes of one frame.
struct WatchedFrame {
    int64_t index = 0;  // frames given to update() so far, from 0; failed calls are not counted
    double time = 0.0;  // the frame's time as recorded (see the header's first comment)
    double change = 0;  // TrackerFrame::change
    // The picture cut to another shot (or changed size), or the time broke: every track ended.
    bool cut = false;
    bool timeBreak = false;          // the time was not finite or went backward
    std::vector<WatchedFace> faces;  // by track number
    std::vector<WatchEvent> events;  // Ended first (by track number), then Started, Identified
};

// A live track as it stands after the last frame: the recognition's status (a track the
// recognition had no room for is unknown, with framesSeen and facesUsed 0) and where its face was
// last seen.
struct WatchedTrack : TrackStatus {
    FaceBox box;
};

class MSMFACE_DETECT_API Watcher {
  public:
    // Fails (Argument) on options outside their ranges, naming the option; a gallery of
    // descriptors also needs the descriptor model (NotFound naming the command that installs it,
    // File for a damaged one), and a library built without the descriptor refuses such a
    // gallery (NotFound). Reads no person's file.
    static Result<Watcher> create(const Detector& detector, Gallery& gallery,
                                  const WatcherOptions& options = {});

    Watcher(Watcher&&) noexcept;
    Watcher& operator=(Watcher&&) noexcept;
    ~Watcher();

    // The next frame at `time` seconds. A frame view that breaks FrameView's requirements fails
    // (Argument, naming what is wrong) and changes nothing. A face whose recognition fails is
    // followed without being recognised; the frame does not fail for it.
    Result<WatchedFrame> update(const FrameView& frame, double time);
    // The video is over: every live track ends (their Ended events, by track number); the next
    // frame starts afresh. Track numbers go on upward.
    std::vector<WatchEvent> finish();
    // The live tracks, by track number.
    std::vector<WatchedTrack> tracks() const;
    // The threads that describe faces (1 for a seed gallery).
    int threads() const;

    class Impl;

  private:
    explicit Watcher(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace msmface

#endif  // MSMFACE_WATCHER_H
