// The Watcher: a Tracker's faces turned into named tracks. The tracker decides which face is which
// track and when a track ends; the recognition only ever hears of tracks the tracker follows, so
// the two never disagree about what is live.
#include <msmface/watcher.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <thread>

#include "detect/detect_internal.h"
#include "detect/face_batch.h"

namespace msmface {

namespace {

constexpr int kMaxThreads = 16;

int defaultThreads() {
    const unsigned cores = std::thread::hardware_concurrency();
    return static_cast<int>(std::clamp(cores, 1u, 4u));
}

}  // namespace

class Watcher::Impl {
  public:
    Impl(Tracker tracker, TrackRecognition recognition, std::unique_ptr<detail::FaceBatch> batch)
        : tracker(std::move(tracker)),
          recognition(std::move(recognition)),
          batch(std::move(batch)) {}

    // What the watcher keeps of a live track beside the recognition's state.
    struct Live {
        FaceBox box;
        int64_t firstFrame = 0, lastFrame = 0;
        double firstTime = 0.0, lastTime = 0.0;
    };

    Result<WatchedFrame> update(const FrameView& frame, double time);
    void endTracks(const std::vector<TrackerEvent>& ended, std::vector<WatchEvent>& out);
    void observe(const FrameView& frame, const TrackerFrame& tracked, WatchedFrame& out,
                 std::vector<WatchEvent>& identified);

    Tracker tracker;
    TrackRecognition recognition;
    std::unique_ptr<detail::FaceBatch> batch;  // null for a seed gallery
    std::map<int64_t, Live> live;
    int64_t frames = 0;
    double lastTime = 0.0;
    bool haveTime = false;
};

void Watcher::Impl::endTracks(const std::vector<TrackerEvent>& ended,
                              std::vector<WatchEvent>& out) {
    for (const TrackerEvent& t : ended) {
        if (t.kind != TrackerEvent::Kind::Ended) continue;
        WatchEvent e;
        // A track the recognition refused (more live tracks than it takes) ends unknown.
        Result<TrackEvent> r = recognition.end(t.track);
        if (r.ok()) static_cast<TrackEvent&>(e) = std::move(r).value();
        e.kind = WatchEventKind::Ended;
        e.track = t.track;
        e.box = t.box;
        e.framesSeen = static_cast<int>(t.framesSeen);
        const auto found = live.find(t.track);
        if (found != live.end()) {
            e.frame = found->second.lastFrame;
            e.time = found->second.lastTime;
            live.erase(found);
        } else {
            e.frame = t.lastFrame;
        }
        out.push_back(std::move(e));
    }
}

void Watcher::Impl::observe(const FrameView& frame, const TrackerFrame& tracked, WatchedFrame& out,
                            std::vector<WatchEvent>& identified) {
    const int64_t index = frames;
    const double time = out.time;
    std::vector<std::optional<FaceDescriptor>> descriptors;
    if (batch) {
        std::vector<DetectedFace> faces;
        faces.reserve(tracked.faces.size());
        for (const TrackedFace& f : tracked.faces) faces.push_back(f.face);
        batch->describe(frame, faces, descriptors);
    }
    // A face was recognised when its track's count of used faces grew.
    std::map<int64_t, int> usedBefore;
    for (const TrackStatus& s : recognition.tracks()) usedBefore.emplace(s.track, s.facesUsed);
    for (size_t i = 0; i < tracked.faces.size(); ++i) {
        const TrackedFace& f = tracked.faces[i];
        Result<std::vector<TrackEvent>> events = std::vector<TrackEvent>{};
        if (!batch)
            events = recognition.observe(f.track, index, time, frame, f.face.points);
        else if (descriptors[i])
            events = recognition.observe(f.track, index, time, *descriptors[i]);
        else
            events = recognition.observeWithoutFace(f.track, index, time);
        if (!events.ok()) continue;  // followed unnamed (no room for another track)
        for (TrackEvent& r : *events) {
            if (r.kind != TrackEventKind::Identified) continue;
            WatchEvent e;
            static_cast<TrackEvent&>(e) = std::move(r);
            e.box = f.face.box;
            identified.push_back(std::move(e));
        }
    }
    // The identities as they stand after this frame's faces.
    std::map<int64_t, TrackStatus> status;
    for (TrackStatus& s : recognition.tracks()) status.emplace(s.track, std::move(s));
    for (const TrackedFace& f : tracked.faces) {
        WatchedFace w;
        w.track = f.track;
        w.box = f.face.box;
        w.points = f.face.points;
        const auto s = status.find(f.track);
        if (s != status.end()) {
            w.person = s->second.person;
            w.name = s->second.name;
            w.score = s->second.score;
            const auto before = usedBefore.find(f.track);
            w.used = s->second.lastFrame == index &&
                     s->second.facesUsed > (before == usedBefore.end() ? 0 : before->second);
        }
        out.faces.push_back(std::move(w));
    }
}

Result<WatchedFrame> Watcher::Impl::update(const FrameView& frame, double time) {
    const Status valid = detail::checkFrame(frame);
    if (!valid) return valid;
    WatchedFrame out;
    std::vector<WatchEvent> ended, started, identified;
    out.timeBreak = !std::isfinite(time) || (haveTime && time < lastTime);
    if (!std::isfinite(time)) time = haveTime ? lastTime : 0.0;
    out.time = time;
    if (out.timeBreak) {
        endTracks(tracker.finish(), ended);
        for (const TrackEvent& r : recognition.endAll()) (void)r;
    }
    Result<TrackerFrame> tracked = tracker.update(frame);
    if (!tracked.ok()) return tracked.status();
    out.index = frames;
    out.change = tracked->change;
    out.cut = tracked->cut || out.timeBreak;
    endTracks(tracked->events, ended);
    for (const TrackerEvent& t : tracked->events) {
        if (t.kind != TrackerEvent::Kind::Started) continue;
        WatchEvent e;
        e.kind = WatchEventKind::Started;
        e.track = t.track;
        e.frame = frames;
        e.time = time;
        e.box = t.box;
        started.push_back(e);
        live[t.track] = Live{t.box, frames, frames, time, time};
    }
    for (const TrackedFace& f : tracked->faces) {
        Live& l = live[f.track];
        l.box = f.face.box;
        l.lastFrame = frames;
        l.lastTime = time;
    }
    observe(frame, *tracked, out, identified);
    out.events = std::move(ended);
    out.events.insert(out.events.end(), std::make_move_iterator(started.begin()),
                      std::make_move_iterator(started.end()));
    out.events.insert(out.events.end(), std::make_move_iterator(identified.begin()),
                      std::make_move_iterator(identified.end()));
    ++frames;
    lastTime = time;
    haveTime = true;
    return out;
}

Result<Watcher> Watcher::create(const Detector& detector, Gallery& gallery,
                                const WatcherOptions& options) {
    if (options.threads < 0 || options.threads > kMaxThreads)
        return Status::failure(ErrorKind::Argument,
                               "watcher: threads " + std::to_string(options.threads) +
                                   " is outside 0 to " + std::to_string(kMaxThreads));
    Result<Tracker> tracker = Tracker::create(detector, options.tracker);
    if (!tracker.ok()) return tracker.status();
    Result<TrackRecognition> recognition = TrackRecognition::create(gallery, options.recognition);
    if (!recognition.ok()) return recognition.status();
    std::unique_ptr<detail::FaceBatch> batch;
    if (gallery.patterns() == PatternKind::Descriptor) {
        const int threads = options.threads == 0 ? defaultThreads() : options.threads;
        Result<std::unique_ptr<detail::FaceBatch>> loaded =
            detail::loadFaceBatch(options.descriptorModel, threads);
        if (!loaded.ok()) return loaded.status();
        batch = std::move(loaded).value();
    }
    return Watcher(std::make_unique<Impl>(std::move(tracker).value(),
                                          std::move(recognition).value(), std::move(batch)));
}

Watcher::Watcher(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Watcher::Watcher(Watcher&&) noexcept = default;
Watcher& Watcher::operator=(Watcher&&) noexcept = default;
Watcher::~Watcher() = default;

Result<WatchedFrame> Watcher::update(const FrameView& frame, double time) {
    if (!impl_) return Status::failure(ErrorKind::Argument, "watcher: used after it was moved");
    return impl_->update(frame, time);
}

std::vector<WatchEvent> Watcher::finish() {
    std::vector<WatchEvent> events;
    if (!impl_) return events;
    impl_->endTracks(impl_->tracker.finish(), events);
    impl_->recognition.endAll();
    return events;
}

std::vector<WatchedTrack> Watcher::tracks() const {
    std::vector<WatchedTrack> out;
    if (!impl_) return out;
    std::map<int64_t, TrackStatus> status;
    for (TrackStatus& s : impl_->recognition.tracks()) status.emplace(s.track, std::move(s));
    for (const auto& [number, l] : impl_->live) {
        WatchedTrack t;
        const auto s = status.find(number);
        if (s != status.end()) {
            static_cast<TrackStatus&>(t) = std::move(s->second);
        } else {
            t.track = number;
            t.firstFrame = l.firstFrame;
            t.lastFrame = l.lastFrame;
            t.firstTime = l.firstTime;
            t.lastTime = l.lastTime;
        }
        t.box = l.box;
        out.push_back(std::move(t));
    }
    return out;
}

int Watcher::threads() const {
    return impl_ && impl_->batch ? impl_->batch->threads() : 1;
}

}  // namespace msmface
