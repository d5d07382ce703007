// What a gallery's changes cost on a directory of ten persons: an enrolment (50 frames gathered
// into a dictionary and its files), a removal (the registry replaced, the person dropped from
// memory) and a rebuild of the constraint space (generated, loaded and checked, then made
// current).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <msmface/gallery.h>

#include "support/scratch_folder.h"
#include "synth/synth_face.h"

namespace {

constexpr int kPersons = 10;
constexpr uint32_t kPopulation = 7;

// A take of 50 frames of synthetic person i, the frames kept alive beside their samples.
struct Take {
    std::vector<msmsynth::SynthFrame> frames;
    std::vector<msmface::Sample> samples;

    explicit Take(int i) {
        for (const auto& pose : msmsynth::makeSequence(300 + i, 50, 320, 240))
            frames.push_back(
                msmsynth::renderFrame(msmsynth::makePerson(kPopulation, i), pose, 320, 240));
        for (const auto& f : frames) {
            msmface::Sample s;
            s.frame = {f.pixels.data(), f.width, f.height, 0, msmface::PixelFormat::Grey};
            s.points.emplace();
            std::copy(f.points.begin(), f.points.end(), s.points->xy.begin());
            samples.push_back(s);
        }
    }
};

class Fixture {
  public:
    Fixture() : newcomer_(kPersons) {
        auto g = msmface::Gallery::open(dir_.path());
        for (int i = 0; i < kPersons && g.ok(); ++i)
            if (!g->enrol(i + 1, "p" + std::to_string(i), Take(i).samples).ok())
                std::fprintf(stderr, "bench_enrol: enrolment failed\n");
    }
    const std::string& dir() const { return dir_.path(); }
    const std::vector<msmface::Sample>& newcomer() const { return newcomer_.samples; }

  private:
    msmbench::ScratchFolder dir_;
    Take newcomer_;
};

Fixture& Shared() {
    static Fixture f;
    return f;
}

// 0: the enrolment is timed, the removal that undoes it is not; 1: the other way round.
void BM_EnrolAndRemove(benchmark::State& state) {
    Fixture& f = Shared();
    auto g = msmface::Gallery::open(f.dir());
    if (!g.ok()) {
        state.SkipWithError(g.message().c_str());
        return;
    }
    const bool timeRemoval = state.range(0) == 1;
    for (auto _ : state) {
        if (timeRemoval) state.PauseTiming();
        const msmface::Status enrolled = g->enrol(kPersons + 1, "newcomer", f.newcomer());
        if (timeRemoval) state.ResumeTiming();
        if (!timeRemoval) state.PauseTiming();
        const msmface::Status removed = g->remove(kPersons + 1);
        if (!timeRemoval) state.ResumeTiming();
        if (!enrolled.ok() || !removed.ok()) {
            state.SkipWithError((enrolled.message() + removed.message()).c_str());
            return;
        }
    }
    state.SetLabel(timeRemoval ? "remove" : "enrol");
}
BENCHMARK(BM_EnrolAndRemove)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_RebuildConstraint(benchmark::State& state) {
    auto g = msmface::Gallery::open(Shared().dir());
    if (!g.ok()) {
        state.SkipWithError(g.message().c_str());
        return;
    }
    for (auto _ : state) {
        const msmface::Status rebuilt = g->rebuildConstraint(100);
        if (!rebuilt.ok()) {
            state.SkipWithError(rebuilt.message().c_str());
            return;
        }
    }
}
BENCHMARK(BM_RebuildConstraint)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
