// One recognition frame against galleries of 10 to 2000 persons, by the subspace method and in
// one or three constraint spaces of dimension 200, beside the memory floor: the same persons'
// Q14 dictionary rows streamed once through mmxdotp. Also one frame's input-subspace update and
// the regeneration of a constraint space from 100 persons' files. The recognition core beside
// the legacy recogniser: the same frames through a snapshot and an input, a new input against
// snapshots of 100 to 20000 persons, and a snapshot's memory against its dictionaries'. Every
// benchmark checks that its answer is right (the watched person is found, the files are written),
// so a fast wrong result fails instead of reporting a time.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <msmface/numeric.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/input.h"
#include "core/snapshot.h"
#include "dictionary/DictChunk.h"
#include "recognition/MWMSMRecognition.h"
#include "support/random_basis.h"

namespace {

constexpr int kChannels = 5;
constexpr int kVectors = 20;  // what the registry reads per channel
constexpr int kDim = 256;
constexpr int kWatched = 3;  // the person whose subspace the input stream comes from

std::string ScratchFolder() {
    static std::string folder = [] {
        char name[] = "/tmp/msmface_bench_recog_XXXXXX";
        return std::string(mkdtemp(name) != nullptr ? name : "/tmp");
    }();
    return folder;
}

// Orthonormal rows from a seed (Gram-Schmidt in double).
std::vector<std::vector<float>> RandomBasis(int k, unsigned seed) {
    std::mt19937 gen(seed);
    return msmbench::randomOrthonormalRows(k, kDim, gen);
}

void FillPerson(DictChunk& chunk, unsigned seed, int vectors = kVectors) {
    chunk.Allocate(kChannels);
    for (int c = 0; c < kChannels; ++c) {
        auto b = RandomBasis(vectors, seed * 16 + c);
        chunk.prims[c].Allocate(kDim, vectors, kDicPrimFloat);
        for (int k = 0; k < vectors; ++k)
            std::copy(b[k].begin(), b[k].end(), chunk.prims[c].frows[k]);
        chunk.prims[c].PrepareQ14Rows();
    }
}

// Patterns from the watched person's first seven directions.
class Stream {
  public:
    explicit Stream(const DictChunk& person) : person_(person), gen_(5) {}
    float* const* Next() {
        std::normal_distribution<float> normal;
        for (int c = 0; c < kChannels; ++c) {
            pats_[c].assign(kDim, 0.0f);
            for (int i = 0; i < 7; ++i) {
                float w = normal(gen_) * (1.0f - 0.1f * i);
                for (int x = 0; x < kDim; ++x) pats_[c][x] += w * person_.prims[c].frows[i][x];
            }
            ptr_[c] = pats_[c].data();
        }
        return ptr_;
    }

  private:
    const DictChunk& person_;
    std::mt19937 gen_;
    std::vector<float> pats_[kChannels];
    float* ptr_[kChannels] = {};
};

// Galleries are built once and shared by the benchmarks: distinct persons for the first 50, then
// copies (the scoring does not care whose numbers it reads, only how many).
struct Gallery {
    explicit Gallery(int n) : persons(n) {
        for (int p = 0; p < n; ++p) {
            if (p < 50)
                FillPerson(persons[p], 1000 + p);
            else
                persons[p].CopyFrom(persons[p % 50]);
        }
    }
    std::vector<DictChunk> persons;
};

Gallery& GalleryOf(int n) {
    static std::unique_ptr<Gallery> g[4];
    int slot = n <= 10 ? 0 : n <= 100 ? 1 : n <= 1000 ? 2 : 3;
    if (!g[slot]) g[slot] = std::make_unique<Gallery>(n);
    return *g[slot];
}

void BM_Method1Frame(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Gallery& g = GalleryOf(n);
    MSMRecognition rec(kDim, kChannels);
    rec.Set_RecognitionResultMode(1, 10);
    Stream stream(g.persons[kWatched]);
    int best = 0, id = -1;
    for (int f = 0; f < 60; ++f)
        id = rec.RecognizeByInputSubspaces(stream.Next(), g.persons.data(), n, &best);
    if (id != kWatched) state.SkipWithError("the watched person was not identified");
    for (auto _ : state) {
        id = rec.RecognizeByInputSubspaces(stream.Next(), g.persons.data(), n, &best);
        benchmark::DoNotOptimize(id);
    }
    if (id != kWatched) state.SkipWithError("the watched person was lost");
    state.counters["best"] = best;
    state.counters["persons/s"] = benchmark::Counter(static_cast<double>(n) * state.iterations(),
                                                     benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Method1Frame)->Arg(10)->Arg(100)->Arg(1000)->Arg(2000)->Unit(benchmark::kMicrosecond);

// The floor: every Q14 row the scoring reads (7 per channel and person), once through mmxdotp.
void BM_MemoryFloor(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Gallery& g = GalleryOf(n);
    short* probe = g.persons[0].prims[0].qrows[0];
    for (auto _ : state) {
        int32_t sum = 0;
        for (int p = 0; p < n; ++p)
            for (int c = 0; c < kChannels; ++c)
                for (int k = 0; k < 7; ++k)
                    sum += mmxdotp(g.persons[p].prims[c].qrows[k], probe, kDim);
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(n) * kChannels * 7 * kDim *
                            2);
}
BENCHMARK(BM_MemoryFloor)->Arg(10)->Arg(100)->Arg(1000)->Arg(2000)->Unit(benchmark::kMicrosecond);

// Three constraint spaces of dimension 200 (coordinate bases turned by a random rotation, with
// decreasing eigenvalues), and every person's dictionaries projected into them.
struct ConstraintSetup {
    ConstraintSetup() : rec(kDim, kChannels) {
        std::string dir = ScratchFolder();
        std::string list = dir + "/spaces.txt";
        std::ofstream out(list);
        out << "3 1\n";
        for (int s = 0; s < 3; ++s) {
            std::string stem = dir + "/space" + std::to_string(s);
            DictChunk v, e;
            v.Allocate(kChannels);
            e.Allocate(kChannels);
            for (int c = 0; c < kChannels; ++c) {
                auto b = RandomBasis(kDim, 500 + s * 10 + c);
                v.prims[c].Allocate(kDim, kDim, kDicPrimFloat);
                e.prims[c].Allocate(1, kDim, kDicPrimFloat);
                for (int k = 0; k < kDim; ++k) {
                    std::copy(b[k].begin(), b[k].end(), v.prims[c].frows[k]);
                    e.prims[c].frows[k][0] = 1.0f / (1.0f + k);
                }
            }
            v.Write((stem + ".dck").c_str(), 0, kDicPrimFloat);
            e.Write((stem + ".dckev").c_str(), 0, kDicPrimFloat);
            out << "CMSMF " << stem << " 200\n";
        }
        out.close();
        loaded = rec.InitConstraintMSM(list.c_str()) == 1;
    }
    // Projected sets for n persons: 50 projected, the rest copies.
    DictChunk* const* Projected(int n) {
        Gallery& g = GalleryOf(n);
        if (static_cast<int>(sets.size()) < n) {
            for (int p = static_cast<int>(sets.size()); p < n; ++p) {
                auto* s = new DictChunk[3];
                for (int sp = 0; sp < 3; ++sp) {
                    if (p < 50)
                        rec.ProjectDictionary(g.persons[p], sp, s[sp]);
                    else
                        s[sp].CopyFrom(sets[p % 50][sp]);
                }
                sets.push_back(s);
            }
        }
        return sets.data();
    }
    ~ConstraintSetup() {
        for (auto* s : sets) delete[] s;
    }
    MWMSMRecognition rec;
    bool loaded = false;
    std::vector<DictChunk*> sets;
};

ConstraintSetup& Constraints() {
    static ConstraintSetup setup;
    return setup;
}

void BM_ConstraintFrame(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const int spaces = static_cast<int>(state.range(1));
    ConstraintSetup& cs = Constraints();
    if (!cs.loaded) {
        state.SkipWithError("constraint spaces did not load");
        return;
    }
    DictChunk* const* projected = cs.Projected(n);
    Gallery& g = GalleryOf(n);
    cs.rec.Set_RecognitionResultMode(1, 10);
    cs.rec.Refresh_input();
    Stream stream(g.persons[kWatched]);
    int best = 0, id = -1;
    for (int f = 0; f < 60; ++f)
        id = cs.rec.RecognizeInConstraintSpaces(stream.Next(), projected, n, 3, spaces, &best);
    if (id != kWatched) state.SkipWithError("the watched person was not identified");
    for (auto _ : state) {
        id = cs.rec.RecognizeInConstraintSpaces(stream.Next(), projected, n, 3, spaces, &best);
        benchmark::DoNotOptimize(id);
    }
    if (id != kWatched) state.SkipWithError("the watched person was lost");
    state.counters["best"] = best;
}
BENCHMARK(BM_ConstraintFrame)
    ->ArgsProduct({{10, 100, 1000, 2000}, {1, 3}})
    ->Unit(benchmark::kMicrosecond);

void BM_InputUpdateFiveChannels(benchmark::State& state) {
    DictChunk person;
    FillPerson(person, 77);
    MSMRecognition rec(kDim, kChannels);
    Stream stream(person);
    for (int f = 0; f < 30; ++f) rec.UpdateInputSubspaces(stream.Next(), false);
    for (auto _ : state) rec.UpdateInputSubspaces(stream.Next(), false);
    if (rec.inputs[4].state != 1) state.SkipWithError("input subspace not valid");
}
BENCHMARK(BM_InputUpdateFiveChannels)->Unit(benchmark::kMicrosecond);

void BM_RegenerateFromHundredPersons(benchmark::State& state) {
    std::string dir = ScratchFolder();
    std::vector<std::string> paths;
    for (int p = 0; p < 100; ++p) {
        paths.push_back(dir + "/person" + std::to_string(p) + ".dck");
        if (access(paths.back().c_str(), F_OK) == 0) continue;
        DictChunk d;
        FillPerson(d, 3000 + p, 50);
        d.Write(paths.back().c_str(), 0, kDicPrimFloat);
    }
    std::vector<const char*> raw;
    for (auto& p : paths) raw.push_back(p.c_str());
    std::string list = dir + "/learned.txt";
    std::ofstream(list) << "1 1 CMSML " << dir << "/learned 200 " << dir << "/learned_default\n";
    MWMSMRecognition rec(kDim, kChannels);
    std::fprintf(stderr, "(the first load of the learned space reports that it has no files) ");
    rec.InitConstraintMSM(list.c_str());
    std::fprintf(stderr, "\n");
    int result = 0;
    for (auto _ : state) result = rec.RegenerateFromScratch(100, raw.data(), 0);
    if (result != 1) state.SkipWithError("regeneration failed");
}
BENCHMARK(BM_RegenerateFromHundredPersons)->Unit(benchmark::kMillisecond)->Iterations(2);

// --- The recognition core ------------------------------------------------------------------

using msmface::core::Input;
using msmface::core::Method;
using msmface::core::Snapshot;

constexpr msmface::core::PatternShape kShape{kDim, kChannels};

// Heap in use (glibc): what a new object holds, whatever block sizes it was given.
std::size_t HeapBytes() {
    const struct mallinfo2 m = ::mallinfo2();
    return m.uordblks + m.hblkhd;
}

// A snapshot of n persons: the gallery's own for up to 2000, beyond that its 100 distinct
// dictionaries again and again (a snapshot copies what it reads). With the constraint spaces of
// the legacy benchmarks when asked.
std::shared_ptr<const Snapshot> CoreSnapshot(int n, bool spaces, bool patternRows = true) {
    Gallery& g = GalleryOf(n <= 2000 ? n : 100);
    std::vector<const DictChunk*> persons;
    for (int p = 0; p < n; ++p) persons.push_back(&g.persons[p % g.persons.size()]);
    std::vector<const ConstraintSpace*> list;
    if (spaces) {
        ConstraintSetup& cs = Constraints();
        for (int s = 0; s < cs.rec.spaceCount; ++s) list.push_back(&cs.rec.spaces[s]);
    }
    auto snapshot = Snapshot::build(kShape, {7, patternRows}, persons, list);
    return snapshot.ok() ? *snapshot : nullptr;
}

// A new input against snapshots of 100, 2000 and 20000 persons: time, and the heap it holds.
void BM_CoreNewInput(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const auto snapshot = CoreSnapshot(n, false, false);
    if (snapshot == nullptr) {
        state.SkipWithError("the snapshot was not built");
        return;
    }
    // The heap is measured outside the timed loop: reading it walks the allocator's lists.
    const std::size_t before = HeapBytes();
    auto first = Input::create(*snapshot);
    const std::size_t held = HeapBytes() - before;
    if (!first.ok()) {
        state.SkipWithError(first.message().c_str());
        return;
    }
    for (auto _ : state) {
        auto input = Input::create(*snapshot);
        if (!input.ok()) state.SkipWithError(input.message().c_str());
        benchmark::DoNotOptimize(input);
    }
    state.counters["input_bytes"] = static_cast<double>(held);
    state.counters["snapshot_bytes"] = static_cast<double>(snapshot->bytes());
}
BENCHMARK(BM_CoreNewInput)->Arg(100)->Arg(2000)->Arg(20000)->Unit(benchmark::kMicrosecond);

// One frame through the core, beside BM_Method1Frame and BM_ConstraintFrame: the same persons,
// the same stream, the watched person found.
void BM_CoreFrame(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const int spaces = static_cast<int>(state.range(1));
    static std::shared_ptr<const Snapshot> withSpaces;
    if (spaces > 0 && withSpaces == nullptr) withSpaces = CoreSnapshot(n, true);
    const auto snapshot = spaces > 0 ? withSpaces : CoreSnapshot(n, false);
    if (snapshot == nullptr || (spaces > 0 && snapshot->spaceCount() != 3)) {
        state.SkipWithError("the snapshot was not built");
        return;
    }
    const Method method = spaces == 0   ? Method::Msm
                          : spaces == 1 ? Method::Cmsm
                                        : Method::CmsmAllSpaces;
    auto input = Input::create(*snapshot);
    if (!input.ok()) {
        state.SkipWithError(input.message().c_str());
        return;
    }
    Stream stream(GalleryOf(n).persons[kWatched]);
    for (int f = 0; f < 60; ++f) {
        (*input)->update(stream.Next());
        msmface::core::score(*snapshot, **input, method);
    }
    auto watched = [&] { return (*input)->ranking().front().person == kWatched; };
    if (!watched()) state.SkipWithError("the watched person was not identified");
    for (auto _ : state) {
        (*input)->update(stream.Next());
        msmface::core::score(*snapshot, **input, method);
    }
    if (!watched()) state.SkipWithError("the watched person was lost");
    state.counters["best"] = (*input)->ranking().front().score;
}
BENCHMARK(BM_CoreFrame)
    ->Args({2000, 0})
    ->Args({2000, 1})
    ->Args({2000, 3})
    ->Unit(benchmark::kMicrosecond);

// A snapshot of 2000 persons against their dictionaries as the legacy database holds them (20
// float vectors and their Q14 rows per channel), without and with the three spaces' projections,
// and what sixteen inputs on it add.
void BM_CoreSnapshotMemory(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const bool spaces = state.range(1) != 0;
    Gallery& g = GalleryOf(n);
    std::size_t dictionaries = 0;
    for (const DictChunk& d : g.persons)
        for (int c = 0; c < d.count; ++c)
            dictionaries +=
                static_cast<std::size_t>(d.prims[c].allocatedRows) *
                (d.prims[c].paddedLength * sizeof(float) + d.prims[c].qLength * sizeof(short));
    std::size_t bytes = 0, sixteen = 0;
    for (auto _ : state) {
        const auto snapshot = CoreSnapshot(n, spaces);
        if (snapshot == nullptr) {
            state.SkipWithError("the snapshot was not built");
            return;
        }
        bytes = snapshot->bytes();
        // Sixteen streams on the one gallery: their inputs are all they add.
        const std::size_t before = HeapBytes();
        std::vector<std::unique_ptr<Input>> inputs;
        for (int i = 0; i < 16; ++i) {
            auto input = Input::create(*snapshot);
            if (input.ok()) inputs.push_back(std::move(*input));
        }
        sixteen = HeapBytes() - before;
        if (inputs.size() != 16) state.SkipWithError("an input was not created");
    }
    state.counters["snapshot_MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["sixteen_inputs_MB"] = static_cast<double>(sixteen) / 1e6;
    state.counters["dictionaries_MB"] = static_cast<double>(dictionaries) / 1e6;
    state.counters["ratio"] = static_cast<double>(bytes) / static_cast<double>(dictionaries);
}
BENCHMARK(BM_CoreSnapshotMemory)
    ->Args({2000, 0})
    ->Args({2000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
