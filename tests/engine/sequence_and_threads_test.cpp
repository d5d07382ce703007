// The sequence check on faces written into the ring, and two engines on two threads.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "common/in_step.h"
#include "engine_host.h"

namespace {

using enginetest::Host;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

// A 32 x 32 picture with a step between every pair of neighbours, drawn at 64 x 64.
void DrawStepped(BasicImageFile* face) {
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            face->pixels[y * 64 + x] =
                static_cast<unsigned char>(8 + 30 * ((x / 2 + 2 * (y / 2)) % 8));
}

void DrawFlat(BasicImageFile* face) {
    std::memset(face->pixels, 128, 64 * 64);
}

// The fifteen newest slots (499 back to 485 on a fresh engine): `copies` stepped faces, the
// rest flat, which screening drops against the stepped mean.
bool CheckWithCopies(FaceRecognition& engine, int copies) {
    for (int k = 0; k < 15; ++k) {
        BasicImageFile* face = engine.Get_NormImagesPtr(499 - k);
        if (k < copies)
            DrawStepped(face);
        else
            DrawFlat(face);
    }
    return engine.SequenceCheck();
}

TEST(SequenceCheck, ThreeNearCopiesMeanAStillPicture) {
    FaceRecognition engine(160, 160);
    ASSERT_EQ(engine.GetMulCount(), 0);  // an empty input looks at fifteen slots
    EXPECT_TRUE(CheckWithCopies(engine, 2));
    EXPECT_FALSE(CheckWithCopies(engine, 3));
    EXPECT_FALSE(CheckWithCopies(engine, 15));
    // A threshold of 1 cannot be exceeded, not even by exact copies.
    engine.Set_SequenceCheckSimThreshold(1.0f);
    EXPECT_TRUE(CheckWithCopies(engine, 15));
}

TEST(SequenceCheck, NothingKeptIsNotALiveFace) {
    FaceRecognition engine(160, 160);
    std::mt19937 rng(5);
    for (int k = 0; k < 15; ++k) {
        BasicImageFile* face = engine.Get_NormImagesPtr(499 - k);
        for (int i = 0; i < 64 * 64; ++i) face->pixels[i] = static_cast<unsigned char>(rng());
    }
    EXPECT_FALSE(engine.SequenceCheck());
}

TEST(SequenceCheck, LiveSyntheticFacesPass) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson p(909);
    for (int k = 0; k < 15; ++k) host.Crop(p, 0);  // one frame shown over and over
    EXPECT_FALSE(host.engine.SequenceCheck());
    for (int k = 0; k < 15; ++k) host.Crop(p, k);
    // Fresh noise and movement every frame: not one face is a near copy of the mean.
    host.engine.Set_SequenceCheckSimThreshold(0.999f);
    EXPECT_TRUE(host.engine.SequenceCheck());
}

// Everything one engine reports while it enrols two people and recognises both. step() is called
// before each enrolment and each recognition frame.
std::vector<int> Session(
    const std::string& folder, uint32_t seed, const std::function<void()>& step = [] {}) {
    Host host(folder);
    SyntheticPerson a(seed), b(seed + 1);
    std::vector<int> seen;
    step();
    seen.push_back(host.Enrol(1, "a", a));
    step();
    seen.push_back(host.Enrol(2, "b", b));
    for (const SyntheticPerson* p : {&a, &b, &a}) {
        host.engine.Set_RecogORRegist(1);
        host.engine.Refresh_input();
        for (int k = 0; k < 8; ++k) {
            step();
            seen.push_back(host.Frame(*p, 300 + k));
            for (int i = 0; i < 3; ++i) {
                seen.push_back(host.engine.Get_ResultRecog()[i].id);
                seen.push_back(host.engine.Get_ResultRecog()[i].similarity);
            }
        }
    }
    seen.push_back(host.engine.SequenceCheck());
    return seen;
}

TEST(Threads, TwoEnginesAtOnceMatchOneAfterTheOther) {
    ScratchDir d1, d2, d3, d4;
    const std::vector<int> first = Session(d1.path(), 1000);
    const std::vector<int> second = Session(d2.path(), 2000);
    std::vector<int> a, b;
    // In step: each enrolment and frame of one engine runs beside the same of the other.
    msmtest::StepCounts inStep(2);
    std::thread ta([&] { a = Session(d3.path(), 1000, [&] { EXPECT_TRUE(inStep.Arrive(0)); }); });
    std::thread tb([&] { b = Session(d4.path(), 2000, [&] { EXPECT_TRUE(inStep.Arrive(1)); }); });
    ta.join();
    tb.join();
    EXPECT_EQ(a, first);
    EXPECT_EQ(b, second);
    EXPECT_NE(first, second);
}

}  // namespace
