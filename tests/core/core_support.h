// The legacy engine and the recognition core side by side: a dictionary folder enrolled through
// the legacy engine, and the same folder's dictionaries loaded again for the core.
#ifndef MSMFACE_TESTS_CORE_CORE_SUPPORT_H
#define MSMFACE_TESTS_CORE_CORE_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>
#include <msmface/IDDatabase.h>

#include "common/scratch_dir.h"
#include "core/constraint_spaces.h"
#include "core/input.h"
#include "core/snapshot.h"
#include "engine/RecognitionEngine.h"
#include "engine/engine_host.h"
#include "recognition/MWMSMRecognition.h"

namespace coretest {

using msmface::core::Method;
using msmface::core::PatternShape;

constexpr PatternShape kEngineShape{256, 5};

// A camera frame with its fourteen points, as a host hands it to the legacy engine.
struct PointedFrame {
    int width = 0, height = 0;
    std::vector<unsigned char> pixels;
    std::vector<int> points;  // 28 values, x then y
};

// The engine tests' host fed with frames of the core tests' own.
class LegacyHost : public enginetest::Host {
  public:
    LegacyHost(const std::string& dicPath, int width, int height)
        : Host(dicPath, width, height), face_(64, 64, 8) {}

    // FaceCropping of one frame: 1 when it was used.
    int Crop(const PointedFrame& f) {
        BasicImageFile frame(f.width, f.height, 8);
        std::copy(f.pixels.begin(), f.pixels.end(), frame.pixels);
        PartsPosition parts{};
        std::copy(f.points.begin(), f.points.end(), parts.points);
        return engine.FaceCropping(&frame, nullptr, &parts, &face_);
    }

    // The documented enrolment from frames taken in turn; true when the person was entered.
    bool Enrol(int id, const std::string& name, const std::vector<PointedFrame>& frames) {
        return !frames.empty() && EnrolWith(id, name, [&](int k) {
            Crop(frames[k % frames.size()]);
            engine.FrameProcess(2);
        });
    }

    // The patterns the engine's last frame step used (one per channel).
    float* const* NewestPatterns() {
        RecognitionEngine& e = *engine.engine;
        return e.featureExtraction->patternSlots[e.NewestSlot()];
    }

  private:
    BasicImageFile face_;
};

// The folder's dictionaries read again by a database of their own, as the legacy engine reads
// them: the core shares nothing with the engine it is compared with.
class ReloadedDictionaries {
  public:
    ReloadedDictionaries(const std::string& dicPath, const std::deque<HumanID>& records)
        : records_(records.begin(), records.end()) {
        db_.SetDicPath(dicPath.c_str());
        db_.InitIdDictionary(static_cast<int>(records_.size()));
        for (HumanID& h : records_) db_.PushIdDictionary(&h);
        loaded_ = db_.ReadIdDictionaries() == 1;
    }
    bool loaded() const { return loaded_; }
    std::vector<const DictChunk*> Persons() const {
        std::vector<const DictChunk*> out;
        for (int p = 0; p < db_.count; ++p) out.push_back(&db_.dictionaries[p]);
        return out;
    }

  private:
    std::vector<HumanID> records_;
    IDDatabase db_;
    bool loaded_ = false;
};

// A snapshot of the host's persons, their dictionaries read again from the folder.
inline std::shared_ptr<const msmface::core::Snapshot> SnapshotOfFolder(
    const LegacyHost& host, const std::string& dicPath,
    const std::vector<const ConstraintSpace*>& spaces = {}) {
    ReloadedDictionaries dictionaries(dicPath, host.Records());
    EXPECT_TRUE(dictionaries.loaded());
    auto snapshot = msmface::core::Snapshot::build(kEngineShape, msmface::core::SnapshotOptions{},
                                                   dictionaries.Persons(), spaces);
    EXPECT_TRUE(snapshot.ok()) << snapshot.message();
    return snapshot.ok() ? *snapshot : nullptr;
}

// The legacy method number of a core method.
inline int LegacyMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
            return 0;
        case Method::Msm:
            return 1;
        case Method::Cmsm:
            return 2;
        case Method::CmsmAllSpaces:
            return 4;
    }
    return -1;
}

// Runs probe frames through the legacy engine (recognition mode, every person ranked) and the
// core's input side by side and requires the same ranking, person for person and score for
// score, at every frame, each score within 0..1000. Returns the frames compared; *best the person
// ranked first at the last frame.
inline int CompareFrameByFrame(LegacyHost& host, const msmface::core::Snapshot& snapshot,
                               Method method, const std::vector<PointedFrame>& probe,
                               int* best = nullptr) {
    FaceRecognition& engine = host.engine;
    const int persons = engine.idDatabase->GetAllNum();
    EXPECT_EQ(snapshot.personCount(), persons);
    engine.Set_recognitionmethod(LegacyMethod(method));
    engine.Set_RecognitionResultMode(2, persons);
    engine.Set_RecogORRegist(1);
    engine.Refresh_input();
    auto input = msmface::core::Input::create(snapshot);
    EXPECT_TRUE(input.ok()) << input.message();
    if (!input.ok()) return 0;
    int compared = 0;
    for (std::size_t k = 0; k < probe.size(); ++k) {
        SCOPED_TRACE("frame " + std::to_string(k));
        host.Crop(probe[k]);
        EXPECT_EQ(engine.FrameProcess(2), 13);
        (*input)->update(host.NewestPatterns());
        const msmface::Status scored = msmface::core::score(snapshot, **input, method);
        EXPECT_TRUE(scored.ok()) << scored.message();
        const RECOGRESULT* legacy = engine.Get_ResultRecog();
        const auto& ranking = (*input)->ranking();
        EXPECT_EQ(static_cast<int>(ranking.size()), persons);
        if (static_cast<int>(ranking.size()) != persons) return compared;
        bool same = true;
        for (int i = 0; i < persons; ++i) {
            EXPECT_GE(ranking[i].score, 0) << "rank " << i;
            EXPECT_LE(ranking[i].score, 1000) << "rank " << i;
            same = same && legacy[i].id == ranking[i].person &&
                   legacy[i].similarity == ranking[i].score;
            EXPECT_EQ(legacy[i].id, ranking[i].person) << "rank " << i;
            EXPECT_EQ(legacy[i].similarity, ranking[i].score) << "rank " << i;
        }
        if (!same) return compared;
        if (best != nullptr) *best = ranking.front().person;
        ++compared;
    }
    return compared;
}

// CompareFrameByFrame for every take in turn: the frames compared; best[t] is the person ranked
// first at take t's last frame.
inline int CompareTakes(LegacyHost& host, const msmface::core::Snapshot& snapshot, Method method,
                        const std::vector<std::vector<PointedFrame>>& takes,
                        std::vector<int>* best) {
    int frames = 0;
    for (const auto& take : takes) {
        int first = -1;
        frames += CompareFrameByFrame(host, snapshot, method, take, &first);
        if (best != nullptr) best->push_back(first);
    }
    return frames;
}

// A current constraint space of `directions` generated by the legacy engine over its persons,
// then a list of three spaces (that one, no constraint, and its first 40 directions) loaded by
// the engine and every person projected into them. The list's path.
inline std::string MakeThreeSpaces(LegacyHost& host, const msmtest::ScratchDir& dir,
                                   int directions) {
    FaceRecognition& engine = host.engine;
    std::ofstream(dir.File("one.txt")) << "1\n1\nCMSML " << dir.File("space") << " " << directions
                                       << " " << dir.File("base") << "\n";
    engine.InitConstraintMSM(dir.File("one.txt").c_str());
    engine.Set_recognitionmethod(4);
    EXPECT_EQ(engine.UpdateCMSMDictionary(0), 1);
    std::ofstream(dir.File("three.txt"))
        << "3\n1\nCMSML " << dir.File("space") << " " << directions << " " << dir.File("base")
        << "\nMSM\nCMSMF " << dir.File("space") << " 40\n";
    EXPECT_GE(engine.ReloadMultiConstraintSpace(dir.File("three.txt").c_str()), 1);
    EXPECT_EQ(engine.DicConvert(), 1);
    return dir.File("three.txt");
}

}  // namespace coretest

#endif  // MSMFACE_TESTS_CORE_CORE_SUPPORT_H
