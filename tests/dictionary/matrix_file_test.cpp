#include "dictionary/MtrxChunk.h"

#include <gtest/gtest.h>

#include "common/fixed_clock.h"
#include "dictionary/stamp.h"
#include "scratch.h"

namespace {

using msmtest::FixedClock;
using msmtest::Int32At;
using msmtest::ReadBytes;
using msmtest::ScratchDir;
using msmtest::WriteBytes;

msm::ClockReading NewYearsEve() {
    return {12, 31, 7, 23, 59, 58};
}
msm::ClockReading EarlyMorning() {
    return {1, 2, 98, 0, 5, 9};
}

std::string Scrambled(const std::string& text) {
    std::string out(text.rbegin(), text.rend());
    for (char& c : out) c = static_cast<char>(c + 40);
    return out;
}

void FillMatrix(MrxPrim& m, int number, int order) {
    ASSERT_EQ(m.Allocate(order), 1);
    m.number = number;
    for (int e = 0; e < m.elementCount; ++e) m.elements[e] = e * 0.5f - 3.0f;
}

TEST(MatrixStamp, TwoDigitYearsBelow98AreThisCentury) {
    EXPECT_EQ(msm::stampFromReading(NewYearsEve()).date, 20071231);
    EXPECT_EQ(msm::stampFromReading(NewYearsEve()).time, 235958);
    EXPECT_EQ(msm::stampFromReading({1, 2, 98, 0, 0, 0}).date, 19980102);
    EXPECT_EQ(msm::stampFromReading({1, 2, 97, 0, 0, 0}).date, 20970102);
    EXPECT_EQ(msm::stampFromReading({6, 15, 99, 12, 0, 1}).date, 19990615);
}

TEST(MatrixFile, Order256RecordHeaderIsExact) {
    FixedClock clock(NewYearsEve);
    ScratchDir dir;
    MtrxChunk out;
    ASSERT_EQ(out.Allocate(1), 1);
    FillMatrix(out.prims[0], 50, 256);
    EXPECT_EQ(out.prims[0].elementCount, 32896);
    std::string path = dir.File("a.mck");
    ASSERT_EQ(out.Write(path.c_str()), 1);
    std::vector<unsigned char> b = ReadBytes(path);
    ASSERT_EQ(b.size(), 7u + 4 + 24 + 4 * 32896);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 3), "MCK");
    EXPECT_EQ(Int32At(b, 3), 1);
    EXPECT_EQ(Int32At(b, 7), 131612);
    EXPECT_EQ(std::string(b.begin() + 11, b.begin() + 35), Scrambled("000500025620071231235958"));
    EXPECT_EQ(out.prims[0].date, 20071231);
    EXPECT_EQ(out.prims[0].time, 235958);
}

TEST(MatrixFile, RoundTripKeepsHeaderAndElements) {
    FixedClock clock(EarlyMorning);
    ScratchDir dir;
    MtrxChunk out;
    ASSERT_EQ(out.Allocate(3), 1);
    FillMatrix(out.prims[0], 12345, 7);
    FillMatrix(out.prims[1], 0, 0);
    FillMatrix(out.prims[2], -42, 1);
    std::string path = dir.File("b.mck");
    ASSERT_EQ(out.Write(path.c_str()), 1);
    MtrxChunk in;
    ASSERT_EQ(in.ReadAll(path.c_str()), 1);
    ASSERT_EQ(in.count, 3);
    for (int i = 0; i < 3; ++i) {
        const MrxPrim& a = out.prims[i];
        const MrxPrim& b = in.prims[i];
        EXPECT_EQ(b.number, a.number);
        EXPECT_EQ(b.order, a.order);
        EXPECT_EQ(b.elementCount, a.elementCount);
        EXPECT_EQ(b.date, 19980102);
        EXPECT_EQ(b.time, 509);  // "   509": the time field is space-padded
        for (int e = 0; e < a.elementCount; ++e) ASSERT_EQ(b.elements[e], a.elements[e]);
    }
}

TEST(MatrixFile, HeaderValuesThatDoNotFitTheirFieldsFailTheWrite) {
    ScratchDir dir;
    MtrxChunk out;
    ASSERT_EQ(out.Allocate(1), 1);
    FillMatrix(out.prims[0], 100000, 2);
    EXPECT_EQ(out.Write(dir.File("c.mck").c_str()), 0);
    EXPECT_TRUE(dir.Entries().empty());
}

// The size field counts four bytes more than follow it; skipping by it lands that far on.
TEST(MatrixFile, ReadOneSkipsByTheSizeField) {
    ScratchDir dir;
    MtrxChunk out;
    ASSERT_EQ(out.Allocate(2), 1);
    FillMatrix(out.prims[0], 1, 3);
    FillMatrix(out.prims[1], 2, 4);
    std::string path = dir.File("d.mck");
    ASSERT_EQ(out.Write(path.c_str()), 1);
    std::vector<unsigned char> b = ReadBytes(path);
    std::size_t secondRecord = 7 + 4 + 24 + 4 * 6;
    MtrxChunk in;
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 2, 1, 1), 0);
    b.insert(b.begin() + static_cast<long>(secondRecord), 4, 0);  // as a skipping reader expects
    ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 2, 1, 1), 1);
    EXPECT_EQ(in.prims[1].number, 2);
    EXPECT_EQ(in.prims[1].elements[9], out.prims[1].elements[9]);
    EXPECT_EQ(in.prims[0].elements, nullptr);
}

TEST(MatrixFile, MalformedFilesAreRejected) {
    MtrxChunk out;
    ASSERT_EQ(out.Allocate(2), 1);
    FillMatrix(out.prims[0], 5, 3);
    FillMatrix(out.prims[1], 6, 2);
    ScratchDir dir;
    std::string path = dir.File("e.mck");
    ASSERT_EQ(out.Write(path.c_str()), 1);
    std::vector<unsigned char> good = ReadBytes(path);
    MtrxChunk in;
    for (std::size_t n = 0; n < good.size(); ++n) {
        ASSERT_EQ(in.ReadBytes(good.data(), n, 1, 0, 0), 0) << n;
        ASSERT_EQ(in.count, 0);
    }
    std::vector<unsigned char> b = good;
    b[2] = 'X';
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
    b = good;
    b[3] = 0x7f;  // count
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
    b = good;
    b[7] += 4;  // size field
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
    b = good;
    // Order field "99999": far more elements than the file holds.
    std::string text = Scrambled("000059999920071231235958");
    std::copy(text.begin(), text.end(), b.begin() + 11);
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
    text = Scrambled("00005-000120071231235958");
    std::copy(text.begin(), text.end(), b.begin() + 11);
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
    ASSERT_EQ(in.ReadBytes(good.data(), good.size(), 1, 0, 0), 1);
    EXPECT_EQ(in.prims[1].number, 6);
}

}  // namespace
