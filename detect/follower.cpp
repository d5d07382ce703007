// The Follower: the largest face of a video. Between full detections the face is searched only
// near where the previous frame's landmarks put it, over a few sizes around its previous size,
// which costs a fraction of a whole-frame search and still notices a face that is gone.
#include <msmface/detect.h>

#include <algorithm>
#include <cmath>

#include "detect/detect_internal.h"

namespace msmface {

namespace detail {

// A face as the model knows it: the nose tip and the mouth below the eyes, measured across the
// eye line, at distances in proportion to the eye distance. A fit that slid off the face loses
// these proportions.
bool plausibleFace(const FacePoints& p) {
    const double ex = p.xy[2] - p.xy[0], ey = p.xy[3] - p.xy[1];
    const double eyes = std::hypot(ex, ey);
    if (!(eyes >= 2)) return false;
    const double ux = ex / eyes, uy = ey / eyes;  // along the eye line
    const double mx = (p.xy[0] + p.xy[2]) / 2, my = (p.xy[1] + p.xy[3]) / 2;
    auto across = [&](int k) {
        return (-uy * (p.xy[2 * k] - mx) + ux * (p.xy[2 * k + 1] - my)) / eyes;
    };
    auto along = [&](int k) {
        return (ux * (p.xy[2 * k] - mx) + uy * (p.xy[2 * k + 1] - my)) / eyes;
    };
    const double nose = across(12), mouth = across(13);
    return nose > 0.1 && mouth > nose && mouth < 2.5 && std::abs(along(12)) < 1 &&
           std::abs(along(13)) < 1;
}

namespace {

dlib::point landmarkCentre(const DetectedFace& face) {
    float left = face.landmarks[0], right = left, top = face.landmarks[1], bottom = top;
    for (size_t i = 0; i < face.landmarks.size(); i += 2) {
        left = std::min(left, face.landmarks[i]);
        right = std::max(right, face.landmarks[i]);
        top = std::min(top, face.landmarks[i + 1]);
        bottom = std::max(bottom, face.landmarks[i + 1]);
    }
    return dlib::point(std::lround((left + right) / 2), std::lround((top + bottom) / 2));
}

double distance(const dlib::rectangle& r, const dlib::point& p) {
    return std::hypot(dlib::center(r).x() - p.x(), dlib::center(r).y() - p.y());
}

// A face being followed is kept at a lower confidence than a new face needs: faces of ordinary
// footage hover around the detector's threshold from frame to frame, and dropping the face at
// every dip would send each such frame to a whole-frame search.
constexpr double kFollowThreshold = -0.5;

}  // namespace

// The previous face, searched for in a square 1.6 times its width around its landmarks.
bool FollowedFace::findNear(dlib::frontal_face_detector& near, const GreyImage& grey, int patience,
                            dlib::rect_detection& out) {
    const dlib::point centre = landmarkCentre(last);
    const long half = std::max(8L, std::lround(0.8 * last.box.width));
    const dlib::rectangle region(centre.x() - half, centre.y() - half, centre.x() + half,
                                 centre.y() + half);
    std::vector<dlib::rect_detection> found =
        findFacesNear(near, grey, region, last.box.width, kFollowThreshold);
    if (found.empty()) return false;
    const auto nearest =
        std::min_element(found.begin(), found.end(), [&](const auto& a, const auto& b) {
            return distance(a.rect, centre) < distance(b.rect, centre);
        });
    // Kept below the usual threshold for as long as a whole-frame search is due, it may be
    // no face at all: the whole frame decides afresh.
    weak = nearest->detection_confidence < 0 ? weak + 1 : 0;
    if (weak >= patience) return false;
    out = *nearest;
    return true;
}

}  // namespace detail

struct Follower::State {
    std::shared_ptr<const Detector::Impl> impl;
    // Copies of the detector: the search changes the object it runs in.
    dlib::frontal_face_detector whole;
    dlib::frontal_face_detector near;
    int redetectEvery = 1;

    detail::GreyImage grey;
    int width = 0, height = 0;
    bool following = false;
    int sinceDetection = 0;  // frames followed since the last whole-frame search
    int missed = 0;          // frames in a row without a face
    detail::FollowedFace followed;

    // Not Follower::reset(): a subclass may lock around that one, and track() runs inside it.
    void forget() {
        following = false;
        sinceDetection = 0;
        missed = 0;
        followed.weak = 0;
        width = height = 0;
    }

    bool accept(const dlib::rect_detection& found, DetectedFace& out) {
        DetectedFace face =
            detail::fitFace(impl->shapes, grey, found.rect, found.detection_confidence);
        if (!detail::plausibleFace(face.points)) return false;
        out = face;
        followed.last = face;
        following = true;
        missed = 0;
        return true;
    }

    // The previous face, searched for near where its landmarks were; on the frames due for a
    // whole-frame search, a larger face elsewhere takes over.
    bool follow(DetectedFace& out) {
        dlib::rect_detection best;
        if (!followed.findNear(near, grey, redetectEvery, best)) return false;
        if (++sinceDetection >= redetectEvery) {
            sinceDetection = 0;
            // Only the original size: the face followed is already known, and searching a
            // doubled frame for a larger one would make every such frame several times dearer.
            for (const auto& d : detail::findFaces(*impl, whole, grey, 0))
                if (d.rect.area() > best.rect.area()) best = d;
        }
        return accept(best, out);
    }

    // A whole-frame search. The doubled frame that finds small faces is searched on the first
    // frame without a face and then on every redetectEvery-th, so that a video without faces
    // stays cheap.
    bool search(DetectedFace& out) {
        following = false;
        sinceDetection = 0;
        followed.weak = 0;
        const bool doubled = missed % redetectEvery == 0;
        const auto found =
            detail::findFaces(*impl, whole, grey, doubled ? impl->upsampleBelowWidth : 0);
        for (const auto& d : found)
            if (accept(d, out)) return true;
        ++missed;
        return false;
    }
};

Follower::Follower(const Detector& detector, const FollowerOptions& options)
    : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.impl = detector.impl_;
    s.redetectEvery = std::max(1, options.redetectEvery);
    if (s.impl) {
        s.whole = s.impl->faces;
        s.near = detail::nearSearch(s.impl->faces);
    }
}

Follower::~Follower() = default;

bool Follower::track(const FrameView& frame, DetectedFace& out) {
    State& s = *state_;
    if (!s.impl || !detail::checkFrame(frame).ok()) {
        s.forget();
        return false;
    }
    try {
        if (frame.width != s.width || frame.height != s.height) s.forget();
        s.width = frame.width;
        s.height = frame.height;
        detail::toGrey(frame, s.grey);
        if (s.following && s.redetectEvery > 1 && s.follow(out)) return true;
        return s.search(out);
    } catch (...) {
        s.forget();
        return false;
    }
}

bool Follower::findPoints(const FrameView& frame, FacePoints& out) {
    DetectedFace face;
    if (!track(frame, face)) return false;
    out = face.points;
    return true;
}

void Follower::reset() {
    state_->forget();
}

}  // namespace msmface
