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
        dir_ = std::make_unique<msmtest::ScratchDir>("core");
        host_ = std::make_unique<LegacyHost>(dir_->path(), kWidth, kHeight);
        for (int p = 0; p < kPersons; ++p) {
            ASSERT_TRUE(
                host_->Enrol(p + 1, "person" + std::to_string(p + 1), Take(p, 200 + p, 50)));
            probes_.push_back(Take(p, 300 + p, kProbeFrames));
        }
    }
    static void TearDownTestSuite() {
        host_.reset();
        dir_.reset();
        probes_.clear();
    }

    static std::shared_ptr<const Snapshot> Build(
        const std::vector<const ConstraintSpace*>& spaces = {}) {
        return coretest::SnapshotOfFolder(*host_, dir_->path(), spaces);
    }

    // Every probe take: the frames compared. The scores are those of a working recogniser, not
    // of one that agrees by giving nothing: each take's own person ranks first at its last frame.
    static int CompareAll(const Snapshot& snapshot, Method method) {
        std::vector<int> best;
        const int frames = coretest::CompareTakes(*host_, snapshot, method, probes_, &best);
        for (std::size_t p = 0; p < best.size(); ++p)
            EXPECT_EQ(best[p], static_cast<int>(p)) << "take of person " << p;
        return frames;
    }

    static std::unique_ptr<msmtest::ScratchDir> dir_;
    static std::unique_ptr<LegacyHost> host_;
    static std::vector<std::vector<PointedFrame>> probes_;
};

std::unique_ptr<msmtest::ScratchDir> CoreRegression::dir_;
std::unique_ptr<LegacyHost> CoreRegression::host_;
std::vector<std::vector<PointedFrame>> CoreRegression::probes_;

TEST_F(CoreRegression, SubspaceAndSinglePatternScoresEqualTheLegacyEngineAtEveryFrame) {
    ASSERT_EQ(host_->engine.idDatabase->GetAllNum(), kPersons);
    const auto snapshot = Build();
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(CompareAll(*snapshot, Method::Msm), kPersons * kProbeFrames);
    EXPECT_EQ(CompareAll(*snapshot, Method::SinglePattern), kPersons * kProbeFrames);
}

TEST_F(CoreRegression, ConstraintSpaceScoresEqualTheLegacyEngineAfterARebuild) {
    const std::string list = coretest::MakeThreeSpaces(*host_, *dir_, 60);
    auto spaces = msmface::core::ConstraintSpaces::load(list, kEngineShape);
    ASSERT_TRUE(spaces.ok()) << spaces.message();
    ASSERT_EQ((*spaces)->spaces().size(), 3u);
    const auto snapshot = Build((*spaces)->spaces());
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(snapshot->spaceCount(), 3);
    EXPECT_EQ(CompareAll(*snapshot, Method::Cmsm), kPersons * kProbeFrames);
    EXPECT_EQ(CompareAll(*snapshot, Method::CmsmAllSpaces), kPersons * kProbeFrames);
    // The subspace method is unchanged by the spaces.
    EXPECT_EQ(CompareAll(*snapshot, Method::Msm), kPersons * kProbeFrames);
}

}  // namespace
