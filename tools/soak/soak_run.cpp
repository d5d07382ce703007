#include "soak_run.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace msmsoak {
namespace {

constexpr int kTakeFrames = 40;
constexpr int kEnrolFrames = 60;
constexpr int kFacelessEvery = 97;

}  // namespace

long residentBytes() {
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    long size = 0, resident = 0;
    const int n = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return n == 2 ? resident * ::sysconf(_SC_PAGESIZE) : 0;
}

SoakRun::SoakRun(std::string dir, int persons, int width, int height, uint32_t seed)
    : dir_(std::move(dir)), persons_(persons), width_(width), height_(height), seed_(seed) {}

bool SoakRun::crop(const msmsynth::SynthFrame& f) {
    std::memcpy(image_->pixels, f.pixels.data(), f.pixels.size());
    PartsPosition parts{};
    const auto rounded = f.roundedPoints();
    for (int k = 0; k < 28; ++k) parts.points[k] = rounded[k];
    return engine_->FaceCropping(image_.get(), nullptr, &parts, face_.get()) == 1;
}

std::string SoakRun::prepare() {
    if (persons_ < 2 || persons_ > 20) return "persons: expected 2 to 20";
    image_ = std::make_unique<BasicImageFile>(width_, height_, 8);
    face_ = std::make_unique<BasicImageFile>(64, 64, 8);
    engine_ = std::make_unique<FaceRecognition>(width_, height_);
    IDDatabase& db = *engine_->idDatabase;
    db.SetDicPath(dir_.c_str());
    db.InitIdDictionary(0);
    for (int i = 0; i < persons_; ++i) {
        const msmsynth::SynthPerson person = msmsynth::makePerson(seed_, i);
        std::vector<msmsynth::SynthFrame> enrol, take;
        for (const auto& pose :
             msmsynth::makeSequence(seed_ * 1000u + i, kEnrolFrames, width_, height_))
            enrol.push_back(msmsynth::renderFrame(person, pose, width_, height_));
        for (const auto& pose :
             msmsynth::makeSequence(seed_ * 7000u + i, kTakeFrames, width_, height_))
            take.push_back(msmsynth::renderFrame(person, pose, width_, height_));
        names_.push_back("person" + std::to_string(i + 1));
        if (db.SetNewKeyname(names_.back().c_str()) != 1) return "the engine refused a key name";
        engine_->Set_RecogORRegist(2);
        engine_->Reset_gather_counter();
        for (const auto& f : enrol) {
            if (engine_->Get_RecogORRegist() != 2) break;
            if (f.valid() && crop(f)) engine_->FrameProcess(2);
        }
        if (engine_->Get_RecogORRegist() == 2 || !engine_->Get_RegistCondition())
            return names_.back() + ": the registration did not complete";
        engine_->Set_RecogORRegist(1);
        records_.push_back(HumanID{i + 1, names_.back().data()});
        db.AddNewDictionary(&records_.back());
        db.ReadIdDictionaries();
        takes_.push_back(std::move(take));
    }
    return load();
}

std::string SoakRun::load() {
    engine_ = std::make_unique<FaceRecognition>(width_, height_);
    IDDatabase& db = *engine_->idDatabase;
    db.SetDicPath(dir_.c_str());
    if (db.InitIdDictionary(persons_) != 1) return "the engine refused the persons";
    for (HumanID& r : records_) db.PushIdDictionary(&r);
    if (db.ReadIdDictionaries() != 1) return dir_ + ": the dictionaries do not load";
    engine_->Set_recognitionmethod(1);
    engine_->Set_RecogORRegist(1);
    return {};
}

long SoakRun::run(long count, long reloadEvery) {
    long right = 0;
    for (long k = 0; k < count; ++k, ++done_) {
        if (reloadEvery > 0 && done_ > 0 && done_ % reloadEvery == 0 && !load().empty()) return -1;
        if (done_ % kFacelessEvery == 0) {
            engine_->FrameProcess(0);
            continue;
        }
        const long block = done_ / kTakeFrames;
        const int who = static_cast<int>(block % persons_);
        const auto& f = takes_[who][done_ % kTakeFrames];
        if (done_ % kTakeFrames == 0) engine_->Refresh_input();
        if (!f.valid() || !crop(f)) {
            engine_->FrameProcess(0);
            continue;
        }
        if (engine_->FrameProcess(2) == 13) {
            const RECOGRESULT* r = engine_->Get_ResultRecog();
            if (r != nullptr && r[0].id == who) ++right;
        }
    }
    return right;
}

}  // namespace msmsoak
