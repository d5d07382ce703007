// What a new track costs: the time and heap of starting a track against galleries of 100, 2000
// and 20000 persons of both kinds of pattern (the goal: independent of the gallery's size), the
// same when the track takes an ended track's input, and where a track of the engine's patterns
// spends its bytes (which of them are the face's state and which are scratch of one call).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <msmface/gallery.h>
#include <msmface/tracks.h>

#include "core/input.h"
#include "gallery/face_reader.h"
#include "recognition/InputSubspace.h"
#include "support/synthetic_galleries.h"

namespace {

constexpr int kSeed = 0, kDescriptor = 1;
// Tracks started per TrackRecognition before a fresh one: every start makes an input of its own.
constexpr int kBatch = 32;
// Distinct persons of a gallery of descriptors; the others are copies.
constexpr int kDistinctDescriptors = 50;

std::size_t HeapInUse() {
    const struct mallinfo2 m = ::mallinfo2();
    return m.uordblks + m.hblkhd;
}

// One open gallery per kind and size, kept for the whole run.
msmface::Gallery* GalleryOf(int kind, int persons, std::string& error) {
    static std::map<std::pair<int, int>, std::unique_ptr<msmbench::SeedDirectory>> seeds;
    static std::map<std::pair<int, int>, std::unique_ptr<msmbench::DescriptorDirectory>> descs;
    static std::map<std::pair<int, int>, std::unique_ptr<msmface::Gallery>> open;
    const auto key = std::make_pair(kind, persons);
    auto& g = open[key];
    if (g) return g.get();
    std::string path;
    if (kind == kSeed) {
        seeds[key] = std::make_unique<msmbench::SeedDirectory>(persons);
        path = seeds[key]->path();
    } else {
        auto& d = descs[key];
        d = std::make_unique<msmbench::DescriptorDirectory>(persons, kDistinctDescriptors);
        if (!d->error().empty()) {
            error = d->error();
            return nullptr;
        }
        path = d->path();
    }
    auto opened = msmface::Gallery::open(path);
    if (!opened.ok()) {
        error = opened.message();
        return nullptr;
    }
    g = std::make_unique<msmface::Gallery>(std::move(opened).value());
    if (static_cast<int>(g->persons().size()) != persons) {
        error = "the gallery holds " + std::to_string(g->persons().size()) + " persons";
        return nullptr;
    }
    return g.get();
}

std::optional<msmface::TrackRecognition> MakeTracks(msmface::Gallery& g, std::string& error) {
    msmface::TrackOptions o;
    o.maxTracks = kBatch + 1;
    auto t = msmface::TrackRecognition::create(g, o);
    if (!t.ok()) {
        error = t.message();
        return std::nullopt;
    }
    // create() keeps one input ready for the first track: taken here, so that every track the
    // benchmark starts makes its own.
    if (!t->observeWithoutFace(kBatch, 0, 0.0).ok()) error = "the first track did not start";
    return std::move(t).value();
}

// A track started on a TrackRecognition whose ended tracks left no input to take: what a new
// face costs the first time (its input allocated, no dictionary read or copied).
void BM_NewTrack(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    const int persons = static_cast<int>(state.range(1));
    std::string error;
    msmface::Gallery* g = GalleryOf(kind, persons, error);
    if (g == nullptr) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::optional<msmface::TrackRecognition> t;
    int next = kBatch;
    std::size_t heap = 0;
    long started = 0;
    for (auto _ : state) {
        if (next == kBatch) {
            state.PauseTiming();
            t.reset();
            t = MakeTracks(*g, error);
            next = 0;
            state.ResumeTiming();
            if (!error.empty()) break;
        }
        const std::size_t before = HeapInUse();
        auto events = t->observeWithoutFace(next++, 1, 0.04);
        heap += HeapInUse() - before;
        ++started;
        if (!events.ok()) {
            error = events.message();
            break;
        }
    }
    if (!error.empty()) state.SkipWithError(error.c_str());
    state.counters["heap_MB_per_track"] = static_cast<double>(heap) / started / 1e6;
    state.counters["persons"] = persons;
    state.SetLabel(kind == kSeed ? "seed patterns" : "descriptors");
}
BENCHMARK(BM_NewTrack)
    ->ArgsProduct({{kSeed, kDescriptor}, {100, 2000, 20000}})
    ->Unit(benchmark::kMicrosecond);

// A track that ends and a new one that starts: the new one takes the ended one's input, cleared.
void BM_TrackAfterAnEndedOne(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    std::string error;
    msmface::Gallery* g = GalleryOf(kind, 2000, error);
    if (g == nullptr) {
        state.SkipWithError(error.c_str());
        return;
    }
    auto t = msmface::TrackRecognition::create(*g);
    if (!t.ok()) {
        state.SkipWithError(t.message().c_str());
        return;
    }
    int64_t frame = 0;
    std::size_t heap = 0;
    long started = 0;
    for (auto _ : state) {
        const std::size_t before = HeapInUse();
        auto events = t->observeWithoutFace(0, frame++, 0.0);
        heap += HeapInUse() - before;
        ++started;
        if (!events.ok() || !t->end(0).ok()) {
            state.SkipWithError("a track did not start or end");
            break;
        }
    }
    state.counters["heap_bytes_per_track"] = static_cast<double>(heap) / started;
    state.SetLabel(kind == kSeed ? "seed patterns" : "descriptors");
}
BENCHMARK(BM_TrackAfterAnEndedOne)->Arg(kSeed)->Arg(kDescriptor)->Unit(benchmark::kMicrosecond);

// Where a track of the engine's patterns (5 channels of 256, 7 basis vectors) spends its heap.
// The face reader (grey frame, normalised face, filters) and the input's scoring work are used
// only during a call: scratch that one per thread could serve every track. The input subspaces
// are the face's state, but each keeps a 256 x 256 covariance its update never uses and 256
// basis rows of which the 7 first are the subspace.
void BM_SeedTrackBytes(benchmark::State& state) {
    constexpr msmface::core::PatternShape kShape{256, 5};
    constexpr int kBasis = 7;
    for (auto _ : state) {
        std::size_t before = HeapInUse();
        auto input = msmface::core::Input::create(kShape, kBasis);
        const std::size_t inputBytes = HeapInUse() - before;
        if (!input.ok()) {
            state.SkipWithError(input.message().c_str());
            return;
        }
        before = HeapInUse();
        InputSubspace subspace;
        subspace.Allocate(kBasis, kShape.dimension);
        const std::size_t subspaceBytes = HeapInUse() - before;
        before = HeapInUse();
        auto reader = std::make_unique<msmface::detail::FaceReader>(kShape);
        const std::size_t readerBytes = HeapInUse() - before;
        const double d = kShape.dimension, channels = kShape.channels;
        const double unusedCovariance = channels * d * d * sizeof(float);
        const double unusedBasisRows = channels * (d - kBasis) * d * sizeof(float);
        const double subspaces = channels * static_cast<double>(subspaceBytes);
        state.counters["input_MB"] = inputBytes / 1e6;
        state.counters["subspaces_MB"] = subspaces / 1e6;
        state.counters["subspaces_unused_MB"] = (unusedCovariance + unusedBasisRows) / 1e6;
        state.counters["input_scoring_work_MB"] = (inputBytes - subspaces) / 1e6;
        state.counters["face_reader_MB"] = readerBytes / 1e6;
        benchmark::DoNotOptimize(reader);
    }
}
BENCHMARK(BM_SeedTrackBytes)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
