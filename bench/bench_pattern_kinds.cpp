// The two kinds of pattern side by side on 2000 persons: one frame by MSM through the recognition
// core with the engine's own patterns (five channels of 256 values) and with face descriptors
// (one channel of 128), and the memory of each kind's snapshot. The persons are random
// orthonormal dictionaries of the dictionary files' size (20 vectors per channel); a stream's
// patterns come from the watched person's leading directions, and every benchmark checks that
// the watched person ranks first, so that a fast wrong answer fails instead of reporting a time.
// Then the same through a Gallery of descriptors and a Stream on it: persons enrolled from
// descriptors as a host hands them over, a frame given by its descriptor (bench_streams measures
// the engine's own patterns through Gallery and Stream, from a camera frame and its points).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <msmface/gallery.h>

#include "core/input.h"
#include "core/snapshot.h"
#include "dictionary/DictChunk.h"
#include "support/random_basis.h"
#include "support/synthetic_galleries.h"

namespace {

using msmface::core::Input;
using msmface::core::Method;
using msmface::core::PatternShape;
using msmface::core::Snapshot;

constexpr int kPersons = 2000;
constexpr int kDistinct = 50;   // distinct dictionaries; the other persons copy them
constexpr int kVectors = 20;    // vectors per channel of a dictionary file
constexpr int kBasisCount = 7;  // the engine's patterns' default
// What a gallery of descriptors compares (msm::kDescriptorSettings).
constexpr int kDescriptorBasisCount = 3;
constexpr int kWatched = 3;

constexpr PatternShape kSeedShape{256, 5};
constexpr PatternShape kDescriptorShape{128, 1};

// Kinds: 0 the engine's patterns, 1 descriptors compared by the same basis count, 2 descriptors
// by a gallery of descriptors' basis count.
PatternShape shapeOf(int kind) {
    return kind == 0 ? kSeedShape : kDescriptorShape;
}
int basisCountOf(int kind) {
    return kind == 2 ? kDescriptorBasisCount : kBasisCount;
}
const char* nameOf(int kind) {
    return kind == 0   ? "seed 5 x 256, k=7"
           : kind == 1 ? "descriptor 1 x 128, k=7"
                       : "descriptor 1 x 128, k=3";
}

// kPersons dictionaries of one kind: kDistinct distinct ones, then copies.
struct Persons {
    explicit Persons(PatternShape shape) : chunks(kPersons) {
        std::mt19937 gen(static_cast<unsigned>(shape.dimension * 10 + shape.channels));
        for (int p = 0; p < kPersons; ++p) {
            DictChunk& chunk = chunks[p];
            if (p >= kDistinct) {
                chunk.CopyFrom(chunks[p % kDistinct]);
                continue;
            }
            chunk.Allocate(shape.channels);
            for (int c = 0; c < shape.channels; ++c) {
                const auto basis = msmbench::randomOrthonormalRows(kVectors, shape.dimension, gen);
                chunk.prims[c].Allocate(shape.dimension, kVectors, kDicPrimFloat);
                for (int k = 0; k < kVectors; ++k)
                    std::copy(basis[k].begin(), basis[k].end(), chunk.prims[c].frows[k]);
            }
        }
    }
    // Bytes of the dictionaries' float vectors (what their files hold).
    std::size_t floatBytes() const {
        std::size_t bytes = 0;
        for (const DictChunk& d : chunks)
            for (int c = 0; c < d.count; ++c)
                bytes += static_cast<std::size_t>(d.prims[c].allocatedRows) * d.prims[c].dim *
                         sizeof(float);
        return bytes;
    }
    std::vector<DictChunk> chunks;
};

const Persons& personsOf(int kind) {
    static std::map<int, std::unique_ptr<Persons>> made;
    auto& p = made[kind == 0 ? 0 : 1];
    if (!p) p = std::make_unique<Persons>(shapeOf(kind));
    return *p;
}

// patternRows: with the float vectors of the single-pattern method (what a gallery keeps).
std::shared_ptr<const Snapshot> snapshotOf(int kind, bool patternRows = true) {
    const Persons& persons = personsOf(kind);
    std::vector<const DictChunk*> list;
    for (const DictChunk& d : persons.chunks) list.push_back(&d);
    auto built = Snapshot::build(shapeOf(kind), {basisCountOf(kind), patternRows}, list);
    return built.ok() ? *built : nullptr;
}

// Unit patterns from the watched person's leading directions (as many as the basis count), one
// per channel.
class PatternStream {
  public:
    PatternStream(const DictChunk& person, PatternShape shape, int basisCount)
        : person_(person),
          shape_(shape),
          basisCount_(basisCount),
          patterns_(shape.channels),
          pointers_(shape.channels) {}
    const float* const* next() {
        std::normal_distribution<float> normal;
        for (int c = 0; c < shape_.channels; ++c) {
            std::vector<float>& p = patterns_[c];
            p.assign(shape_.dimension, 0.0f);
            for (int i = 0; i < basisCount_; ++i) {
                const float w = normal(gen_) * (1.0f - 0.1f * i);
                for (int x = 0; x < shape_.dimension; ++x) p[x] += w * person_.prims[c].frows[i][x];
            }
            double n = 0;
            for (float v : p) n += static_cast<double>(v) * v;
            for (float& v : p) v = static_cast<float>(v / std::sqrt(n));
            pointers_[c] = p.data();
        }
        return pointers_.data();
    }

  private:
    const DictChunk& person_;
    PatternShape shape_;
    int basisCount_;
    std::mt19937 gen_{5};
    std::vector<std::vector<float>> patterns_;
    std::vector<const float*> pointers_;
};

std::size_t heapBytes() {
    const struct mallinfo2 m = ::mallinfo2();
    return m.uordblks + m.hblkhd;
}

// One frame by MSM against 2000 persons: the input subspace's update and every person scored.
void BM_KindMsmFrame(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    const auto snapshot = snapshotOf(kind);
    if (snapshot == nullptr) {
        state.SkipWithError("the snapshot was not built");
        return;
    }
    auto input = Input::create(*snapshot);
    if (!input.ok()) {
        state.SkipWithError(input.message().c_str());
        return;
    }
    PatternStream stream(personsOf(kind).chunks[kWatched], shapeOf(kind), basisCountOf(kind));
    for (int f = 0; f < 30; ++f) {
        (*input)->update(stream.next());
        msmface::core::score(*snapshot, **input, Method::Msm);
    }
    // Persons that copy the watched one score as high: the first of them is the watched.
    auto watched = [&] { return (*input)->ranking().front().person == kWatched; };
    if (!watched()) state.SkipWithError("the watched person was not identified");
    for (auto _ : state) {
        (*input)->update(stream.next());
        msmface::core::score(*snapshot, **input, Method::Msm);
    }
    if (!watched()) state.SkipWithError("the watched person was lost");
    state.counters["best"] = (*input)->ranking().front().score;
    state.SetLabel(nameOf(kind));
}
BENCHMARK(BM_KindMsmFrame)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);

// What each kind's 2000 persons hold: the snapshot scoring reads (with and without the
// single-pattern method's float vectors), one input, and the float vectors of the dictionaries
// themselves.
void BM_KindSnapshotMemory(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    const bool patternRows = state.range(1) != 0;
    std::size_t bytes = 0, inputBytes = 0;
    for (auto _ : state) {
        const auto snapshot = snapshotOf(kind, patternRows);
        if (snapshot == nullptr) {
            state.SkipWithError("the snapshot was not built");
            return;
        }
        bytes = snapshot->bytes();
        const std::size_t before = heapBytes();
        auto input = Input::create(*snapshot);
        inputBytes = heapBytes() - before;
        if (!input.ok()) state.SkipWithError(input.message().c_str());
    }
    state.counters["snapshot_MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["snapshot_bytes_per_person"] = static_cast<double>(bytes) / kPersons;
    state.counters["input_MB"] = static_cast<double>(inputBytes) / 1e6;
    state.counters["dictionaries_MB"] = static_cast<double>(personsOf(kind).floatBytes()) / 1e6;
    state.SetLabel(nameOf(kind));
}
BENCHMARK(BM_KindSnapshotMemory)
    ->Args({0, 1})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

// --- Through Gallery and Stream ------------------------------------------------------------

// A directory of kPersons persons of descriptors: kDistinct enrolled through the gallery from
// eight views each, the others copies of them, made once.
msmbench::DescriptorDirectory& descriptorDirectory() {
    static msmbench::DescriptorDirectory made(kPersons, kDistinct);
    return made;
}

// One frame's descriptor through a Stream on a gallery of 2000 persons of descriptors.
void BM_DescriptorStreamFrame(benchmark::State& state) {
    msmbench::DescriptorDirectory& dir = descriptorDirectory();
    if (!dir.error().empty()) {
        state.SkipWithError(dir.error().c_str());
        return;
    }
    auto gallery = msmface::Gallery::open(dir.path());
    if (!gallery.ok()) {
        state.SkipWithError(gallery.message().c_str());
        return;
    }
    auto stream = msmface::Stream::create(*gallery);
    if (!stream.ok()) {
        state.SkipWithError(stream.message().c_str());
        return;
    }
    // The watched person's views: the first person enrolled from them ranks first.
    auto watched = [](const msmface::StreamState& s) {
        return s.ranking.matches.size() == static_cast<std::size_t>(kPersons) &&
               s.ranking.matches.front().id == kWatched + 1;
    };
    msmface::Result<msmface::StreamState> last = msmface::StreamState{};
    for (int f = 0; f < 30; ++f) last = stream->push(dir.views().view(kWatched));
    if (!last.ok() || !watched(*last)) {
        state.SkipWithError("the watched person was not identified");
        return;
    }
    for (auto _ : state) {
        last = stream->push(dir.views().view(kWatched));
        if (!last.ok()) state.SkipWithError(last.message().c_str());
    }
    if (!last.ok() || !watched(*last))
        state.SkipWithError("the watched person was lost");
    else
        state.counters["best"] = last->ranking.matches.front().score;
}
BENCHMARK(BM_DescriptorStreamFrame)->Unit(benchmark::kMicrosecond);

// Heap a gallery of 2000 persons of descriptors holds once open, and what each of sixteen
// streams on it adds (heap in use rather than resident memory: the benchmarks before this one
// leave freed pages that a new gallery reuses without growing the process).
void BM_DescriptorGalleryMemory(benchmark::State& state) {
    msmbench::DescriptorDirectory& dir = descriptorDirectory();
    if (!dir.error().empty()) {
        state.SkipWithError(dir.error().c_str());
        return;
    }
    for (auto _ : state) {
        const std::size_t start = heapBytes();
        auto gallery = msmface::Gallery::open(dir.path());
        if (!gallery.ok()) {
            state.SkipWithError(gallery.message().c_str());
            return;
        }
        const std::size_t opened = heapBytes();
        std::vector<msmface::Stream> streams;
        for (int i = 0; i < 16; ++i) {
            auto s = msmface::Stream::create(*gallery);
            if (!s.ok() || !s->push(dir.views().view(i)).ok()) {
                state.SkipWithError("a stream was not created");
                return;
            }
            streams.push_back(std::move(s).value());
        }
        const std::size_t running = heapBytes();
        state.counters["gallery_MB"] = static_cast<double>(opened - start) / 1e6;
        state.counters["stream_KB"] = static_cast<double>(running - opened) / 16.0 / 1e3;
    }
}
BENCHMARK(BM_DescriptorGalleryMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
