// The face descriptor's cost per face on one core: the chip cut from the landmarks, the network
// on a ready chip, and both together, for a real face pasted into a 640 x 480 frame.
#include <benchmark/benchmark.h>

#include <msmface/descriptor.h>
#include <msmface/detect.h>

#include "support/shared_faces.h"

namespace {

using msmbench::FacePicture;

struct Setup {
    std::vector<msmface::Descriptor> descriptor;
    msmbench::GreyPicture frame;
    msmface::DetectedFace face;
    std::string error;
};

// One thread for OpenCV (the descriptor's default), a real face with eyes 80 pixels apart in a
// camera-sized frame, and its landmarks as the detector finds them.
const Setup& setup() {
    static const Setup s = [] {
        Setup s;
        auto loaded = msmface::Descriptor::load();
        if (!loaded) {
            s.error = loaded.message();
            return s;
        }
        s.descriptor.push_back(std::move(loaded).value());
        const msmface::Result<msmface::Detector> detector = msmface::Detector::create();
        if (!detector) {
            s.error = "no landmark model (libdlib-data): " + detector.message();
            return s;
        }
        std::string error;
        for (const FacePicture& f : msmbench::readFacePictures(error)) {
            if (f.row.eyeDistance() < 30) continue;
            s.frame = msmbench::canvas(640, 480);
            msmbench::paste(f.picture, 80 / f.row.eyeDistance(), 160, 60, s.frame);
            const auto found = detector->detect(s.frame.view());
            if (found.ok() && found->size() == 1) {
                s.face = found->front();
                return s;
            }
        }
        s.error = error.empty() ? "no real face found in " + msmbench::facesFolder() : error;
        return s;
    }();
    return s;
}

bool ready(benchmark::State& state) {
    if (!setup().error.empty()) {
        state.SkipWithError(setup().error.c_str());
        return false;
    }
    return true;
}

void BM_DescriptorChipCut(benchmark::State& state) {
    if (!ready(state)) return;
    for (auto _ : state) {
        auto chip = msmface::cutFaceChip(setup().frame.view(), setup().face.landmarks);
        if (!chip) return state.SkipWithError(chip.message().c_str());
        benchmark::DoNotOptimize(chip->rgb.data());
    }
}
BENCHMARK(BM_DescriptorChipCut)->Unit(benchmark::kMillisecond);

void BM_DescriptorNetwork(benchmark::State& state) {
    if (!ready(state)) return;
    const auto chip = msmface::cutFaceChip(setup().frame.view(), setup().face.landmarks);
    if (!chip) return state.SkipWithError(chip.message().c_str());
    for (auto _ : state) {
        auto d = setup().descriptor.front().computeChip(chip->view());
        if (!d) return state.SkipWithError(d.message().c_str());
        benchmark::DoNotOptimize(d->data());
    }
}
BENCHMARK(BM_DescriptorNetwork)->Unit(benchmark::kMillisecond);

// What a host pays per face once the detector has its landmarks.
void BM_DescriptorPerFace(benchmark::State& state) {
    if (!ready(state)) return;
    for (auto _ : state) {
        auto d = setup().descriptor.front().compute(setup().frame.view(), setup().face);
        if (!d) return state.SkipWithError(d.message().c_str());
        benchmark::DoNotOptimize(d->data());
    }
}
BENCHMARK(BM_DescriptorPerFace)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
