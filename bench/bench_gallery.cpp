// A Stream's frame at 100 enrolled persons (MSM) against the engine's own frame call on the same
// persons and frames: what the modern interface adds per frame (the grey copy of the view, the
// points, the ranking with names). Also the reload a stream makes when its gallery changed, and
// the memory one more stream takes.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>
#include <msmface/gallery.h>

#include "support/scratch_folder.h"
#include "synth/synth_face.h"

namespace {

constexpr int kPersons = 100;
constexpr int kDistinct = 10;  // enrolled for real; the others are copies of their files
constexpr int kFrames = 16;
constexpr int kProbePerson = 3;
constexpr uint32_t kPopulation = 7;

msmface::FacePoints PointsOf(const msmsynth::SynthFrame& f) {
    msmface::FacePoints p;
    for (int i = 0; i < 28; ++i) p.xy[i] = f.points[i];
    return p;
}

msmface::FrameView ViewOf(const msmsynth::SynthFrame& f) {
    return msmface::FrameView{f.pixels.data(), f.width, f.height, 0, msmface::PixelFormat::Grey};
}

// A directory of 100 persons: ten synthetic persons enrolled through the gallery, each copied
// nine times under other names, as a host's gallery of many people would load.
class Fixture {
  public:
    Fixture() {
        {
            std::vector<msmsynth::SynthFrame> scratch;
            auto g = msmface::Gallery::open(dir_.path());
            for (int i = 0; i < kDistinct; ++i) {
                std::vector<msmsynth::SynthFrame>& frames = i == 0 ? enrolFrames_ : scratch;
                frames.clear();
                const auto poses = msmsynth::makeSequence(200 + i, 50, 320, 240);
                for (const auto& pose : poses)
                    frames.push_back(msmsynth::renderFrame(msmsynth::makePerson(kPopulation, i),
                                                           pose, 320, 240));
                std::vector<msmface::Sample> samples;
                for (const auto& f : frames) samples.push_back({ViewOf(f), PointsOf(f)});
                if (!g.ok() || !g->enrol(i + 1, "p" + std::to_string(i), samples).ok())
                    std::fprintf(stderr, "bench_gallery: enrolment failed\n");
            }
        }
        std::ofstream registry(dir_.file("persons.txt"));
        for (int i = 0; i < kPersons; ++i) {
            const std::string name = "p" + std::to_string(i);
            if (i >= kDistinct)
                for (const char* ext : {".dck", ".mck"}) {
                    std::ifstream in(dir_.file("p" + std::to_string(i % kDistinct) + ext),
                                     std::ios::binary);
                    std::ofstream(dir_.file(name + ext), std::ios::binary) << in.rdbuf();
                }
            registry << i + 1 << " " << name << "\n";
        }
        // The same take goes on: the person seen again by the camera right after enrolment.
        const auto poses = msmsynth::makeSequence(200 + kProbePerson, 50 + kFrames, 320, 240);
        for (int k = 0; k < kFrames; ++k)
            frames_.push_back(msmsynth::renderFrame(msmsynth::makePerson(kPopulation, kProbePerson),
                                                    poses[50 + k], 320, 240));
    }
    const std::string& dir() const { return dir_.path(); }
    const std::vector<msmsynth::SynthFrame>& frames() const { return frames_; }
    // The enrolment frames of the first person, to enrol once more.
    const std::vector<msmsynth::SynthFrame>& enrolFrames() const { return enrolFrames_; }

  private:
    msmbench::ScratchFolder dir_;
    std::vector<msmsynth::SynthFrame> frames_;
    std::vector<msmsynth::SynthFrame> enrolFrames_;
};

Fixture& Shared() {
    static Fixture f;
    return f;
}

// Heap in use (glibc), so that memory freed by earlier runs and reused does not hide a cost.
long HeapKiB() {
    const struct mallinfo2 m = ::mallinfo2();
    return static_cast<long>((m.uordblks + m.hblkhd) / 1024);
}

// The person ranked first must be one of the probe person's copies, or a fast wrong answer
// would pass.
bool RightPerson(int id) {
    return id > 0 && (id - 1) % kDistinct == kProbePerson;
}

// Heap that a gallery of 100 persons and a stream on it hold, measured once.
struct Footprint {
    long galleryKiB = 0, streamKiB = 0;
};
const Footprint& FirstFootprint() {
    static const Footprint footprint = [] {
        Footprint fp;
        Fixture& f = Shared();
        const long start = HeapKiB();
        auto g = msmface::Gallery::open(f.dir());
        const long opened = HeapKiB();
        auto s = g.ok() ? msmface::Stream::create(g.value())
                        : msmface::Result<msmface::Stream>(g.status());
        if (s.ok()) s->push(ViewOf(f.frames()[0]), PointsOf(f.frames()[0]));
        fp.galleryKiB = opened - start;
        fp.streamKiB = HeapKiB() - opened;
        return fp;
    }();
    return footprint;
}

// The camera has seen the face for a while: the input is full, as in steady recognition. The
// frames' points are kept for the measured pushes.
bool WarmUp(Fixture& f, msmface::Stream& s, std::vector<msmface::FacePoints>& points) {
    for (const auto& fr : f.frames()) points.push_back(PointsOf(fr));
    for (int k = 0; k < kFrames; ++k)
        if (!s.push(ViewOf(f.frames()[k]), points[k]).ok()) return false;
    return true;
}

void BM_StreamPush(benchmark::State& state) {
    Fixture& f = Shared();
    state.counters["gallery_KiB"] = static_cast<double>(FirstFootprint().galleryKiB);
    state.counters["stream_KiB"] = static_cast<double>(FirstFootprint().streamKiB);
    auto g = msmface::Gallery::open(f.dir());
    if (!g.ok()) return state.SkipWithError(g.message().c_str());
    auto s = msmface::Stream::create(g.value());
    if (!s.ok()) return state.SkipWithError(s.message().c_str());
    std::vector<msmface::FacePoints> points;
    if (!WarmUp(f, *s, points)) return state.SkipWithError("push");
    int frame = 0, best = 0;
    for (auto _ : state) {
        const auto r = s->push(ViewOf(f.frames()[frame % kFrames]), points[frame % kFrames]);
        best = r.ok() && !r->ranking.matches.empty() ? r->ranking.matches[0].id : -1;
        ++frame;
        benchmark::DoNotOptimize(best);
    }
    if (!RightPerson(best))
        state.SkipWithError(
            ("the stream did not recognise the face (best ID " + std::to_string(best) + ")")
                .c_str());
    state.counters["persons"] = kPersons;
}
BENCHMARK(BM_StreamPush)->Unit(benchmark::kMillisecond);

// The same frames through the engine's interface, loaded with the same persons.
void BM_EngineFrame(benchmark::State& state) {
    Fixture& f = Shared();
    FaceRecognition engine(320, 240);
    std::vector<std::string> names;
    std::vector<HumanID> records(kPersons);
    for (int i = 0; i < kPersons; ++i) names.push_back("p" + std::to_string(i));
    engine.idDatabase->SetDicPath(f.dir().c_str());
    engine.idDatabase->InitIdDictionary(kPersons);
    for (int i = 0; i < kPersons; ++i) {
        records[i] = HumanID{i + 1, names[i].data()};
        engine.idDatabase->PushIdDictionary(&records[i]);
    }
    if (engine.idDatabase->ReadIdDictionaries() != 1)
        return state.SkipWithError("dictionaries do not load");
    engine.Set_recognitionmethod(1);
    engine.Set_RecognitionResultMode(1, kPersons);
    engine.Set_RecogORRegist(1);
    std::vector<std::unique_ptr<BasicImageFile>> images;
    std::vector<PartsPosition> parts(kFrames);
    for (int k = 0; k < kFrames; ++k) {
        const auto& fr = f.frames()[k];
        images.push_back(std::make_unique<BasicImageFile>(fr.width, fr.height, 8));
        std::copy(fr.pixels.begin(), fr.pixels.end(), images.back()->pixels);
        const auto rounded = fr.roundedPoints();
        std::copy(rounded.begin(), rounded.end(), parts[k].points);
    }
    BasicImageFile out(64, 64, 8);
    for (int k = 0; k < kFrames; ++k) {
        engine.FaceCropping(images[k].get(), nullptr, &parts[k], &out);
        engine.FrameProcess(2);
    }
    int frame = 0, code = 0;
    for (auto _ : state) {
        engine.FaceCropping(images[frame % kFrames].get(), nullptr, &parts[frame % kFrames], &out);
        code = engine.FrameProcess(2);
        ++frame;
        benchmark::DoNotOptimize(code);
    }
    if (code != 13 || !RightPerson(engine.Get_ResultRecog()[0].id + 1))
        state.SkipWithError("the engine did not recognise the face");
    state.counters["persons"] = kPersons;
}
BENCHMARK(BM_EngineFrame)->Unit(benchmark::kMillisecond);

// A frame right after the gallery changed: 0, a new stored threshold (nothing to load); 1, a
// person removed and one enrolled (one dictionary read, one dropped); 2, a stream made afresh
// (every dictionary read, as a first load).
void BM_StreamPushAfterChange(benchmark::State& state) {
    const int change = static_cast<int>(state.range(0));
    Fixture& f = Shared();
    auto g = msmface::Gallery::open(f.dir());
    if (!g.ok()) return state.SkipWithError(g.message().c_str());
    auto s = msmface::Stream::create(g.value());
    if (!s.ok()) return state.SkipWithError(s.message().c_str());
    std::vector<msmface::FacePoints> points;
    if (!WarmUp(f, *s, points)) return state.SkipWithError("push");
    std::vector<msmface::Sample> extra;
    for (const auto& fr : f.enrolFrames()) extra.push_back({ViewOf(fr), PointsOf(fr)});
    int threshold = 500, frame = 0;
    for (auto _ : state) {
        state.PauseTiming();
        bool ok = true;
        if (change == 0) ok = g->setThreshold(threshold ^= 1).ok();
        if (change == 1)
            ok = (!g->find(kPersons + 1) || g->remove(kPersons + 1).ok()) &&
                 g->enrol(kPersons + 1, "extra", extra).ok();
        if (!ok) return state.SkipWithError("the gallery did not change");
        state.ResumeTiming();
        if (change == 2) s = msmface::Stream::create(g.value());
        const auto r = s.ok()
                           ? s->push(ViewOf(f.frames()[frame % kFrames]), points[frame % kFrames])
                           : msmface::Result<msmface::StreamState>(s.status());
        ++frame;
        if (!r.ok()) return state.SkipWithError(r.message().c_str());
        if (change == 1 && r->ranking.matches.size() != kPersons + 1)
            return state.SkipWithError("the stream did not reload");
    }
    if (g->find(kPersons + 1)) g->remove(kPersons + 1);
    ::unlink((f.dir() + "/threshold.txt").c_str());
}
BENCHMARK(BM_StreamPushAfterChange)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->ArgName("change")
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
