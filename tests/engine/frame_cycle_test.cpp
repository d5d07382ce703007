// The frame cycle through the host's interface: return codes, modes, the face-less frame count,
// the method dispatch and the settings with checks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "engine/tick_clock.h"
#include "engine_host.h"

namespace {

using enginetest::Host;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

class FrameCycle : public ::testing::Test {
  protected:
    ScratchDir dir;
    Host host{dir.path()};
    FaceRecognition& engine = host.engine;
    SyntheticPerson alice{101}, bob{202};

    void EnrolBoth() {
        ASSERT_TRUE(host.Enrol(1, "alice", alice));
        ASSERT_TRUE(host.Enrol(2, "bob", bob));
    }
};

TEST_F(FrameCycle, EventCodesInEveryMode) {
    for (int mode = 0; mode <= 3; ++mode) {
        engine.Set_RecogORRegist(mode);
        EXPECT_EQ(engine.FrameProcess(1), 11) << mode;
        EXPECT_EQ(engine.FrameProcess(4), 11) << mode;
        EXPECT_EQ(engine.FrameProcessMasking(4), 11) << mode;
        EXPECT_EQ(engine.FrameProcess(-1), 0) << mode;
        EXPECT_EQ(engine.FrameProcess(5), 0) << mode;
        EXPECT_EQ(engine.FrameProcess(0), 10) << mode;
    }
    // A face with nobody registered, and a face while idle, compute nothing.
    engine.Set_RecogORRegist(1);
    EXPECT_EQ(host.Frame(alice, 0), 0);
    engine.Set_RecogORRegist(0);
    EXPECT_EQ(host.Frame(alice, 1), 0);
}

TEST_F(FrameCycle, FacelessFramesCountOnlyInRecognitionMode) {
    for (int mode : {0, 2, 3}) {
        engine.Set_RecogORRegist(mode);
        engine.Set_NullFrames(4);
        EXPECT_EQ(engine.FrameProcess(0), 10);
        EXPECT_EQ(engine.Get_NullFrames(), 4) << mode;
    }
}

TEST_F(FrameCycle, SixthFacelessFrameClearsInputAndList) {
    EnrolBoth();
    host.Recognise(alice, 300, 10);
    ASSERT_EQ(engine.Get_ResultRecog()[0].id, 0);
    ASSERT_GT(engine.GetMulCount(), 0);
    for (int k = 1; k <= 5; ++k) {
        EXPECT_EQ(engine.FrameProcess(0), 10);
        EXPECT_EQ(engine.Get_NullFrames(), k);
        EXPECT_EQ(engine.Get_ResultRecog()[0].id, 0) << "cleared too early at " << k;
    }
    EXPECT_EQ(engine.FrameProcess(0), 10);
    EXPECT_EQ(engine.Get_NullFrames(), 7);  // counted, cleared, counted again
    EXPECT_EQ(engine.GetMulCount(), 0);
    const RECOGRESULT* list = engine.Get_ResultRecog();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(list[i].id, -1);
        EXPECT_EQ(list[i].similarity, -i);
        EXPECT_EQ(engine.rankedIndices[i], -1);
        EXPECT_EQ(engine.rankedSimilarities[i], -i);
    }
    // The next face resets the count.
    EXPECT_EQ(host.Frame(alice, 400), 13);
    EXPECT_EQ(engine.Get_NullFrames(), 0);
}

TEST_F(FrameCycle, NegativeRefreshTimeNeverClears) {
    EnrolBoth();
    engine.Set_RefreshTime(-1);
    host.Recognise(bob, 300, 8);
    const int frames = engine.GetMulCount();
    for (int k = 0; k < 40; ++k) engine.FrameProcess(0);
    EXPECT_EQ(engine.Get_NullFrames(), 40);
    EXPECT_EQ(engine.GetMulCount(), frames);
    EXPECT_EQ(engine.Get_ResultRecog()[0].id, 1);
}

TEST_F(FrameCycle, RegistrationRunsOnTheExactGatherCount) {
    ASSERT_EQ(engine.idDatabase->SetNewKeyname("carol"), 1);
    engine.Set_DICACQUISITIONNUM(20);
    engine.Set_RecogORRegist(2);
    engine.Reset_gather_counter();
    for (int k = 0; k < 19; ++k) ASSERT_EQ(host.Frame(alice, k), 12);
    EXPECT_EQ(engine.Get_RecogORRegist(), 2);
    EXPECT_FALSE(enginetest::Exists(dir.File("carol.dck")));
    EXPECT_EQ(host.Frame(alice, 19), 12);
    EXPECT_EQ(engine.Get_RecogORRegist(), 1);
    EXPECT_TRUE(engine.Get_RegistCondition());
    EXPECT_TRUE(enginetest::Exists(dir.File("carol.dck")));
}

TEST_F(FrameCycle, PassedGatherCountDoesNotRegister) {
    ASSERT_EQ(engine.idDatabase->SetNewKeyname("carol"), 1);
    engine.Set_DICACQUISITIONNUM(10);
    engine.Reset_gather_counter();
    for (int k = 0; k < 12; ++k) host.Crop(alice, k);  // the host skipped the frame calls
    engine.Set_RecogORRegist(2);
    EXPECT_EQ(host.Frame(alice, 12), 12);
    EXPECT_EQ(engine.Get_RecogORRegist(), 2);
    EXPECT_TRUE(dir.Entries().empty());
}

TEST_F(FrameCycle, CounterZeroReadsSlot499) {
    EnrolBoth();
    engine.Set_recognitionmethod(0);  // scores the newest pattern alone
    engine.Set_RecogORRegist(1);
    engine.Reset_gather_counter();
    for (int slot = 0; slot <= 500; ++slot) host.Crop(slot == 500 ? alice : bob, 600 + slot);
    ASSERT_EQ(engine.Get_gather_counter(), 0);
    EXPECT_EQ(engine.FrameProcess(2), 13);
    EXPECT_EQ(engine.Get_ResultRecog()[0].id, 1) << "slot 500 (alice) was read, not 499 (bob)";
}

TEST_F(FrameCycle, MethodsWithoutComputationLeaveTheList) {
    EnrolBoth();
    host.Recognise(alice, 300, 6);
    RECOGRESULT before[10];
    std::memcpy(before, engine.Get_ResultRecog(), sizeof before);
    auto unchanged = [&] {
        return std::memcmp(before, engine.Get_ResultRecog(), sizeof before) == 0;
    };
    for (int method : {3, 5, 8, -1}) {
        engine.Set_recognitionmethod(method);
        EXPECT_EQ(host.Frame(bob, 700 + method), 13);
        EXPECT_TRUE(unchanged()) << method;
    }
    // The masked family has no form of methods 0 and 6.
    for (int method : {0, 6}) {
        engine.Set_recognitionmethod(method);
        host.Crop(bob, 720 + method);
        EXPECT_EQ(engine.FrameProcessMasking(2), 13);
        EXPECT_TRUE(unchanged()) << method;
    }
    // Without SimCalcControl method 1 feeds channel 0 only and ranks nothing.
    engine.Set_recognitionmethod(1);
    engine.Set_SimCalcControl(false);
    const int frames = engine.GetMulCount();
    EXPECT_EQ(host.Frame(bob, 730), 13);
    EXPECT_TRUE(unchanged());
    EXPECT_EQ(engine.GetMulCount(), std::min(frames + 1, 25));
}

TEST_F(FrameCycle, MaskedRecognitionSkipsMaskedPeople) {
    EnrolBoth();
    engine.idDatabase->MaskArrayOn(0);
    engine.idDatabase->MaskArrayOff(1);
    engine.Set_RecogORRegist(1);
    engine.Refresh_input();
    for (int k = 0; k < 10; ++k) {
        host.Crop(bob, 800 + k);
        ASSERT_EQ(engine.FrameProcessMasking(2), 13);
    }
    // Bob is masked out: only alice can be ranked.
    const RECOGRESULT* list = engine.Get_ResultRecog();
    EXPECT_EQ(list[0].id, 0);
    for (int i = 0; i < 3; ++i) EXPECT_NE(list[i].id, 1);
    EXPECT_EQ(host.Recognise(bob, 800, 10).id, 1);
}

// A clock that stands still until its first reading after Arm() and is kJump milliseconds later
// from then on: a call that reads it as it starts and as it ends measures exactly the jump,
// however often it reads in between, and a timer that never moves measures nothing.
class JumpingClock {
  public:
    static constexpr int32_t kJump = 40;

    explicit JumpingClock(uint32_t base) {
        base_ = base;
        Arm();
        msm::setTickSource(&Read);
    }
    ~JumpingClock() { msm::setTickSource(nullptr); }
    JumpingClock(const JumpingClock&) = delete;
    JumpingClock& operator=(const JumpingClock&) = delete;

    void Arm() { reads_ = 0; }
    int Reads() const { return reads_; }

  private:
    static uint32_t Read() {
        return reads_++ == 0 ? base_.load() : base_.load() + static_cast<uint32_t>(kJump);
    }
    static inline std::atomic<uint32_t> base_{0};
    static inline std::atomic<int> reads_{0};
};

TEST(FrameTimer, TheSteadyClockMovesWithTheTimeSlept) {
    const uint32_t before = msm::tickMilliseconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_GE(msm::elapsedMilliseconds(before, msm::tickMilliseconds()), 30);
}

TEST_F(FrameCycle, TimerCoversTheFrameCall) {
    EnrolBoth();
    engine.Set_RecogORRegist(1);
    // Near the counter's wrap as well: the duration is an unsigned difference.
    for (uint32_t base : {1000u, 0xFFFFFFF0u}) {
        JumpingClock clock(base);
        const auto timed = [&](int code) {
            EXPECT_GE(clock.Reads(), 2) << "the start and the end of the call are both read";
            EXPECT_EQ(engine.GetTime_recog(), JumpingClock::kJump) << "code " << code;
            clock.Arm();
        };
        timed(host.Frame(alice, 900));
        timed(engine.FrameProcess(0));  // face-less
        timed(engine.FrameProcess(1));  // event without work
        timed(engine.FrameProcess(7));  // unknown event
    }
    EXPECT_EQ(engine.GetTime_prev(), 0);  // kept: never set
}

TEST(EngineSettings, DefaultsAndCheckedSetters) {
    FaceRecognition engine(320, 240);
    EXPECT_EQ(engine.Get_RecogORRegist(), 0);
    EXPECT_EQ(engine.Get_recognitionmethod(), 1);
    EXPECT_EQ(engine.Get_DICACQUISITIONNUM(), 50);
    EXPECT_EQ(engine.Get_RefreshTime(), 5);
    EXPECT_EQ(engine.Get_LimitWriteVectNum(), 256);
    EXPECT_TRUE(engine.Get_IncrementalCMSMspaceUpdate());
    EXPECT_TRUE(engine.Get_RegistCondition());
    EXPECT_FALSE(engine.GetRenewDicFaceImage());
    EXPECT_EQ(engine.GetReturnedEigenValueFlag(), 1);
    EXPECT_EQ(engine.GetBScreeningFlag(), 0);
    EXPECT_EQ(engine.GetBScreeningThres(), 1000);
    EXPECT_FLOAT_EQ(engine.Get_SequenceCheckSimThreshold(), 0.985f);
    EXPECT_EQ(engine.Get_Identify_thresvalue(), 850);
    EXPECT_EQ(engine.Get_need_eigen_num(), 7);
    EXPECT_EQ(engine.Get_NullFrames(), 0);
    EXPECT_EQ(engine.Get_SubspaceDistNum(), 1);
    EXPECT_EQ(engine.Get_EVPsi(), 0.125f);
    EXPECT_EQ(engine.Get_2stagepickrange(), 16);
    EXPECT_EQ(engine.Get_RecogCroppingShift(), 0);
    EXPECT_EQ(engine.Get_CroppingRangeMode(), 1);
    EXPECT_EQ(engine.Get_RecognitionResultMode(), 0);
    EXPECT_TRUE(engine.Get_SimCalcControl());
    {
        double low = 0, high = 0;
        engine.Get_FreeCroppingRange(&low, &high);
        EXPECT_EQ(low, 3.0);
        EXPECT_EQ(high, 9.0);
    }

    for (float bad : {1.5f, -0.1f}) {
        engine.Set_SequenceCheckSimThreshold(0.5f);
        engine.Set_SequenceCheckSimThreshold(bad);
        EXPECT_FLOAT_EQ(engine.Get_SequenceCheckSimThreshold(), 0.985f) << bad;
    }
    for (float edge : {0.0f, 1.0f}) {
        engine.Set_SequenceCheckSimThreshold(edge);
        EXPECT_EQ(engine.Get_SequenceCheckSimThreshold(), edge);
    }

    EXPECT_EQ(engine.Change_need_eigen_num(2), 0);
    EXPECT_EQ(engine.Change_need_eigen_num(21), 0);
    EXPECT_EQ(engine.Get_need_eigen_num(), 7);
    EXPECT_EQ(engine.Change_need_eigen_num(20), 1);
    EXPECT_EQ(engine.Get_need_eigen_num(), 20);
    EXPECT_EQ(engine.Change_need_eigen_num(3), 1);
    EXPECT_EQ(engine.Get_need_eigen_num(), 3);

    engine.Change_SubspaceDistNum(0);
    EXPECT_EQ(engine.Get_SubspaceDistNum(), 0);
    engine.Change_SubspaceDistNum(-3);
    EXPECT_EQ(engine.Get_SubspaceDistNum(), 1);
    engine.Change_SubspaceDistNum(9);
    EXPECT_EQ(engine.Get_SubspaceDistNum(), 3);

    double low = 0, high = 0;
    engine.Set_FreeCroppingRange(0.25, 0.75);
    engine.Get_FreeCroppingRange(&low, &high);
    EXPECT_EQ(low, 0.25);
    EXPECT_EQ(high, 0.75);
    engine.Set_EVPsi(0.25f);
    EXPECT_EQ(engine.Get_EVPsi(), 0.25f);

    char header[64] = "stale";
    EXPECT_EQ(engine.Get_CMSML_FileHeader(header), 0);
    EXPECT_STREQ(header, "");
    std::strcpy(header, "stale");
    EXPECT_EQ(engine.Get_CMSML_defaultFileHeader(header), 0);
    EXPECT_STREQ(header, "");
}

TEST(EngineSettings, ResultModeZeroLeavesTheFacadeCopiesStale) {
    FaceRecognition engine(320, 240);
    int32_t* oldValues = engine.rankedSimilarities;
    int32_t* oldIds = engine.rankedIndices;
    engine.Set_RecognitionResultMode(1, 50);
    EXPECT_EQ(engine.Get_RecognitionResultMode(), 1);
    EXPECT_EQ(engine.Get_ResultRecog()[49].similarity, -999);  // the new list is 50 long
    engine.Set_RecognitionResultMode(0, 50);
    EXPECT_EQ(engine.rankedSimilarities, oldValues);
    EXPECT_EQ(engine.rankedIndices, oldIds);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(engine.Get_ResultRecog()[i].similarity, -999);
    EXPECT_EQ(engine.Get_RecognitionResultMode(), 0);
}

TEST(EngineSettings, FailedCroppingLeavesTheFaceImage) {
    FaceRecognition engine(160, 160);
    std::memset(engine.faceImage->pixels, 77, 64 * 64);
    BasicImageFile empty, out(64, 64, 8), wrongOut(32, 32, 8), frame(160, 160, 8);
    std::memset(frame.pixels, 128, 160 * 160);
    PartsPosition parts{};
    EXPECT_EQ(engine.FaceCropping(&empty, nullptr, &parts, &out), 4);
    EXPECT_EQ(engine.FaceCropping(&frame, nullptr, nullptr, &out), 4);
    EXPECT_EQ(engine.FaceCropping(&frame, nullptr, &parts, &wrongOut), 4);
    EXPECT_EQ(engine.FaceCropping(&frame, nullptr, &parts, nullptr), 4);
    for (int i = 0; i < 64 * 64; ++i) ASSERT_EQ(engine.faceImage->pixels[i], 77);
    EXPECT_EQ(engine.Get_gather_counter(), 0);
    EXPECT_EQ(engine.Get_NormImagesPtr(501), nullptr);
    EXPECT_NE(engine.Get_NormImagesPtr(500), nullptr);
}

}  // namespace
