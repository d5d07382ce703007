// Streams on one shared gallery: what a new stream costs against 100, 2000 and 20000 persons,
// a frame through a stream beside the legacy engine's frame cycle, and the memory of sixteen
// streams on one gallery. The persons: a few random orthonormal dictionaries, each shared by many
// persons through hard links, and a constraint space of random directions.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>
#include <msmface/IDDatabase.h>
#include <msmface/gallery.h>

#include "core/snapshot.h"
#include "dictionary/DictChunk.h"
#include "support/random_basis.h"
#include "support/synthetic_galleries.h"

namespace {

constexpr int kDimension = 256;
constexpr int kChannels = 5;
constexpr int kVectors = 20;
constexpr int kDistinct = 16;
constexpr int kWidth = 320, kHeight = 240;
// Fourteen points of a real face of the size the camera frames hold.
constexpr float kPoints[28] = {94.17f, 96.17f, 144.83f, 99.0f,  116.0f, 141.0f, 131.0f,
                               141.0f, 105.0f, 163.0f,  142.0f, 163.0f, 86.0f,  96.0f,
                               105.0f, 96.0f,  134.0f,  97.0f,  153.0f, 101.0f, 109.0f,
                               78.0f,  138.0f, 78.0f,   127.0f, 130.0f, 127.0f, 165.0f};

const msmbench::SeedDirectory& DirectoryOf(int persons) {
    static std::map<int, std::unique_ptr<msmbench::SeedDirectory>> made;
    auto& d = made[persons];
    if (!d) d = std::make_unique<msmbench::SeedDirectory>(persons);
    return *d;
}

msmface::Gallery& GalleryOf(int persons) {
    static std::map<int, std::unique_ptr<msmface::Gallery>> open;
    auto& g = open[persons];
    if (!g) {
        auto opened = msmface::Gallery::open(DirectoryOf(persons).path());
        if (!opened.ok()) {
            std::fprintf(stderr, "%s\n", opened.message().c_str());
            std::abort();
        }
        g = std::make_unique<msmface::Gallery>(std::move(opened).value());
    }
    return *g;
}

// A grey frame of noise with the face's points.
struct Frame {
    std::vector<unsigned char> pixels;
    msmface::FrameView view;
    msmface::FacePoints points;
    Frame() : pixels(static_cast<std::size_t>(kWidth) * kHeight) {
        std::mt19937 rng(7);
        for (unsigned char& p : pixels) p = static_cast<unsigned char>(rng() & 0xff);
        view.data = pixels.data();
        view.width = kWidth;
        view.height = kHeight;
        std::copy(std::begin(kPoints), std::end(kPoints), points.xy.begin());
    }
};

// Bytes allocated and not freed, small blocks and large (mapped) ones.
std::size_t HeapInUse() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

long ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

msmface::Stream MakeStream(msmface::Gallery& g, msmface::Method method) {
    msmface::StreamOptions options;
    options.method = method;
    auto s = msmface::Stream::create(g, options);
    if (!s.ok()) {
        std::fprintf(stderr, "%s\n", s.message().c_str());
        std::abort();
    }
    return std::move(s).value();
}

// Resident memory of a process with one 2000-person gallery and sixteen streams on it.
void BM_SixteenStreamsRss(benchmark::State& state) {
    const msmbench::SeedDirectory& dir = DirectoryOf(2000);
    for (auto _ : state) {
        const long start = ResidentBytes();
        auto g = msmface::Gallery::open(dir.path());
        if (!g.ok()) state.SkipWithError(g.message().c_str());
        const long opened = ResidentBytes();
        std::vector<msmface::Stream> streams;
        const Frame frame;
        for (int i = 0; i < 16; ++i) {
            streams.push_back(MakeStream(*g, msmface::Method::Cmsm));
            if (!streams.back().push(frame.view, frame.points).ok()) state.SkipWithError("push");
        }
        const long running = ResidentBytes();
        state.counters["gallery_rss_MB"] = (opened - start) / 1048576.0;
        state.counters["stream_rss_KB"] = (running - opened) / 16.0 / 1024.0;
        state.counters["process_rss_MB"] = running / 1048576.0;
    }
}
BENCHMARK(BM_SixteenStreamsRss)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_NewStream(benchmark::State& state) {
    const int persons = static_cast<int>(state.range(0));
    msmface::Gallery& g = GalleryOf(persons);
    std::size_t heap = 0;
    long streams = 0;
    for (auto _ : state) {
        const std::size_t before = HeapInUse();
        msmface::Stream s = MakeStream(g, msmface::Method::Msm);
        heap += HeapInUse() - before;
        ++streams;
        benchmark::DoNotOptimize(s);
    }
    state.counters["heap_bytes_per_stream"] = static_cast<double>(heap) / streams;
    state.counters["persons"] = persons;
}
BENCHMARK(BM_NewStream)->Arg(100)->Arg(2000)->Arg(20000)->Unit(benchmark::kMicrosecond);

void BM_StreamFrame(benchmark::State& state) {
    const auto method = static_cast<msmface::Method>(state.range(0));
    msmface::Gallery& g = GalleryOf(2000);
    msmface::Stream s = MakeStream(g, method);
    const Frame frame;
    for (auto _ : state) {
        auto r = s.push(frame.view, frame.points);
        if (!r.ok() || r->ranking.matches.size() != 2000u) state.SkipWithError("no ranking");
    }
    state.SetLabel(method == msmface::Method::Msm ? "MSM" : "CMSM (all spaces)");
}
BENCHMARK(BM_StreamFrame)
    ->Arg(static_cast<int>(msmface::Method::Msm))
    ->Arg(static_cast<int>(msmface::Method::Cmsm))
    ->Unit(benchmark::kMillisecond);

// The legacy engine's frame cycle over the same 2000 persons, filled as its hosts fill it.
void BM_LegacyFrame(benchmark::State& state) {
    const int method = static_cast<int>(state.range(0));
    const msmbench::SeedDirectory& dir = DirectoryOf(2000);
    const std::size_t heapBefore = HeapInUse();
    FaceRecognition engine(kWidth, kHeight);
    std::deque<std::string> names;
    std::deque<HumanID> records;
    IDDatabase& db = *engine.idDatabase;
    db.SetDicPath(dir.path().c_str());
    db.InitIdDictionary(2000);
    for (int p = 1; p <= 2000; ++p) {
        names.push_back("p" + std::to_string(p));
        records.push_back(HumanID{p, names.back().data()});
        db.PushIdDictionary(&records.back());
    }
    if (db.ReadIdDictionaries() != 1) state.SkipWithError("the persons do not load");
    if (method == 4) {
        const std::string list = dir.path() + "/" + msmface::kConstraintListFileName;
        if (engine.InitConstraintMSM(list.c_str()) <= 0) state.SkipWithError("no space");
        engine.Set_recognitionmethod(4);
        engine.DicConvert();
    }
    engine.Set_recognitionmethod(method);
    engine.Set_RecognitionResultMode(1, 2000);
    engine.Set_RecogORRegist(1);
    const Frame frame;
    BasicImageFile image(kWidth, kHeight, 8), face(64, 64, 8);
    std::copy(frame.pixels.begin(), frame.pixels.end(), image.pixels);
    PartsPosition parts{};
    for (int i = 0; i < 28; ++i) parts.points[i] = static_cast<int>(kPoints[i]);
    for (auto _ : state) {
        engine.FaceCropping(&image, nullptr, &parts, &face);
        if (engine.FrameProcess(2) != 13) state.SkipWithError("no recognition");
    }
    state.counters["engine_heap_MB"] = (HeapInUse() - heapBefore) / 1048576.0;
    state.SetLabel(method == 1 ? "MSM" : "CMSM (all spaces)");
}
BENCHMARK(BM_LegacyFrame)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);

// What an enrolment costs the gallery's snapshot: the 2000 persons' rows copied from the previous
// snapshot and the newcomer's laid out, beside a full reading of the directory (what a gallery
// does on open or after another process's change).
void BM_SnapshotWithOneMore(benchmark::State& state) {
    using msmface::core::Snapshot;
    std::mt19937 rng(11);
    std::vector<DictChunk> distinct(kDistinct);
    for (DictChunk& chunk : distinct) {
        chunk.Allocate(kChannels);
        for (int c = 0; c < kChannels; ++c) {
            chunk.prims[c].Allocate(kDimension, kVectors, kDicPrimFloat);
            const auto basis = msmbench::randomOrthonormalRows(kVectors, kDimension, rng);
            for (int i = 0; i < kVectors; ++i)
                std::copy(basis[i].begin(), basis[i].end(), chunk.prims[c].frows[i]);
        }
    }
    std::vector<const DictChunk*> persons;
    for (int p = 0; p < 2000; ++p) persons.push_back(&distinct[p % kDistinct]);
    const msmface::core::PatternShape shape{kDimension, kChannels};
    auto previous = Snapshot::build(shape, {}, persons);
    auto newcomer = Snapshot::build(shape, {}, {&distinct[0]});
    if (!previous.ok() || !newcomer.ok()) state.SkipWithError("no snapshot");
    std::vector<Snapshot::PersonSource> sources;
    for (int p = 0; p < 2000; ++p) sources.push_back({previous->get(), p});
    sources.push_back({newcomer->get(), 0});
    for (auto _ : state) {
        auto next = Snapshot::combine(sources, **newcomer);
        if (!next.ok()) state.SkipWithError(next.message().c_str());
        benchmark::DoNotOptimize(next);
    }
}
BENCHMARK(BM_SnapshotWithOneMore)->Unit(benchmark::kMillisecond);

void BM_OpenGallery(benchmark::State& state) {
    const msmbench::SeedDirectory& dir = DirectoryOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        auto g = msmface::Gallery::open(dir.path());
        if (!g.ok()) state.SkipWithError(g.message().c_str());
    }
}
BENCHMARK(BM_OpenGallery)->Arg(2000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
