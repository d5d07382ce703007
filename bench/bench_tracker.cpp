// The Tracker on a 640 x 480 video with one, three and six persons (real faces from the shared
// folder, eyes 40 pixels apart, each moving a few pixels from frame to frame on a 3 x 2 grid),
// a whole-frame search every tenth frame: frames per second on one core, and the faces tracked
// per frame (which must be all of them, or the number measures something else).
#include <benchmark/benchmark.h>

#include <cmath>
#include <set>

#include <msmface/tracker.h>

#include "support/shared_faces.h"

namespace {

using msmbench::canvas;
using msmbench::FacePicture;
using msmbench::GreyPicture;
using msmbench::paste;

const msmface::Detector* detector() {
    static msmface::Result<msmface::Detector> loaded = msmface::Detector::create();
    return loaded.ok() ? &loaded.value() : nullptr;
}

// Six clear faces of six persons (one face in the picture, found at the original size).
const std::vector<const FacePicture*>& benchFaces() {
    static std::string error;
    static const std::vector<FacePicture> faces = msmbench::readFacePictures(error);
    static const std::vector<const FacePicture*> chosen = [] {
        std::vector<const FacePicture*> out;
        const msmface::Detector* d = detector();
        std::set<std::string> persons;
        for (const FacePicture& f : faces) {
            if (d == nullptr || out.size() == 6) break;
            if (f.row.eyeDistance() < 35 || persons.count(f.row.identity) > 0) continue;
            const auto found = d->detect(f.picture.view());
            if (found.ok() && found->size() == 1 && found->front().score > 0.5) {
                out.push_back(&f);
                persons.insert(f.row.identity);
            }
        }
        return out;
    }();
    return chosen;
}

// count persons on a 3 x 2 grid; the motion repeats every `frames` frames, so the video loops
// without a jump.
std::vector<GreyPicture> video(int count, int frames) {
    const auto& faces = benchFaces();
    std::vector<GreyPicture> out;
    constexpr double kPi = 3.14159265358979;
    for (int t = 0; t < frames; ++t) {
        GreyPicture f = canvas(640, 480);
        for (int k = 0; k < count; ++k) {
            const FacePicture& face = *faces[k];
            const double scale = 40 / face.row.eyeDistance();
            const double phase = 2 * kPi * t / frames + k;
            const double eyeX = (face.row.points[0] + face.row.points[2]) / 2;
            const double eyeY = (face.row.points[1] + face.row.points[3]) / 2;
            const double cx = 107 + 213 * (k % 3) + 8 * std::sin(phase);
            const double cy = 100 + 240 * (k / 3) + 5 * std::cos(phase);
            paste(face.picture, scale, cx - eyeX * scale, cy - eyeY * scale, f);
        }
        out.push_back(std::move(f));
    }
    return out;
}

void BM_TrackerUpdate(benchmark::State& state) {
    if (detector() == nullptr) return state.SkipWithError("no landmark model (libdlib-data)");
    if (benchFaces().size() < 6) return state.SkipWithError("no face data in the shared folder");
    const int persons = static_cast<int>(state.range(0));
    const auto frames = video(persons, 50);
    auto tracker = msmface::Tracker::create(*detector());
    if (!tracker.ok()) return state.SkipWithError(tracker.message().c_str());
    // The first frames start the tracks; the measured ones follow them.
    for (int t = 0; t < 3; ++t) (void)tracker->update(frames[t].view());
    size_t i = 3;
    double faces = 0;
    for (auto _ : state) {
        const auto f = tracker->update(frames[i++ % frames.size()].view());
        if (!f.ok()) return state.SkipWithError(f.message().c_str());
        faces += static_cast<double>(f->faces.size());
    }
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["faces"] = faces / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TrackerUpdate)->Arg(1)->Arg(3)->Arg(6)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
