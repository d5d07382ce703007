// Faces and landmarks per camera frame at 320 x 240 and 640 x 480: a whole-frame detection (by
// the HOG detector and by the network finder), a frame without a face (the doubled search
// included), and the frames of a video followed by a Follower, with a whole-frame search every
// tenth frame or only near the face. Real faces from the
// shared folder are pasted into the frames, moved and scaled a little from frame to frame.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>

#include <msmface/detect.h>

#ifdef MSMFACE_BENCH_NETWORK
#include <opencv2/core.hpp>
#endif

#include "support/shared_faces.h"

namespace {

using msmbench::canvas;
using msmbench::FacePicture;
using msmbench::GreyPicture;
using msmbench::paste;

// The default detector, loaded once (it takes a second or more); null without the model.
const msmface::Detector* detector() {
    static msmface::Result<msmface::Detector> loaded = msmface::Detector::create();
    return loaded.ok() ? &loaded.value() : nullptr;
}

// A clear real face (one face, found at the original size, eyes 35 pixels apart or more).
const FacePicture* benchFace() {
    static std::string error;
    static const std::vector<FacePicture> faces = msmbench::readFacePictures(error);
    static const FacePicture* face = [] {
        const msmface::Detector* d = detector();
        if (d == nullptr) return static_cast<const FacePicture*>(nullptr);
        for (const FacePicture& f : faces) {
            if (f.row.eyeDistance() < 35) continue;
            const auto found = d->detect(f.picture.view());
            if (found.ok() && found->size() == 1 && found->front().score > 0.5) return &f;
        }
        return static_cast<const FacePicture*>(nullptr);
    }();
    return face;
}

// Frames of a person in front of a camera: eyes 1/eyesPerWidth of the frame width apart (an
// eighth: close to the camera), moving by a few pixels and a few per cent from frame to frame.
std::vector<GreyPicture> video(int width, int count, double eyesPerWidth = 8) {
    const FacePicture& face = *benchFace();
    const int height = width * 3 / 4;
    std::vector<GreyPicture> frames;
    for (int t = 0; t < count; ++t) {
        const double scale =
            width / eyesPerWidth / face.row.eyeDistance() * (1 + 0.1 * std::sin(t * 0.3));
        const double left =
            width / 2.0 - scale * face.picture.width / 2 + width / 16.0 * std::sin(t * 0.2);
        const double top = height / 2.0 - scale * face.picture.height / 2;
        GreyPicture f = canvas(width, height);
        paste(face.picture, scale, left, top, f);
        frames.push_back(std::move(f));
    }
    return frames;
}

bool ready(benchmark::State& state) {
    if (detector() == nullptr) {
        state.SkipWithError("no landmark model (Debian: libdlib-data)");
        return false;
    }
    if (benchFace() == nullptr) {
        state.SkipWithError("no face data in the shared folder");
        return false;
    }
    return true;
}

void BM_DetectWholeFrame(benchmark::State& state) {
    if (!ready(state)) return;
    const auto frames = video(static_cast<int>(state.range(0)), 8);
    size_t i = 0;
    benchmark::IterationCount faces = 0;
    for (auto _ : state) {
        const auto found = detector()->detect(frames[i++ % frames.size()].view());
        faces += found.ok() && !found->empty();
    }
    if (faces < state.iterations()) state.SkipWithError("a frame without its face");
}
BENCHMARK(BM_DetectWholeFrame)->Arg(320)->Arg(640)->Unit(benchmark::kMillisecond);

// The landmarks alone, in the box of a face found before.
void BM_FitInBox(benchmark::State& state) {
    if (!ready(state)) return;
    const auto frames = video(static_cast<int>(state.range(0)), 1);
    const auto found = detector()->detect(frames[0].view());
    if (!found.ok() || found->empty()) return state.SkipWithError("no face to fit");
    for (auto _ : state) {
        const auto fitted = detector()->fit(frames[0].view(), found->front().box);
        if (!fitted.ok()) state.SkipWithError("fit failed");
    }
}
BENCHMARK(BM_FitInBox)->Arg(320)->Arg(640)->Unit(benchmark::kMillisecond);

// The worst frame: nothing found at the original size, so the doubled frame is searched too.
void BM_DetectNoFace(benchmark::State& state) {
    if (!ready(state)) return;
    const int width = static_cast<int>(state.range(0));
    GreyPicture noise = canvas(width, width * 3 / 4);
    std::mt19937 rng(1);
    for (unsigned char& v : noise.pixels) v = static_cast<unsigned char>(96 + rng() % 32);
    for (auto _ : state) {
        const auto found = detector()->detect(noise.view());
        if (!found.ok() || !found->empty()) state.SkipWithError("a face in noise");
    }
}
BENCHMARK(BM_DetectNoFace)->Arg(320)->Arg(640)->Unit(benchmark::kMillisecond);

// Followed frames: range(1) frames between whole-frame searches (10: the default; 1000000: only
// the search near the face after the first frame).
void BM_Follow(benchmark::State& state) {
    if (!ready(state)) return;
    const auto frames = video(static_cast<int>(state.range(0)), 50);
    msmface::Follower follower(*detector(), {static_cast<int>(state.range(1))});
    size_t i = 0;
    benchmark::IterationCount faces = 0;
    for (auto _ : state) {
        msmface::FacePoints points;
        faces += follower.findPoints(frames[i++ % frames.size()].view(), points);
    }
    if (faces < state.iterations()) state.SkipWithError("lost the face");
}
BENCHMARK(BM_Follow)
    ->Args({320, 10})
    ->Args({320, 1000000})
    ->Args({640, 10})
    ->Args({640, 1000000})
    ->Unit(benchmark::kMillisecond);

#ifdef MSMFACE_BENCH_NETWORK
// The network finder (its weights from tools/fetch_descriptor_model.sh), loaded once; null
// without them.
const msmface::Detector* networkDetector() {
    static msmface::Result<msmface::Detector> loaded = [] {
        msmface::DetectorOptions options;
        options.finder = msmface::FaceFinder::Network;
        return msmface::Detector::create(options);
    }();
    return loaded.ok() ? &loaded.value() : nullptr;
}

// The whole frame searched by the network and the face's landmarks fitted: its cost does not
// depend on the frame's size (every frame is resized to the network's 512 x 512) and its work
// is the same with or without a face. range(1): OpenCV's threads.
void BM_DetectWholeFrameNetwork(benchmark::State& state) {
    if (!ready(state)) return;
    if (networkDetector() == nullptr)
        return state.SkipWithError("no face network (tools/fetch_descriptor_model.sh)");
    // A person a few metres from the camera (eyes a sixteenth of the width apart): the network
    // misses faces that fill much of the frame (detect/README.md).
    const auto frames = video(static_cast<int>(state.range(0)), 8, 16);
    const int threads = cv::getNumThreads();
    cv::setNumThreads(static_cast<int>(state.range(1)));
    size_t i = 0;
    benchmark::IterationCount faces = 0;
    for (auto _ : state) {
        const auto found = networkDetector()->detect(frames[i++ % frames.size()].view());
        faces += found.ok() && !found->empty();
    }
    cv::setNumThreads(threads);
    // The share of frames whose face was found (the work is the same either way).
    state.counters["found"] =
        static_cast<double>(faces) /
        static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
}
BENCHMARK(BM_DetectWholeFrameNetwork)
    ->Args({320, 1})
    ->Args({640, 1})
    ->Args({640, 2})
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
