// Tracks: one Stream per live track over the gallery's shared state, and the rule that turns
// their rankings into identities.
#include <msmface/tracks.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gallery/gallery_impl.h"

namespace msmface {

using detail::fail;

namespace {

constexpr int kMaxConfirmFrames = 1000;
constexpr int kMaxTracks = 10000;
// Ended tracks' streams kept for the next tracks: a tracker ends and starts tracks all the time,
// and a reset stream is a new input without the allocation.
constexpr std::size_t kSpareStreams = 4;

std::string trackName(int64_t track, int64_t frame) {
    return "track " + std::to_string(track) + ", frame " + std::to_string(frame);
}

struct Track {
    Track(Stream s, int64_t frame, double time)
        : stream(std::move(s)),
          firstFrame(frame),
          lastFrame(frame),
          firstTime(time),
          lastTime(time) {}

    Stream stream;
    int64_t firstFrame, lastFrame;
    double firstTime, lastTime;
    int framesSeen = 0;
    int facesUsed = 0;
    // The person ranked first above the threshold at the latest faces, and at how many in a row.
    int candidate = 0;
    int run = 0;
    std::optional<Person> identity;
    int bestScore = 0;
    int lastScore = 0;
};

}  // namespace

class TrackRecognition::Impl {
  public:
    Impl(std::shared_ptr<detail::GalleryState> s, const TrackOptions& o, PatternKind k)
        : state(std::move(s)), options(o), kind(k) {}

    // A new track's stream: a spare one when there is one.
    Result<Stream> takeStream();
    void giveBack(Stream stream);
    // Checks the observation's numbers against the track (when it is live) and the limits.
    Status check(int64_t track, int64_t frame, double time, PatternKind given) const;
    // The track, started when its number is not live; started tells which.
    Result<Track*> trackFor(int64_t track, int64_t frame, double time, bool& started);
    // The track's state after a push, or the push's failure (a new track is then dropped).
    Result<std::vector<TrackEvent>> settle(int64_t track, bool started,
                                           const Result<StreamState>& pushed, int64_t frame,
                                           double time);
    void identifyFrom(Track& t, const Ranking& ranking, int64_t track, int64_t frame, double time,
                      std::vector<TrackEvent>& events) const;
    TrackEvent endedEvent(int64_t track, const Track& t) const;
    // One observation of the given kind: checked, the track found or started, push run on its
    // stream, and the outcome settled.
    template <class Push>
    Result<std::vector<TrackEvent>> observe(int64_t track, int64_t frame, double time,
                                            PatternKind given, const Push& push) {
        Status status = check(track, frame, time, given);
        if (!status.ok()) return status;
        bool started = false;
        Result<Track*> t = trackFor(track, frame, time, started);
        if (!t.ok()) return t.status();
        return settle(track, started, push((*t)->stream), frame, time);
    }

    std::shared_ptr<detail::GalleryState> state;
    TrackOptions options;
    PatternKind kind;
    StreamOptions streamOptions;
    std::map<int64_t, Track> live;
    std::vector<Stream> spares;
};

Result<Stream> TrackRecognition::Impl::takeStream() {
    if (!spares.empty()) {
        Stream s = std::move(spares.back());
        spares.pop_back();
        return s;
    }
    return Stream::create(state, streamOptions);
}

void TrackRecognition::Impl::giveBack(Stream stream) {
    if (spares.size() >= kSpareStreams) return;
    stream.reset();
    spares.push_back(std::move(stream));
}

Status TrackRecognition::Impl::check(int64_t track, int64_t frame, double time,
                                     PatternKind given) const {
    const std::string where = trackName(track, frame);
    if (track < 0)
        return fail(ErrorKind::Argument, where + ": expected a track number of 0 or more");
    if (!std::isfinite(time))
        return fail(ErrorKind::Argument, where + ": the time is not a finite number of seconds");
    if (given != kind)
        return fail(ErrorKind::Argument, where + ": the gallery holds " + patternKindName(kind) +
                                             " patterns, this call gives " +
                                             patternKindName(given) + " patterns");
    const auto found = live.find(track);
    if (found == live.end()) {
        if (static_cast<int>(live.size()) >= options.maxTracks)
            return fail(ErrorKind::Argument,
                        where + ": already " + std::to_string(live.size()) +
                            " live tracks (maxTracks); end one before starting another");
        return {};
    }
    const Track& t = found->second;
    if (frame <= t.lastFrame)
        return fail(ErrorKind::Argument, where + ": expected a frame after the track's last, " +
                                             std::to_string(t.lastFrame));
    if (time < t.lastTime)
        return fail(ErrorKind::Argument, where + ": time " + std::to_string(time) +
                                             " s is before the track's last, " +
                                             std::to_string(t.lastTime) + " s");
    return {};
}

Result<Track*> TrackRecognition::Impl::trackFor(int64_t track, int64_t frame, double time,
                                                bool& started) {
    const auto found = live.find(track);
    started = found == live.end();
    if (!started) return &found->second;
    Result<Stream> stream = takeStream();
    if (!stream.ok()) return stream.status();
    const auto made = live.emplace(track, Track(std::move(stream).value(), frame, time));
    return &made.first->second;
}

void TrackRecognition::Impl::identifyFrom(Track& t, const Ranking& ranking, int64_t track,
                                          int64_t frame, double time,
                                          std::vector<TrackEvent>& events) const {
    if (ranking.matches.empty()) return;
    if (t.identity) {
        // Its person's score, wherever the person ranks now.
        const auto mine = std::find_if(ranking.matches.begin(), ranking.matches.end(),
                                       [&](const Match& m) { return m.id == t.identity->id; });
        t.lastScore = mine != ranking.matches.end() ? mine->score : 0;
        t.bestScore = std::max(t.bestScore, t.lastScore);
        return;
    }
    t.lastScore = ranking.matches.front().score;
    t.bestScore = std::max(t.bestScore, t.lastScore);
    if (!ranking.identified) {
        t.candidate = 0;
        t.run = 0;
        return;
    }
    const Match& best = *ranking.identified;
    t.run = best.id == t.candidate ? t.run + 1 : 1;
    t.candidate = best.id;
    if (t.run < options.confirmFrames) return;
    t.identity = Person{best.id, best.name};
    // From here on the best score is the person's own.
    t.bestScore = best.score;
    TrackEvent e;
    e.kind = TrackEventKind::Identified;
    e.track = track;
    e.frame = frame;
    e.time = time;
    e.person = best.id;
    e.name = best.name;
    e.score = best.score;
    events.push_back(std::move(e));
}

Result<std::vector<TrackEvent>> TrackRecognition::Impl::settle(int64_t track, bool started,
                                                               const Result<StreamState>& pushed,
                                                               int64_t frame, double time) {
    const auto found = live.find(track);
    Track& t = found->second;
    if (!pushed.ok()) {
        if (started) {
            giveBack(std::move(t.stream));
            live.erase(found);
        }
        return fail(pushed.status().kind(), trackName(track, frame) + ": " + pushed.message());
    }
    std::vector<TrackEvent> events;
    if (started) {
        TrackEvent e;
        e.kind = TrackEventKind::Started;
        e.track = track;
        e.frame = frame;
        e.time = time;
        events.push_back(std::move(e));
    }
    t.lastFrame = frame;
    t.lastTime = time;
    ++t.framesSeen;
    if (pushed->face) {
        ++t.facesUsed;
        identifyFrom(t, pushed->ranking, track, frame, time, events);
    }
    return events;
}

TrackEvent TrackRecognition::Impl::endedEvent(int64_t track, const Track& t) const {
    TrackEvent e;
    e.kind = TrackEventKind::Ended;
    e.track = track;
    e.frame = t.lastFrame;
    e.time = t.lastTime;
    if (t.identity) {
        e.person = t.identity->id;
        e.name = t.identity->name;
    }
    e.score = t.bestScore;
    e.framesSeen = t.framesSeen;
    e.facesUsed = t.facesUsed;
    return e;
}

TrackRecognition::TrackRecognition(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
TrackRecognition::TrackRecognition(TrackRecognition&&) noexcept = default;
TrackRecognition& TrackRecognition::operator=(TrackRecognition&&) noexcept = default;
TrackRecognition::~TrackRecognition() = default;

Result<TrackRecognition> TrackRecognition::create(Gallery& gallery, const TrackOptions& options) {
    if (options.confirmFrames < 1 || options.confirmFrames > kMaxConfirmFrames)
        return fail(ErrorKind::Argument, "confirmFrames " + std::to_string(options.confirmFrames) +
                                             ": expected 1 .. " +
                                             std::to_string(kMaxConfirmFrames) + " faces");
    if (options.maxTracks < 1 || options.maxTracks > kMaxTracks)
        return fail(ErrorKind::Argument, "maxTracks " + std::to_string(options.maxTracks) +
                                             ": expected 1 .. " + std::to_string(kMaxTracks) +
                                             " tracks");
    std::unique_ptr<Impl> impl;
    try {
        impl = std::make_unique<Impl>(gallery.impl_->state, options, gallery.patterns());
    } catch (const std::bad_alloc&) {
        return fail(ErrorKind::Internal, "out of memory for the tracks");
    }
    impl->streamOptions.method = options.method;
    impl->streamOptions.threshold = options.threshold;
    // The tracker decides when a face is gone; a face it could not use clears nothing.
    impl->streamOptions.refreshTime = -1;
    // The first track's stream, made now: the method, threshold and constraint space are
    // checked once, here, not at some track's first face.
    Result<Stream> first = impl->takeStream();
    if (!first.ok()) return first.status();
    impl->spares.push_back(std::move(first).value());
    return TrackRecognition(std::move(impl));
}

Result<std::vector<TrackEvent>> TrackRecognition::observe(int64_t track, int64_t frame, double time,
                                                          const FrameView& view,
                                                          const FacePoints& points) {
    return impl_->observe(track, frame, time, PatternKind::Seed,
                          [&](Stream& s) { return s.push(view, points); });
}

Result<std::vector<TrackEvent>> TrackRecognition::observe(int64_t track, int64_t frame, double time,
                                                          const FaceDescriptor& descriptor) {
    return impl_->observe(track, frame, time, PatternKind::Descriptor,
                          [&](Stream& s) { return s.push(descriptor); });
}

Result<std::vector<TrackEvent>> TrackRecognition::observeWithoutFace(int64_t track, int64_t frame,
                                                                     double time) {
    return impl_->observe(track, frame, time, impl_->kind,
                          [](Stream& s) { return s.pushWithoutFace(); });
}

Result<TrackEvent> TrackRecognition::end(int64_t track) {
    Impl& s = *impl_;
    const auto found = s.live.find(track);
    if (found == s.live.end())
        return fail(ErrorKind::NotFound, "track " + std::to_string(track) + ": no such live track");
    TrackEvent e = s.endedEvent(track, found->second);
    s.giveBack(std::move(found->second.stream));
    s.live.erase(found);
    return e;
}

std::vector<TrackEvent> TrackRecognition::endAll() {
    Impl& s = *impl_;
    std::vector<TrackEvent> events;
    for (auto& [track, t] : s.live) {
        events.push_back(s.endedEvent(track, t));
        s.giveBack(std::move(t.stream));
    }
    s.live.clear();
    return events;
}

std::vector<TrackStatus> TrackRecognition::tracks() const {
    std::vector<TrackStatus> out;
    for (const auto& [track, t] : impl_->live) {
        TrackStatus s;
        s.track = track;
        s.firstFrame = t.firstFrame;
        s.lastFrame = t.lastFrame;
        s.firstTime = t.firstTime;
        s.lastTime = t.lastTime;
        s.framesSeen = t.framesSeen;
        s.facesUsed = t.facesUsed;
        if (t.identity) {
            s.person = t.identity->id;
            s.name = t.identity->name;
        }
        s.score = t.lastScore;
        out.push_back(std::move(s));
    }
    return out;
}

const TrackOptions& TrackRecognition::options() const {
    return impl_->options;
}

}  // namespace msmface
