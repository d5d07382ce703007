// The Tracker: every face of a video with a number of its own. Each track is followed near its
// last place as the Follower follows its one face; whole-frame detections start tracks and are
// matched to the living ones by box overlap and landmark distance.
#include <msmface/tracker.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "detect/detect_internal.h"

namespace msmface {

namespace {

// A detection is the face of a track when their boxes overlap by at least this intersection over
// union and their landmarks lie on average within kSameFaceLandmarks of the track's box side.
// Between two frames a face moves and grows by a few per cent of its size, so the same face
// overlaps by 0.6 or more; two faces side by side do not overlap at all, and one face partly in
// front of another can overlap by a third but keeps its eyes and mouth elsewhere, which the
// landmark distance tells apart.
constexpr double kSameFaceOverlap = 0.3;
constexpr double kSameFaceLandmarks = 0.25;
// Two tracks whose faces overlap this much in one frame follow one face: the younger is dropped
// for the frame, so that one face never carries two numbers.
constexpr double kDuplicateOverlap = 0.5;

double overlap(const FaceBox& a, const FaceBox& b) {
    const double w = std::min(a.left + a.width, b.left + b.width) -
                     static_cast<double>(std::max(a.left, b.left));
    const double h =
        std::min(a.top + a.height, b.top + b.height) - static_cast<double>(std::max(a.top, b.top));
    if (w <= 0 || h <= 0) return 0;
    const double both = w * h;
    return both / (static_cast<double>(a.width) * a.height +
                   static_cast<double>(b.width) * b.height - both);
}

// Mean distance between the 68 landmarks of two faces, in sides of a's box.
double landmarkDistance(const DetectedFace& a, const DetectedFace& b) {
    double sum = 0;
    for (size_t i = 0; i < a.landmarks.size(); i += 2)
        sum += std::hypot(a.landmarks[i] - b.landmarks[i], a.landmarks[i + 1] - b.landmarks[i + 1]);
    return sum / (a.landmarks.size() / 2) / std::max(1, a.box.width);
}

bool sameFace(const DetectedFace& track, const DetectedFace& found) {
    return overlap(track.box, found.box) >= kSameFaceOverlap &&
           landmarkDistance(track, found) <= kSameFaceLandmarks;
}

// A small picture of the frame for telling shots apart: the grey levels' cumulative histogram
// and the means of a grid of blocks. The histogram ignores where things are (a person moving
// leaves it nearly alone) and, compared cumulatively, shrugs off a small change of light; the
// blocks' correlation notices a new scene whose greys happen to be alike.
struct ShotSignature {
    static constexpr int kBins = 64, kColumns = 8, kRows = 6;
    std::array<double, kBins> cumulative{};
    std::array<double, kColumns * kRows> blocks{};
};

ShotSignature signatureOf(const detail::GreyImage& grey) {
    ShotSignature s;
    const long width = grey.nc(), height = grey.nr();
    std::array<double, ShotSignature::kColumns * ShotSignature::kRows> counts{};
    // About 160 x 120 samples whatever the frame's size: plenty for both, a few reads per frame.
    const long step = std::max(1L, std::min(width / 160, height / 120));
    double total = 0;
    for (long y = 0; y < height; y += step) {
        const long row = y * ShotSignature::kRows / height;
        for (long x = 0; x < width; x += step) {
            const unsigned char v = grey[y][x];
            s.cumulative[v * ShotSignature::kBins / 256] += 1;
            const long block = row * ShotSignature::kColumns + x * ShotSignature::kColumns / width;
            s.blocks[block] += v;
            counts[block] += 1;
            total += 1;
        }
    }
    double sum = 0;
    for (double& h : s.cumulative) h = (sum += h) / total;
    for (size_t b = 0; b < s.blocks.size(); ++b)
        s.blocks[b] = counts[b] > 0 ? s.blocks[b] / counts[b] : 0;
    return s;
}

// 0 for alike frames, 1 for frames with nothing in common: half from the histograms (the earth
// mover's distance in shares of the grey range; 0.1 or more counts fully) and half from the
// blocks (1 minus their correlation, at most 1). Measured on the frames of ../shared/faces
// stretched to one size: of the pairs of one video's frames (seconds apart, tight around the
// face, so a hard case of motion) 1 % change by more than 0.57; of the pairs of two persons'
// frames 96 % change by more than that. A picture without structure (one grey everywhere) gives
// no correlation: the histograms decide alone.
double changeBetween(const ShotSignature& a, const ShotSignature& b) {
    double moved = 0;
    for (size_t i = 0; i < a.cumulative.size(); ++i)
        moved += std::abs(a.cumulative[i] - b.cumulative[i]);
    moved /= a.cumulative.size();
    const double n = static_cast<double>(a.blocks.size());
    double ma = 0, mb = 0;
    for (size_t i = 0; i < a.blocks.size(); ++i) {
        ma += a.blocks[i] / n;
        mb += b.blocks[i] / n;
    }
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < a.blocks.size(); ++i) {
        ab += (a.blocks[i] - ma) * (b.blocks[i] - mb);
        aa += (a.blocks[i] - ma) * (a.blocks[i] - ma);
        bb += (b.blocks[i] - mb) * (b.blocks[i] - mb);
    }
    // Blocks whose means spread by less than a grey level have no structure to compare.
    const bool flat = aa < n || bb < n;
    const double structure = flat ? 0 : std::min(1.0, 1 - ab / std::sqrt(aa * bb));
    return 0.5 * std::min(1.0, 10 * moved) + 0.5 * structure;
}

struct Track {
    int64_t number = 0;
    detail::FollowedFace followed;
    int64_t framesSeen = 0;
    int64_t lastFrame = 0;
    int unseen = 0;     // frames in a row without its face
    bool seen = false;  // in this frame
    bool detected = false;
};

Status rangeFailure(const char* option, double value, const char* range) {
    return Status::failure(ErrorKind::Argument, std::string("tracker option ") + option + ": " +
                                                    std::to_string(value) + ", expected " + range);
}

}  // namespace

struct Tracker::State {
    std::shared_ptr<const Detector::Impl> impl;
    TrackerOptions options;
    // Copies of the detector: the search changes the object it runs in.
    dlib::frontal_face_detector whole;
    dlib::frontal_face_detector near;

    detail::GreyImage grey;
    int width = 0, height = 0;
    bool havePrevious = false;
    ShotSignature previous;
    int64_t frames = 0;  // frames counted so far
    int64_t nextNumber = 1;
    int sinceDetection = 0;          // frames since the last whole-frame search
    int withoutTracks = 0;           // frames in a row searched without any track living
    int64_t searchesWithTracks = 0;  // whole-frame searches while tracks lived
    std::vector<Track> tracks;       // by number

    TrackerEvent ended(const Track& t) const {
        TrackerEvent e;
        e.kind = TrackerEvent::Kind::Ended;
        e.track = t.number;
        e.frame = frames;
        e.box = t.followed.last.box;
        e.framesSeen = t.framesSeen;
        e.lastFrame = t.lastFrame;
        return e;
    }

    void endAll(std::vector<TrackerEvent>& events) {
        for (const Track& t : tracks) events.push_back(ended(t));
        tracks.clear();
    }

    // Each track searched for near its last place; false when some track was not found there.
    bool followAll() {
        std::vector<DetectedFace> now(tracks.size());
        for (size_t i = 0; i < tracks.size(); ++i) {
            Track& t = tracks[i];
            dlib::rect_detection found;
            t.seen = false;
            t.detected = false;
            if (t.followed.findNear(near, grey, options.detectEvery, found)) {
                now[i] =
                    detail::fitFace(impl->shapes, grey, found.rect, found.detection_confidence);
                t.seen = detail::plausibleFace(now[i].points);
            }
        }
        // Two tracks that slid onto one face: the older keeps it, the younger keeps its last
        // place (where its own face may come back).
        for (size_t i = 0; i < tracks.size(); ++i)
            for (size_t j = i + 1; j < tracks.size(); ++j)
                if (tracks[i].seen && tracks[j].seen &&
                    overlap(now[i].box, now[j].box) >= kDuplicateOverlap)
                    tracks[j].seen = false;
        bool allSeen = true;
        for (size_t i = 0; i < tracks.size(); ++i) {
            if (tracks[i].seen) tracks[i].followed.last = now[i];
            allSeen = allSeen && tracks[i].seen;
        }
        return allSeen;
    }

    // The whole frame searched: detections taken by the tracks they match (the best overlap
    // first), the others start tracks while fewer than maxFaces live.
    void detect(std::vector<TrackerEvent>& started) {
        sinceDetection = 0;
        // No face of the smallest side tracked fits in the frame: nothing to search for.
        if (std::min(width, height) < options.minFaceSide) {
            if (tracks.empty()) ++withoutTracks;
            return;
        }
        // Faces under the detector's window are found only in the doubled frame, which costs
        // about four times the frame itself: while no track lives, on the first frame and then
        // every detectEvery-th as the Follower does (a video without faces stays cheap); while
        // tracks live, on every detectEvery-th whole-frame search, searching the doubled frame
        // alone (it finds the larger faces too). Detecting every frame (detectEvery 1) searches
        // as Detector::detect does.
        const bool small = options.minFaceSide < detail::kDetectorWindow &&
                           width <= impl->upsampleBelowWidth && height <= impl->upsampleBelowWidth;
        // A network finder sees faces under the window at the frame's own size.
        std::vector<dlib::rect_detection> found;
        if (impl->network) {
            found = detail::findFaces(*impl, whole, grey, 0);
        } else if (tracks.empty()) {
            const bool doubled = small && withoutTracks++ % options.detectEvery == 0;
            found = detail::findFaces(whole, grey, doubled ? impl->upsampleBelowWidth : 0);
        } else if (small && options.detectEvery > 1 &&
                   ++searchesWithTracks % options.detectEvery == 0) {
            found = detail::findFacesDoubled(whole, grey);
        } else {
            found = detail::findFaces(whole, grey, 0);
        }
        std::vector<DetectedFace> faces;
        // The largest maxFaces detections are fitted, whatever their fits turn out to be: a
        // crowd of implausible fits must not make the frame's work unbounded either.
        int fitted = 0;
        for (const auto& d : found) {
            if (fitted >= options.maxFaces) break;
            if (std::min(d.rect.width(), d.rect.height()) <
                static_cast<unsigned long>(options.minFaceSide))
                continue;
            ++fitted;
            DetectedFace face = detail::fitFace(impl->shapes, grey, d.rect, d.detection_confidence);
            if (detail::plausibleFace(face.points)) faces.push_back(face);
        }
        struct Pair {
            double overlap;
            size_t track, face;
        };
        std::vector<Pair> pairs;
        for (size_t t = 0; t < tracks.size(); ++t)
            for (size_t f = 0; f < faces.size(); ++f)
                if (sameFace(tracks[t].followed.last, faces[f]))
                    pairs.push_back({overlap(tracks[t].followed.last.box, faces[f].box), t, f});
        std::stable_sort(pairs.begin(), pairs.end(),
                         [](const Pair& a, const Pair& b) { return a.overlap > b.overlap; });
        std::vector<bool> trackTaken(tracks.size(), false), faceTaken(faces.size(), false);
        for (const Pair& p : pairs) {
            if (trackTaken[p.track] || faceTaken[p.face]) continue;
            trackTaken[p.track] = faceTaken[p.face] = true;
            Track& t = tracks[p.track];
            t.followed.last = faces[p.face];
            t.followed.weak = 0;
            t.seen = t.detected = true;
        }
        for (size_t f = 0; f < faces.size(); ++f) {
            if (faceTaken[f] || tracks.size() >= static_cast<size_t>(options.maxFaces)) continue;
            // A face that a seen track already covers is that track's face with landmarks that
            // disagree (a fit in another box), not a new person.
            bool covered = false;
            for (const Track& t : tracks)
                covered = covered || (t.seen && overlap(t.followed.last.box, faces[f].box) >=
                                                    kSameFaceOverlap);
            if (covered) continue;
            Track t;
            t.number = nextNumber++;
            t.followed.last = faces[f];
            t.seen = t.detected = true;
            TrackerEvent e;
            e.kind = TrackerEvent::Kind::Started;
            e.track = t.number;
            e.frame = frames;
            e.box = faces[f].box;
            started.push_back(e);
            tracks.push_back(std::move(t));
        }
        if (!tracks.empty()) withoutTracks = 0;
    }

    TrackerFrame step(const FrameView& frame) {
        TrackerFrame out;
        out.index = frames;
        detail::toGrey(frame, grey);
        const ShotSignature signature = signatureOf(grey);
        const bool resized = frame.width != width || frame.height != height;
        if (havePrevious && !resized) out.change = changeBetween(previous, signature);
        out.cut = havePrevious && (resized || out.change > options.cutThreshold);
        previous = signature;
        havePrevious = true;
        width = frame.width;
        height = frame.height;

        std::vector<TrackerEvent> started;
        bool search = tracks.empty() || ++sinceDetection >= options.detectEvery;
        if (out.cut) {
            endAll(out.events);
            withoutTracks = 0;
            search = true;
        } else if (options.detectEvery == 1) {
            // Every frame is detected afresh: the detections alone say where the faces are.
            for (Track& t : tracks) t.seen = t.detected = false;
        } else if (!tracks.empty() && !followAll()) {
            search = true;
        }
        if (search) detect(started);

        for (auto t = tracks.begin(); t != tracks.end();) {
            if (t->seen) {
                t->unseen = 0;
                ++t->framesSeen;
                t->lastFrame = frames;
                out.faces.push_back({t->number, t->followed.last, t->detected});
                ++t;
            } else if (++t->unseen > options.keepUnseen) {
                out.events.push_back(ended(*t));
                t = tracks.erase(t);
            } else {
                ++t;
            }
        }
        out.events.insert(out.events.end(), started.begin(), started.end());
        ++frames;
        return out;
    }
};

Result<Tracker> Tracker::create(const Detector& detector, const TrackerOptions& options) {
    if (!detector.impl_) return Status::failure(ErrorKind::Argument, "tracker: detector was moved");
    if (options.maxFaces < 1 || options.maxFaces > 64)
        return rangeFailure("maxFaces", options.maxFaces, "1 to 64");
    if (options.detectEvery < 1 || options.detectEvery > 1000)
        return rangeFailure("detectEvery", options.detectEvery, "1 to 1000");
    if (options.keepUnseen < 0 || options.keepUnseen > 1000)
        return rangeFailure("keepUnseen", options.keepUnseen, "0 to 1000");
    if (!(options.cutThreshold >= 0))
        return rangeFailure("cutThreshold", options.cutThreshold, "a number of 0 or more");
    if (options.minFaceSide < 0 || options.minFaceSide > detail::kMaxFrameSide)
        return rangeFailure("minFaceSide", options.minFaceSide, "0 to 16384");
    try {
        auto state = std::make_unique<State>();
        state->impl = detector.impl_;
        state->options = options;
        state->whole = state->impl->faces;
        state->near = detail::nearSearch(state->impl->faces);
        return Tracker(std::move(state));
    } catch (const std::exception& e) {
        return Status::failure(ErrorKind::Internal, std::string("tracker: ") + e.what());
    }
}

Tracker::Tracker(std::unique_ptr<State> state) : state_(std::move(state)) {}
Tracker::Tracker(Tracker&&) noexcept = default;
Tracker& Tracker::operator=(Tracker&&) noexcept = default;
Tracker::~Tracker() = default;

Result<TrackerFrame> Tracker::update(const FrameView& frame) {
    if (!state_) return Status::failure(ErrorKind::Argument, "tracker: used after it was moved");
    const Status valid = detail::checkFrame(frame);
    if (!valid) return valid;
    try {
        return state_->step(frame);
    } catch (const std::exception& e) {
        // Each track is whole (a face is replaced only once fitted); the next frame is compared
        // with no previous one.
        state_->havePrevious = false;
        return Status::failure(ErrorKind::Internal, std::string("tracker: ") + e.what());
    }
}

std::vector<TrackerEvent> Tracker::finish() {
    std::vector<TrackerEvent> events;
    if (!state_) return events;
    State& s = *state_;
    s.endAll(events);
    s.havePrevious = false;
    s.width = s.height = 0;
    s.sinceDetection = 0;
    s.withoutTracks = 0;
    return events;
}

size_t Tracker::liveTracks() const {
    return state_ ? state_->tracks.size() : 0;
}

}  // namespace msmface
