// The recognition core against the legacy engine on real faces: persons enrolled from two videos,
// probed with a third, every score compared at every frame.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "common/real_faces.h"
#include "core_support.h"

namespace {

using coretest::LegacyHost;
using coretest::PointedFrame;
using msmface::core::Method;

constexpr int kPersons = 8;
constexpr int kProbeFrames = 12;

// The frames with their points moved by up to two pixels, as a live camera's detector would; the
// same seed gives the same frames, so both paths see the same ones.
std::vector<PointedFrame> Jittered(const std::vector<const msmtest::RealFrame*>& frames, int count,
                                   std::mt19937& rng) {
    std::uniform_real_distribution<double> jitter(-2.0, 2.0);
    std::vector<PointedFrame> out;
    for (int k = 0; k < count; ++k) {
        const msmtest::RealFrame& f = *frames[k % frames.size()];
        PointedFrame p{f.width, f.height, f.pixels, std::vector<int>(28)};
        for (int i = 0; i < 28; ++i) p.points[i] = static_cast<int>(f.points[i] + jitter(rng));
        out.push_back(std::move(p));
    }
    return out;
}

TEST(CoreRealFaces, ScoresEqualTheLegacyEngineAtEveryFrame) {
    const std::string folder = std::string(MSMFACE_SHARED_DIR) + "/faces";
    if (!std::ifstream(folder + "/manifest.csv")) GTEST_SKIP() << "no face data at " << folder;
    const auto people = msmtest::LoadPeople(folder);
    msmtest::ScratchDir dir("core_real");
    LegacyHost host(dir.path(), 320, 240);
    std::mt19937 rng(2024);
    std::vector<std::vector<PointedFrame>> probes;
    for (const auto& [name, frames] : people) {
        std::vector<const msmtest::RealFrame*> enrol, probe;
        if (!msmtest::SplitThreeVideos(frames, enrol, probe)) continue;
        const int id = static_cast<int>(probes.size()) + 1;
        ASSERT_TRUE(host.Enrol(id, "person" + std::to_string(id), Jittered(enrol, 200, rng)))
            << name;
        probes.push_back(Jittered(probe, kProbeFrames, rng));
        if (static_cast<int>(probes.size()) == kPersons) break;
    }
    ASSERT_EQ(static_cast<int>(probes.size()), kPersons);
    const int frames = kPersons * kProbeFrames;

    const auto plain = coretest::SnapshotOfFolder(host, dir.path());
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(coretest::CompareTakes(host, *plain, Method::Msm, probes, nullptr), frames);
    EXPECT_EQ(coretest::CompareTakes(host, *plain, Method::SinglePattern, probes, nullptr), frames);

    auto spaces = msmface::core::ConstraintSpaces::load(coretest::MakeThreeSpaces(host, dir, 200),
                                                        coretest::kEngineShape);
    ASSERT_TRUE(spaces.ok()) << spaces.message();
    const auto constrained = coretest::SnapshotOfFolder(host, dir.path(), (*spaces)->spaces());
    ASSERT_NE(constrained, nullptr);
    EXPECT_EQ(coretest::CompareTakes(host, *constrained, Method::Cmsm, probes, nullptr), frames);
    EXPECT_EQ(coretest::CompareTakes(host, *constrained, Method::CmsmAllSpaces, probes, nullptr),
              frames);
}

}  // namespace
