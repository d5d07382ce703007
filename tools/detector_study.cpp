// What share of the real faces of ../shared/faces each face finder finds: in the frames as they
// are (tight crops around the face) and placed in a 640 x 480 scene, by head yaw (estimated from
// the fourteen points) and by face size (the face's box 40 to 120 pixels), with the landmark
// error of the faces found, the time per frame and the framing of the network's boxes against
// the HOG detector's.
//   detector_study [--step N] [--network-threshold T]
// N: every N-th frame of the manifest (1: all); T: the network's least confidence (0.5). Needs the
// landmark model and, for the network, the weights tools/fetch_descriptor_model.sh installs; a
// finder that cannot be loaded is left out with one line saying why.
#include <msmface/detect.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "detect/detect_support.h"

namespace {

using detecttest::GreyFrame;
using detecttest::RealFace;

double iou(const msmface::FaceBox& a, const msmface::FaceBox& b) {
    const double w = std::min(a.left + a.width, b.left + b.width) - std::max(a.left, b.left);
    const double h = std::min(a.top + a.height, b.top + b.height) - std::max(a.top, b.top);
    if (w <= 0 || h <= 0) return 0;
    const double inter = w * h;
    return inter / (static_cast<double>(a.width) * a.height +
                    static_cast<double>(b.width) * b.height - inter);
}

// How far the head is turned: the nose tip's offset from the eyes' midpoint along the eye line,
// in eye distances (0 frontal; about 0.35 at 30 degrees, taking the nose tip 0.6 eye distances
// in front of the eyes).
double yawOffset(const float* p) {
    const double ex = p[2] - p[0], ey = p[3] - p[1];
    const double eyes = std::hypot(ex, ey);
    const double mx = (p[0] + p[2]) / 2, my = (p[1] + p[3]) / 2;
    return std::fabs(((p[24] - mx) * ex + (p[25] - my) * ey) / eyes) / eyes;
}

struct Tally {
    int faces = 0, found = 0;
    double pointError = 0;  // summed over the faces found
    void add(bool hit, double error) {
        ++faces;
        if (!hit) return;
        ++found;
        pointError += error;
    }
    std::string text() const {
        if (faces == 0) return "      -      ";
        char s[64];
        std::snprintf(s, sizeof s, "%5.1f %% (%.3f)", 100.0 * found / faces,
                      found ? pointError / found : 0.0);
        return s;
    }
};

// The face of the frame among the finder's, if one covers the reference box by 0.3 or more.
std::optional<msmface::DetectedFace> findFace(const msmface::Detector& detector,
                                              const GreyFrame& frame, const msmface::FaceBox& ref,
                                              double& seconds) {
    const auto start = std::chrono::steady_clock::now();
    const auto found = detector.detect(frame.view());
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!found) {
        std::fprintf(stderr, "detector_study: %s\n", found.message().c_str());
        return std::nullopt;
    }
    const msmface::DetectedFace* best = nullptr;
    for (const auto& f : *found)
        if (iou(f.box, ref) >= 0.3 && (best == nullptr || iou(f.box, ref) > iou(best->box, ref)))
            best = &f;
    if (best == nullptr) return std::nullopt;
    return *best;
}

msmface::FacePoints pointsOf(const float* p) {
    msmface::FacePoints points;
    for (int k = 0; k < 28; ++k) points.xy[k] = p[k];
    return points;
}

}  // namespace

int main(int argc, char** argv) {
    int step = 1;
    double threshold = msmface::DetectorOptions{}.networkThreshold;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--step") == 0 && i + 1 < argc) {
            step = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--network-threshold") == 0 && i + 1 < argc) {
            threshold = std::atof(argv[++i]);
        } else {
            std::fprintf(stderr,
                         "detector_study: unknown argument %s; usage: detector_study "
                         "[--step N] [--network-threshold T]\n",
                         argv[i]);
            return 2;
        }
    }
    if (step < 1) {
        std::fprintf(stderr, "detector_study: --step must be 1 or more\n");
        return 2;
    }
    const std::vector<RealFace> faces = detecttest::loadRealFaces(step);
    if (faces.empty()) {
        std::fprintf(stderr, "detector_study: no frames in %s\n",
                     detecttest::facesFolder().c_str());
        return 1;
    }
    struct Finder {
        const char* name;
        msmface::Detector detector;
    };
    std::vector<Finder> finders;
    for (const auto kind : {msmface::FaceFinder::Hog, msmface::FaceFinder::Network}) {
        msmface::DetectorOptions options;
        options.finder = kind;
        options.networkThreshold = threshold;
        auto d = msmface::Detector::create(options);
        if (!d) {
            std::fprintf(stderr, "detector_study: %s\n", d.message().c_str());
            continue;
        }
        finders.push_back(
            {kind == msmface::FaceFinder::Hog ? "hog" : "network", std::move(d).value()});
    }
    if (finders.empty()) return 1;

    static const double kYawEdges[] = {0.1, 0.2, 0.35, 1e9};
    static const char* const kYawNames[] = {"< 0.10 (< 9 deg)", "0.10-0.20 (9-18)",
                                            "0.20-0.35 (18-30)", ">= 0.35 (> 30)"};
    static const int kSizes[] = {40, 50, 60, 80, 120};
    constexpr int kSizeCount = 5;
    struct Results {
        Tally raw, scene, yaw[4], size[kSizeCount];
        int only = 0;  // scene faces (all sizes) that this finder alone found
        double seconds = 0;
        int frames = 0;
    };
    std::vector<Results> results(finders.size());
    // The network's box against the HOG box where both found the face: side ratio and centre
    // offsets in network box sides.
    double sideRatio = 0, right = 0, down = 0;
    int both = 0;

    // One frame searched by every finder: whether each found the face whose points are given.
    auto search = [&](const GreyFrame& frame, const float* points, bool timed,
                      std::vector<std::optional<msmface::DetectedFace>>& hits) {
        hits.clear();
        const auto ref = msmface::boxFromPoints(pointsOf(points));
        if (!ref) return false;
        for (size_t f = 0; f < finders.size(); ++f) {
            double seconds = 0;
            hits.push_back(findFace(finders[f].detector, frame, *ref, seconds));
            if (timed) {
                results[f].seconds += seconds;
                ++results[f].frames;
            }
        }
        return true;
    };
    auto error = [](const std::optional<msmface::DetectedFace>& hit, const float* points) {
        return hit ? detecttest::meanPointError(hit->points, points) : 0.0;
    };

    std::vector<std::optional<msmface::DetectedFace>> hits;
    for (size_t i = 0; i < faces.size(); ++i) {
        const RealFace& face = faces[i];
        // The frame as it is: a tight crop around the face.
        if (search(face.frame, face.points, false, hits))
            for (size_t f = 0; f < finders.size(); ++f)
                results[f].raw.add(hits[f].has_value(), error(hits[f], face.points));
        // The frame placed in a 640 x 480 scene (a camera's view of a room), at its own size and
        // scaled so that the face's box has each of the sizes; the place varies from frame to
        // frame.
        const auto ref = msmface::boxFromPoints(pointsOf(face.points));
        if (!ref) continue;
        for (int s = -1; s < kSizeCount; ++s) {
            const double scale = s < 0 ? 1.0 : static_cast<double>(kSizes[s]) / ref->width;
            if (face.frame.width * scale > 600 || face.frame.height * scale > 440) continue;
            const double left =
                20 + static_cast<double>((i * 37) % 500) * (600 - face.frame.width * scale) / 500;
            const double top =
                20 + static_cast<double>((i * 53) % 400) * (440 - face.frame.height * scale) / 400;
            GreyFrame scene = detecttest::canvas(640, 480);
            detecttest::paste(face.frame, scale, left, top, scene);
            float points[28];
            for (int k = 0; k < 28; k += 2) {
                points[k] = static_cast<float>(detecttest::placed(face.points[k], scale, left));
                points[k + 1] =
                    static_cast<float>(detecttest::placed(face.points[k + 1], scale, top));
            }
            if (!search(scene, points, s < 0, hits)) continue;
            if (hits.size() == 2 && hits[0].has_value() != hits[1].has_value())
                ++results[hits[0] ? 0 : 1].only;
            for (size_t f = 0; f < finders.size(); ++f) {
                const double e = error(hits[f], points);
                if (s >= 0) {
                    results[f].size[s].add(hits[f].has_value(), e);
                    continue;
                }
                int yawBin = 0;
                while (yawOffset(face.points) >= kYawEdges[yawBin]) ++yawBin;
                results[f].scene.add(hits[f].has_value(), e);
                results[f].yaw[yawBin].add(hits[f].has_value(), e);
            }
            if (s < 0 && hits.size() == 2 && hits[0] && hits[1]) {
                const auto& h = hits[0]->box;
                const auto& n = hits[1]->box;
                sideRatio += static_cast<double>(h.width) / n.width;
                right += ((h.left + h.width / 2.0) - (n.left + n.width / 2.0)) / n.width;
                down += ((h.top + h.height / 2.0) - (n.top + n.height / 2.0)) / n.width;
                ++both;
            }
        }
    }

    std::printf(
        "%zu frames of %s (every %d-th). Found: the share of faces with a box "
        "overlapping the box of their points by 0.3 or more (the mean landmark error of "
        "those, in eye distances)\n\n",
        faces.size(), detecttest::facesFolder().c_str(), step);
    std::printf("%-26s", "");
    for (const Finder& f : finders) std::printf("  %-18s", f.name);
    auto row = [&](const char* name, auto get) {
        std::printf("%-26s", name);
        for (const Results& r : results) std::printf("  %-18s", get(r).text().c_str());
        std::printf("   n=%d\n", get(results[0]).faces);
    };
    std::printf("\n");
    row("frames as they are", [](const Results& r) { return r.raw; });
    row("in a 640x480 scene", [](const Results& r) { return r.scene; });
    std::printf("  by yaw (nose offset, deg)\n");
    for (int y = 0; y < 4; ++y)
        row((std::string("    ") + kYawNames[y]).c_str(),
            [y](const Results& r) { return r.yaw[y]; });
    std::printf("  by face box side\n");
    for (int s = 0; s < kSizeCount; ++s)
        row(("    " + std::to_string(kSizes[s]) + " px").c_str(),
            [s](const Results& r) { return r.size[s]; });
    std::printf("%-26s", "found by this one alone");
    for (const Results& r : results) std::printf("  %-18d", r.only);
    std::printf("   of the scenes above\n");
    std::printf("%-26s", "time per 640x480 frame");
    for (const Results& r : results)
        std::printf("  %-18s",
                    (std::to_string(std::lround(1000 * r.seconds / std::max(1, r.frames))) + " ms")
                        .c_str());
    std::printf("\n");
    if (both > 0)
        std::printf(
            "\nHOG box against the network's (%d faces both found in the scene): side x "
            "%.3f, centre %+.3f right, %+.3f down (in network box sides)\n",
            both, sideRatio / both, right / both, down / both);
    return 0;
}
