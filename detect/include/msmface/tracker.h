// Every face of a video as a track of its own: each face is detected, given a track number that
// stays with it while it is in the picture, followed between detections the way a Follower
// follows one face, and its track ends when it has not been seen for a while or when the
// picture cuts to another shot. Part of the detector library (<msmface/detect.h>).
//
// Both kinds of pattern are served: a track's face carries the fourteen points (for a stream of
// points) and the 68 landmarks (for Descriptor::compute, a stream of descriptors).
//
// Ownership and threads. A Tracker belongs to one camera or video and is used by one thread at a
// time; it shares its Detector's model, so several Trackers of one Detector may run on several
// threads. It is movable, not copyable.
#ifndef MSMFACE_TRACKER_H
#define MSMFACE_TRACKER_H

#include <cstdint>
#include <memory>
#include <vector>

#include <msmface/detect.h>

namespace msmface {

struct TrackerOptions {
    // At most this many faces are fitted and followed in one frame, the largest first: the work
    // of a frame stays bounded when a crowd of small faces is in the picture. 1 to 64.
    int maxFaces = 8;
    // Frames between whole-frame detections while every track is seen (a face of the
    // detector's window or larger entering the picture is found within this many frames). The whole
    // frame is also searched at once in a frame where a track was not found near its last place,
    // after a cut, and in every frame while no track lives. 1 to 1000; 1 detects every frame
    // afresh.
    int detectEvery = 10;
    // A track lives on this many frames without its face being seen, then it ends (a face
    // turned away or hidden for a moment keeps its number). 0 to 1000; the default is a stream's
    // refresh time.
    int keepUnseen = 5;
    // A frame whose change from the previous one (TrackerFrame::change, 0 to 1) is above this is
    // a cut to another shot and ends every track at once. Measured on the frames of
    // ../shared/faces: 99 % of the pairs of one video's frames (seconds apart) change by less,
    // 96 % of the pairs of two persons' frames by more (detect/README.md). 1 or more: cuts are
    // told by a change of the frame's size alone.
    double cutThreshold = 0.57;
    // Faces whose box side is under this many pixels are not tracked. The detector's window is
    // 80 pixels; below 80, smaller faces (down to 40) are looked for in a doubled copy of frames
    // at most DetectorOptions::upsampleBelowWidth wide and tall, which costs about four times a
    // search of the frame: while no track lives on the first frame and every detectEvery-th,
    // while tracks live on every detectEvery-th whole-frame search. 0 to 16384.
    int minFaceSide = 0;
};

// A face of the current frame.
struct TrackedFace {
    int64_t track = 0;         // from 1 upward; never given to another face within one Tracker
    DetectedFace face;      // box, score, the 68 landmarks and the fourteen points, in this frame
    bool detected = false;  // found by this frame's whole-frame search (else followed near)
};

struct TrackerEvent {
    enum class Kind { Started, Ended };
    Kind kind = Kind::Started;
    int64_t track = 0;
    int64_t frame = 0;       // Started: the frame it was first seen in (this one). Ended: this frame
    FaceBox box;          // Started: where it started. Ended: where it was last seen
    int64_t framesSeen = 0;  // Ended: the frames its face was seen in
    int64_t lastFrame = 0;   // Ended: the last frame its face was seen in
};

// What update() makes of one frame.
struct TrackerFrame {
    int64_t index = 0;  // frames given to update() so far, from 0; failed calls are not counted
    // How different the frame is from the previous one (0: alike; 1: nothing in common), from
    // the grey histograms and block means of a downscaled copy; 0 on the first frame and after
    // a change of size.
    double change = 0;
    bool cut = false;  // a cut to another shot (change above the threshold, or another size)
    std::vector<TrackedFace> faces;  // the tracks seen in this frame, by track number
    // Ended first (every track at a cut, in the order of their numbers), then Started.
    std::vector<TrackerEvent> events;
};

class MSMFACE_DETECT_API Tracker {
  public:
    // requires: options inside the ranges above (else an Argument failure naming the option).
    static Result<Tracker> create(const Detector& detector, const TrackerOptions& options = {});

    Tracker(Tracker&&) noexcept;
    Tracker& operator=(Tracker&&) noexcept;
    ~Tracker();

    // The next frame of the video. A frame view that breaks FrameView's requirements is an
    // Argument failure naming what is wrong; the tracks are then left as they were and the frame
    // is not counted. A frame of another size than the previous one is a cut.
    Result<TrackerFrame> update(const FrameView& frame);
    // The video is over: ends every live track (their Ended events, by track number) and starts
    // the next frame as a first frame. Track numbers still go on upward.
    std::vector<TrackerEvent> finish();
    // Tracks living now (seen in the last frame or not yet ended).
    size_t liveTracks() const;

  private:
    struct State;
    explicit Tracker(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace msmface

#endif  // MSMFACE_TRACKER_H
