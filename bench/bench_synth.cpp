// The synthetic face generator: making a person and rendering a frame at the demo's sizes. The
// demo renders several hundred frames, so a frame must stay within a few milliseconds.
#include <benchmark/benchmark.h>

#include "synth/synth_face.h"

namespace {

void BM_MakePerson(benchmark::State& state) {
    int index = 0;
    for (auto _ : state) {
        const msmsynth::SynthPerson person = msmsynth::makePerson(1, index++);
        benchmark::DoNotOptimize(person.albedo.data());
    }
}
BENCHMARK(BM_MakePerson)->Unit(benchmark::kMillisecond);

void BM_RenderFrame(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0)), height = width * 3 / 4;
    const msmsynth::SynthPerson person = msmsynth::makePerson(1, 0);
    msmsynth::SynthPose pose = msmsynth::randomPose(5, width, height);
    pose.eyeDistance = 90.0f;  // the largest face the demo draws: the most pixels to fill
    pose.centreX = 0.5f * static_cast<float>(width);
    pose.centreY = 0.5f * static_cast<float>(height);
    long long checksum = 0;
    for (auto _ : state) {
        const msmsynth::SynthFrame frame = msmsynth::renderFrame(person, pose, width, height);
        if (!frame.valid()) {
            state.SkipWithError("frame not rendered");
            break;
        }
        checksum += frame.pixels[frame.pixels.size() / 2];
    }
    benchmark::DoNotOptimize(checksum);
}
BENCHMARK(BM_RenderFrame)->Arg(320)->Arg(640)->Unit(benchmark::kMillisecond);

}  // namespace
BENCHMARK_MAIN();
