// A recogniser that runs for hours must not grow: thousands of frames, with the gallery loaded
// anew again and again, end at the resident memory they reached after the first reload.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/sanitizer.h"
#include "common/scratch_dir.h"
#include "tools/soak/soak_run.h"

namespace {

TEST(Memory, ResidentMemoryStaysFlatOverThousandsOfFramesAndReloads) {
#ifdef MSMFACE_TEST_ASAN
    GTEST_SKIP() << "the address sanitizer keeps freed memory in quarantine; it finds leaks itself";
#endif
    msmtest::ScratchDir dir("memory");
    ASSERT_FALSE(dir.path().empty());
    constexpr long kReloadEvery = 500;
    msmsoak::SoakRun run(dir.path(), 3, 160, 120, 3);
    const std::string error = run.prepare();
    ASSERT_EQ(error, "");
    // Warm up past the first reload: the allocator's arenas and the engine's lazily made tables
    // reach their size here.
    const long warmRight = run.run(2 * kReloadEvery + 100, kReloadEvery);
    ASSERT_GT(warmRight, 0);
    const long early = msmsoak::residentBytes();
    ASSERT_GT(early, 0) << "/proc/self/statm is not readable";
    std::vector<long> windows;
    long right = 0;
    for (int w = 0; w < 10; ++w) {
        right += run.run(kReloadEvery, kReloadEvery);
        windows.push_back(msmsoak::residentBytes());
    }
    // The recogniser still recognises: a run that silently stopped would not grow either.
    EXPECT_GT(right, 10 * kReloadEvery / 2);
    const long late = windows.back();
    // An engine kept per reload (megabytes) or a few hundred bytes kept per frame exceed this.
    constexpr long kTolerance = 1536 * 1024;
    EXPECT_LT(late - early, kTolerance)
        << "resident memory grew from " << early / 1024 << " kB to " << late / 1024 << " kB over "
        << 10 * kReloadEvery << " frames and 10 reloads";
}

}  // namespace
