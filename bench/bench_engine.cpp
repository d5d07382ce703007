// The engine as a host runs it: the whole frame (FaceCropping then FrameProcess) against
// galleries of 0, 100 and 2000 people by MSM (method 1) and by CMSM in all spaces (method 4); one
// registration; the regeneration of a constraint space from 100 people.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/engine/engine_host.h"

namespace {

using enginetest::Host;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

constexpr int kDistinct = 4;

// A folder with four enrolled people and a 60-direction "CMSML" space made from them, and
// galleries of copies of their dictionaries.
class Gallery {
  public:
    Gallery() {
        Host host(dir_.path());
        for (int i = 0; i < kDistinct; ++i)
            host.Enrol(i + 1, "seed" + std::to_string(i), SyntheticPerson(500 + i));
        std::ofstream(List()) << "1\n1\nCMSML " << dir_.File("space") << " 60 " << dir_.File("none")
                              << "\n";
        host.engine.InitConstraintMSM(List().c_str());
        host.engine.UpdateCMSMDictionary(0);
    }
    std::string List() const { return dir_.File("spaces.txt"); }

    // Loads n people (copies of the four) into the engine's database the way a host starts up.
    void Load(FaceRecognition& engine, int n) {
        for (int i = static_cast<int>(names_.size()); i < n; ++i) {
            names_.push_back("g" + std::to_string(i));
            for (const char* ext : {".dck", ".mck"}) {
                std::ifstream in(dir_.File("seed" + std::to_string(i % kDistinct) + ext),
                                 std::ios::binary);
                std::ofstream(dir_.File(names_.back() + ext), std::ios::binary) << in.rdbuf();
            }
            records_.push_back(HumanID{i + 100, const_cast<char*>(names_.back().c_str())});
        }
        IDDatabase* db = engine.idDatabase;
        db->SetDicPath(dir_.path().c_str());
        db->InitIdDictionary(n);
        for (int i = 0; i < n; ++i) db->PushIdDictionary(&records_[i]);
        db->ReadIdDictionaries();
    }
    const std::string& path() const { return dir_.path(); }

  private:
    ScratchDir dir_;
    std::deque<std::string> names_;
    std::deque<HumanID> records_;
};

Gallery& SharedGallery() {
    static Gallery gallery;
    return gallery;
}

void BM_Frame(benchmark::State& state) {
    const int method = static_cast<int>(state.range(0));
    const int persons = static_cast<int>(state.range(1));
    Gallery& gallery = SharedGallery();
    Host host(gallery.path());
    gallery.Load(host.engine, persons);
    host.engine.Set_recognitionmethod(method);
    host.engine.InitConstraintMSM(gallery.List().c_str());
    host.engine.DicConvert();
    host.engine.Set_RecogORRegist(1);
    // Frames drawn beforehand: the camera's work is not the engine's.
    constexpr int kFrames = 16;
    SyntheticPerson face(501);
    std::vector<std::unique_ptr<BasicImageFile>> frames;
    std::vector<PartsPosition> parts(kFrames);
    for (int k = 0; k < kFrames; ++k) {
        frames.push_back(
            std::make_unique<BasicImageFile>(enginetest::kFrameSide, enginetest::kFrameSide, 8));
        face.Render(k, *frames.back(), parts[k]);
    }
    BasicImageFile out(64, 64, 8);
    int frame = 0, code = 0;
    for (auto _ : state) {
        host.engine.FaceCropping(frames[frame % kFrames].get(), nullptr, &parts[frame % kFrames],
                                 &out);
        code = host.engine.FrameProcess(2);
        ++frame;
        benchmark::DoNotOptimize(code);
    }
    // A wrong answer must not pass as a fast one: with people, person 1's copies lead.
    const int best = host.engine.Get_ResultRecog()[0].id;
    if (persons > 0 && (code != 13 || best % kDistinct != 1))
        state.SkipWithError("the frame did not recognise the face");
    state.counters["persons"] = persons;
}
BENCHMARK(BM_Frame)
    ->ArgsProduct({{1, 4}, {0, 100, 2000}})
    ->ArgNames({"method", "persons"})
    ->Unit(benchmark::kMillisecond);

void BM_Registration(benchmark::State& state) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson face(777);
    host.engine.Reset_gather_counter();
    for (int k = 0; k < 50; ++k) host.Crop(face, k);
    for (auto _ : state) {
        state.PauseTiming();
        host.engine.idDatabase->FreeNewKeyname();
        host.engine.idDatabase->SetNewKeyname("bench");
        state.ResumeTiming();
        host.engine.Registration();
    }
    if (!host.engine.Get_RegistCondition()) state.SkipWithError("registration failed");
}
BENCHMARK(BM_Registration)->Unit(benchmark::kMillisecond);

void BM_UpdateCMSMDictionary(benchmark::State& state) {
    Gallery& gallery = SharedGallery();
    Host host(gallery.path());
    gallery.Load(host.engine, 100);
    host.engine.InitConstraintMSM(gallery.List().c_str());
    int result = 0;
    for (auto _ : state) result = host.engine.UpdateCMSMDictionary(0);
    if (result != 1) state.SkipWithError("regeneration failed");
}
BENCHMARK(BM_UpdateCMSMDictionary)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
