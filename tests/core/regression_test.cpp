// The recognition core against the legacy engine on the same frames: synthetic persons from the
// face generator, and real faces when the shared folder holds them.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "core_support.h"
#include "synth/synth_face.h"

namespace {

using coretest::CompareFrameByFrame;
using coretest::kEngineShape;
using coretest::LegacyHost;
using coretest::PointedFrame;
using msmface::core::Method;
using msmface::core::Snapshot;
using msmface::core::SnapshotOptions;

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr uint32_t kPopulation = 7;
constexpr int kPersons = 5;
constexpr int kProbeFrames = 12;

std::vector<PointedFrame> Take(int person, uint32_t take, int count, int first = 0) {
    const msmsynth::SynthPerson who = msmsynth::makePerson(kPopulation, person);
    const std::vector<msmsynth::SynthPose> poses =
        msmsynth::makeSequence(take, first + count, kWidth, kHeight);
    std::vector<PointedFrame> frames;
    for (std::size_t k = static_cast<std::size_t>(first); k < poses.size(); ++k) {
        msmsynth::SynthFrame f = msmsynth::renderFrame(who, poses[k], kWidth, kHeight);
        const auto points = f.roundedPoints();
        frames.push_back({f.width, f.height, std::move(f.pixels), {points.begin(), points.end()}});
    }
    return frames;
}

// Five persons enrolled through the legacy engine, then a current constraint space generated
// over them and a list of three spaces (that one, no constraint, and its first 40 directions).
class CoreRegression : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new msmtest::ScratchDir("core");
        host_ = new LegacyHost(dir_->path(), kWidth, kHeight);
        for (int p = 0; p < kPersons; ++p) {
            ASSERT_TRUE(
                host_->Enrol(p + 1, "person" + std::to_string(p + 1), Take(p, 200 + p, 50)));
            probes_.push_back(Take(p, 300 + p, kProbeFrames));
        }
    }
    static void TearDownTestSuite() {
        delete host_;
        delete dir_;
        host_ = nullptr;
        dir_ = nullptr;
        probes_.clear();
    }

    static std::shared_ptr<const Snapshot> Build(
        const std::vector<const ConstraintSpace*>& spaces = {}) {
        coretest::ReloadedDictionaries dictionaries(dir_->path(), host_->Records());
        EXPECT_TRUE(dictionaries.loaded());
        auto snapshot =
            Snapshot::build(kEngineShape, SnapshotOptions{}, dictionaries.Persons(), spaces);
        EXPECT_TRUE(snapshot.ok()) << snapshot.message();
        return snapshot.ok() ? *snapshot : nullptr;
    }

    // Every probe take against every person: the frames compared. The scores are those of a
    // working recogniser, not of one that agrees by giving nothing: each take's own person ranks
    // first at its last frame.
    static int CompareAll(const Snapshot& snapshot, Method method) {
        int frames = 0;
        for (std::size_t p = 0; p < probes_.size(); ++p) {
            int best = -1;
            frames += CompareFrameByFrame(*host_, snapshot, method, probes_[p], &best);
            EXPECT_EQ(best, static_cast<int>(p)) << "take of person " << p;
        }
        return frames;
    }

    static void MakeSpaces() {
        std::ofstream(dir_->File("one.txt"))
            << "1\n1\nCMSML " << dir_->File("space") << " 60 " << dir_->File("base") << "\n";
        FaceRecognition& engine = host_->engine;
        engine.InitConstraintMSM(dir_->File("one.txt").c_str());
        engine.Set_recognitionmethod(4);
        ASSERT_EQ(engine.UpdateCMSMDictionary(0), 1);
        std::ofstream(dir_->File("three.txt"))
            << "3\n1\nCMSML " << dir_->File("space") << " 60 " << dir_->File("base") << "\nMSM\n"
            << "CMSMF " << dir_->File("space") << " 40\n";
        ASSERT_GE(engine.ReloadMultiConstraintSpace(dir_->File("three.txt").c_str()), 1);
        ASSERT_EQ(engine.DicConvert(), 1);
    }

    static msmtest::ScratchDir* dir_;
    static LegacyHost* host_;
    static std::vector<std::vector<PointedFrame>> probes_;
};

msmtest::ScratchDir* CoreRegression::dir_ = nullptr;
LegacyHost* CoreRegression::host_ = nullptr;
std::vector<std::vector<PointedFrame>> CoreRegression::probes_;

TEST_F(CoreRegression, SubspaceAndSinglePatternScoresEqualTheLegacyEngineAtEveryFrame) {
    ASSERT_EQ(host_->engine.idDatabase->GetAllNum(), kPersons);
    const auto snapshot = Build();
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(CompareAll(*snapshot, Method::Msm), kPersons * kProbeFrames);
    EXPECT_EQ(CompareAll(*snapshot, Method::SinglePattern), kPersons * kProbeFrames);
}

TEST_F(CoreRegression, ConstraintSpaceScoresEqualTheLegacyEngineAfterARebuild) {
    MakeSpaces();
    coretest::LoadedSpaces spaces(dir_->File("three.txt"));
    ASSERT_TRUE(spaces.ok());
    ASSERT_EQ(spaces.Spaces().size(), 3u);
    const auto snapshot = Build(spaces.Spaces());
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(snapshot->spaceCount(), 3);
    EXPECT_EQ(CompareAll(*snapshot, Method::Cmsm), kPersons * kProbeFrames);
    EXPECT_EQ(CompareAll(*snapshot, Method::CmsmAllSpaces), kPersons * kProbeFrames);
    // The subspace method is unchanged by the spaces.
    EXPECT_EQ(CompareAll(*snapshot, Method::Msm), kPersons * kProbeFrames);
}

}  // namespace
