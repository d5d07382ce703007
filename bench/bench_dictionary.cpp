// Gallery start-up and enrolment I/O: reading 2000 persons' dictionaries the way the registry
// does at start-up (5 channels x 20 vectors x 256, float rows and fixed-point rows), and writing
// one person's matrix and dictionary files.
#include <benchmark/benchmark.h>
#include <msmface/IDDatabase.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"

namespace {

constexpr int kChannels = 5;
constexpr int kVectors = 20;
constexpr int kDim = 256;

std::string ScratchFolder() {
    static std::string folder = [] {
        char name[] = "/tmp/msmface_bench_XXXXXX";
        return std::string(mkdtemp(name) != nullptr ? name : "/tmp");
    }();
    return folder;
}

void FillDictionary(DictChunk& chunk, int person) {
    chunk.Allocate(kChannels);
    for (int c = 0; c < kChannels; ++c) {
        chunk.prims[c].Allocate(kDim, kVectors, 2);
        for (int k = 0; k < kVectors; ++k)
            for (int i = 0; i < kDim; ++i)
                chunk.prims[c].frows[k][i] = std::sin(0.01f * (person + c * 7 + k * 13 + i));
    }
}

struct Gallery {
    std::vector<std::string> names;
    std::vector<HumanID> records;
    explicit Gallery(int persons) : names(persons), records(persons) {
        for (int p = 0; p < persons; ++p) {
            names[p] = "person" + std::to_string(p);
            records[p] = HumanID{p + 1, names[p].data()};
            std::string path = ScratchFolder() + "/" + names[p] + ".dck";
            if (access(path.c_str(), F_OK) == 0) continue;
            DictChunk chunk;
            FillDictionary(chunk, p);
            chunk.Write(path.c_str(), 0, 2);
        }
    }
};

void BM_GalleryStartUp(benchmark::State& state) {
    const int persons = static_cast<int>(state.range(0));
    Gallery gallery(persons);
    for (auto _ : state) {
        IDDatabase db;
        db.SetDicPath(ScratchFolder().c_str());
        db.InitIdDictionary(persons);
        for (HumanID& h : gallery.records) db.PushIdDictionary(&h);
        if (db.ReadIdDictionaries() != 1 || db.GetAllNum() != persons ||
            db.dictionaries[persons - 1].prims[4].count != kVectors) {
            state.SkipWithError("gallery did not load");
            break;
        }
        benchmark::DoNotOptimize(db.dictionaries[persons - 1].prims[4].qrows[19][255]);
        state.PauseTiming();  // the release of 2000 dictionaries is not start-up
        db.RemoveAllDictionary(false);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * persons);
    state.SetBytesProcessed(state.iterations() * persons * int64_t{kChannels} *
                            (16 + 4 * kVectors * kDim));
}
BENCHMARK(BM_GalleryStartUp)->Arg(100)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_EnrolmentWrite(benchmark::State& state) {
    DictChunk dictionary;
    FillDictionary(dictionary, 1);
    MtrxChunk matrices;
    matrices.Allocate(kChannels);
    for (int c = 0; c < kChannels; ++c) {
        matrices.prims[c].Allocate(kDim);
        matrices.prims[c].number = 50;
        for (int e = 0; e < matrices.prims[c].elementCount; ++e)
            matrices.prims[c].elements[e] = 0.001f * e;
    }
    std::string stem = ScratchFolder() + "/enrol";
    for (auto _ : state) {
        if (matrices.Write((stem + ".mck").c_str()) != 1 ||
            dictionary.Write((stem + ".dck").c_str(), kVectors, 2) != 1) {
            state.SkipWithError("write failed");
            break;
        }
    }
    DictChunk back;
    back.SetModeAndLimit(2, 0);
    if (back.ReadAll((stem + ".dck").c_str()) != 1 ||
        back.prims[3].frows[7][9] != dictionary.prims[3].frows[7][9])
        state.SkipWithError("written dictionary does not read back");
}
BENCHMARK(BM_EnrolmentWrite)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::string cmd = "rm -rf '" + ScratchFolder() + "'";
    return std::system(cmd.c_str()) == 0 ? 0 : 1;
}
