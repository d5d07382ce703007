// What the settings promise beyond their getters: values that are only stored change no file and
// no score, flags act on exactly 1, and values outside a setting's range are treated as the
// header says.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "dictionary/MtrxChunk.h"
#include "engine_host.h"

namespace {

using enginetest::Host;
using enginetest::ReadBytes;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

const SyntheticPerson kAlice{101}, kBob{202};

// A file's content as a comparison should see it: a ".mck" record's header carries the time it
// was written, so its records are compared by their counts and sums.
std::vector<unsigned char> Content(const std::string& path) {
    if (path.size() < 4 || path.compare(path.size() - 4, 4, ".mck") != 0) return ReadBytes(path);
    MtrxChunk records;
    if (records.ReadAll(path.c_str()) != 1) return {};
    std::vector<unsigned char> out;
    auto append = [&out](const void* data, std::size_t bytes) {
        const auto* p = static_cast<const unsigned char*>(data);
        out.insert(out.end(), p, p + bytes);
    };
    for (int c = 0; c < records.count; ++c) {
        const MrxPrim& r = records.prims[c];
        append(&r.number, sizeof r.number);
        append(&r.order, sizeof r.order);
        append(r.elements, sizeof(float) * static_cast<std::size_t>(r.elementCount));
    }
    return out;
}

// Two persons enrolled and alice recognised by an engine that `configure` set up first: the
// files written and the ranked list.
struct Outcome {
    bool enrolled = false;
    std::vector<std::string> entries;
    std::vector<std::vector<unsigned char>> files;
    std::vector<RECOGRESULT> ranking;
};

Outcome EnrolAndRecognise(const std::function<void(FaceRecognition&)>& configure) {
    ScratchDir dir;
    Host host(dir.path());
    configure(host.engine);
    Outcome out;
    out.enrolled = host.Enrol(1, "alice", kAlice) && host.Enrol(2, "bob", kBob);
    out.entries = dir.Entries();
    std::sort(out.entries.begin(), out.entries.end());
    for (const std::string& name : out.entries) out.files.push_back(Content(dir.File(name)));
    if (out.enrolled) {
        host.Recognise(kAlice, 400, 10);
        const RECOGRESULT* r = host.engine.Get_ResultRecog();
        out.ranking.assign(r, r + 10);
    }
    return out;
}

void ExpectSameOutcome(const Outcome& expected, const Outcome& actual) {
    ASSERT_TRUE(actual.enrolled);
    ASSERT_EQ(actual.entries, expected.entries);
    for (std::size_t i = 0; i < expected.files.size(); ++i) {
        EXPECT_FALSE(expected.files[i].empty()) << expected.entries[i];
        EXPECT_TRUE(actual.files[i] == expected.files[i]) << expected.entries[i] << " differs";
    }
    ASSERT_EQ(actual.ranking.size(), expected.ranking.size());
    for (std::size_t i = 0; i < expected.ranking.size(); ++i) {
        EXPECT_EQ(actual.ranking[i].id, expected.ranking[i].id) << i;
        EXPECT_EQ(actual.ranking[i].similarity, expected.ranking[i].similarity) << i;
    }
}

// The outcome with every setting at its default, computed once for the tests that compare.
const Outcome& Reference() {
    static const Outcome outcome = EnrolAndRecognise([](FaceRecognition&) {});
    return outcome;
}

TEST(Settings, StoredOnlyValuesChangeNoFileAndNoScore) {
    ASSERT_TRUE(Reference().enrolled);
    ASSERT_EQ(Reference().entries.size(), 6u);
    ASSERT_EQ(Reference().ranking[0].id, 0);
    ExpectSameOutcome(Reference(), EnrolAndRecognise([](FaceRecognition& e) {
                          e.Set_imagesavejpegratio(3);
                          e.Set_2stagepickrange(97);
                          e.Set_RecogCroppingShift(9);
                          e.Set_CroppingRangeMode(0);
                          e.Set_FreeCroppingRange(0.125, 0.25);
                          // Far above any score: were it applied, nobody would be ranked.
                          e.Set_Identify_thresvalue(1000000);
                          e.Set_RegistCondition(false);
                      }));
}

TEST(Settings, FlagsActOnExactlyOneAndVectorLimitsBelowOneWriteAll) {
    ExpectSameOutcome(Reference(), EnrolAndRecognise([](FaceRecognition& e) {
                          // With flag 1 this threshold would drop every frame.
                          e.SetBScreeningFlag(2);
                          e.SetBScreeningThres(1000000);
                          e.SetReturnedEigenValueFlag(2);
                          e.Set_LimitWriteVectNum(0);
                      }));
    ExpectSameOutcome(Reference(), EnrolAndRecognise([](FaceRecognition& e) {
                          e.SetBScreeningFlag(-1);
                          e.Set_LimitWriteVectNum(-3);
                      }));

    // The eigenvalues reach the work buffer only with flag 1.
    ScratchDir dir;
    Host host(dir.path());
    host.engine.SetReturnedEigenValueFlag(2);
    ASSERT_TRUE(host.Enrol(1, "alice", kAlice));
    const unsigned char* buffer = host.engine.workBuffer;
    EXPECT_TRUE(std::all_of(buffer, buffer + 1024, [](unsigned char b) { return b == 0; }));
    EXPECT_EQ(host.engine.screeningSelection[0], '\0');  // screening never ran
    host.engine.SetReturnedEigenValueFlag(1);
    ASSERT_TRUE(host.Enrol(2, "bob", kBob));
    EXPECT_FALSE(std::all_of(buffer, buffer + 1024, [](unsigned char b) { return b == 0; }));

    // Flag 1 with a threshold no frame reaches keeps no frame: the registration fails.
    host.engine.SetBScreeningFlag(1);
    host.engine.SetBScreeningThres(1000000);
    const std::vector<std::string> before = dir.Entries();
    EXPECT_FALSE(host.Enrol(3, "carol", SyntheticPerson(303)));
    EXPECT_EQ(host.engine.screeningSelection[0], '0');
    EXPECT_EQ(dir.Entries(), before);
}

TEST(Settings, HeldRecognitionStillRunsTheSinglePatternMethod) {
    ScratchDir dir;
    Host host(dir.path());
    ASSERT_TRUE(host.Enrol(1, "alice", kAlice));
    ASSERT_TRUE(host.Enrol(2, "bob", kBob));
    host.engine.Set_SimCalcControl(false);
    host.engine.Set_recognitionmethod(0);
    EXPECT_EQ(host.Recognise(kBob, 300, 1).id, 1);
    EXPECT_EQ(host.Recognise(kAlice, 300, 1).id, 0);
    // Method 1 is held: the list stays as the single-pattern method left it.
    host.engine.Set_recognitionmethod(1);
    EXPECT_EQ(host.Recognise(kBob, 320, 8).id, 0);
}

TEST(SettingsOutOfRange, UnknownModeIgnoresFacesAndCountsNoFacelessFrame) {
    ScratchDir dir;
    Host host(dir.path());
    ASSERT_TRUE(host.Enrol(1, "alice", kAlice));
    host.Recognise(kAlice, 300, 6);
    RECOGRESULT before[10];
    std::memcpy(before, host.engine.Get_ResultRecog(), sizeof before);
    for (int mode : {4, -1, 1000}) {
        host.engine.Set_RecogORRegist(mode);
        EXPECT_EQ(host.engine.Get_RecogORRegist(), mode);
        EXPECT_EQ(host.Frame(kAlice, 600), 0) << mode;
        host.engine.Set_NullFrames(3);
        EXPECT_EQ(host.engine.FrameProcess(0), 10);
        EXPECT_EQ(host.engine.Get_NullFrames(), 3) << mode;
        EXPECT_EQ(host.engine.Get_RecogORRegist(), mode);
    }
    EXPECT_EQ(std::memcmp(before, host.engine.Get_ResultRecog(), sizeof before), 0);

    // The count goes on from what Set_NullFrames stored: one more face-less frame clears.
    host.engine.Set_RecogORRegist(1);
    host.engine.Set_NullFrames(5);
    EXPECT_EQ(host.engine.FrameProcess(0), 10);
    EXPECT_EQ(host.engine.Get_ResultRecog()[0].id, -1);
    EXPECT_EQ(host.engine.GetMulCount(), 0);
}

TEST(SettingsOutOfRange, InputSegmentsOutsideTheRingChangeNothing) {
    ScratchDir dir;
    Host host(dir.path());
    ASSERT_TRUE(host.Enrol(1, "alice", kAlice));
    host.engine.Change_InputSS_MAXSEGNUM(6);
    host.Recognise(kAlice, 300, 10);
    EXPECT_EQ(host.engine.GetMulCount(), 6);
    host.engine.NoticeCompleteRecognition();
    ASSERT_EQ(host.engine.GetBufferCount(), 6);
    for (int n : {0, -2, 502}) {
        host.engine.Change_InputSS_MAXSEGNUM(n);
        EXPECT_EQ(host.engine.GetBufferCount(), 6) << n;
        host.Recognise(kAlice, 320, 10);
        EXPECT_EQ(host.engine.GetMulCount(), 6) << n;
    }
    // An accepted size starts new buffers: what the last recognition kept is gone.
    host.engine.Change_InputSS_MAXSEGNUM(501);
    EXPECT_EQ(host.engine.GetBufferCount(), 0);
    EXPECT_EQ(host.engine.AdditionFromPrevRecog(0), 0);
    host.Recognise(kAlice, 340, 30);
    EXPECT_EQ(host.engine.GetMulCount(), 30);
}

}  // namespace
