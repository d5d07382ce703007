#include <gtest/gtest.h>

#include <cmath>

#include "dictionary/CCOVImage.h"
#include "dictionary/CCSDImage.h"
#include "dictionary/fixed_point.h"
#include "dictionary/stamp.h"
#include "scratch.h"

namespace {

using msmtest::PutFloat;
using msmtest::ReadBytes;
using msmtest::ScratchDir;
using msmtest::WriteBytes;

float ValueOf(int k, int i) {
    return (k * 5 + i) / 32.0f - 1.0f;
}

double ValueIn(const CCSDImage& img, int mode, int k, int i) {
    switch (mode) {
        case 1:
        case 4:
            return img.drows[k][i];
        case 2:
        case 5:
            return img.frows[k][i];
        case 3:
        case 6:
            return msm::fromQ14(img.srows[k][i]);
        case 7:
        case 8:
            return img.afrows[k][i];
        default:
            return msm::fromQ14(img.asrows[k][i]);
    }
}

void FillFloats(CCSDImage& img, int count, int dim) {
    ASSERT_EQ(img.Allocate(3, 4, dim, count, 2), 1);
    for (int k = 0; k < count; ++k)
        for (int i = 0; i < dim; ++i) img.frows[k][i] = ValueOf(k, i);
}

TEST(CsFile, FillerLengthsFollowTheHeaderDigits) {
    const int expected[10] = {1, 1, 1, 1, 4, 1, 1, 1, 2, 7};
    for (int k = 0; k < 10; ++k) EXPECT_EQ(csFillerLength("0000300016", k), expected[k]) << k;
    EXPECT_EQ(csFillerLength("0000300016", 14), 4);
}

TEST(CsFile, BinaryLayoutHasScrambledHeaderAndFillers) {
    ScratchDir dir;
    CCSDImage img;
    FillFloats(img, 3, 16);
    std::string path = dir.File("a.cs");
    ASSERT_EQ(img.WriteBinary(path.c_str(), 0, 2), 1);
    std::vector<unsigned char> b = ReadBytes(path);
    ASSERT_EQ(b.size(), 13u + 3 * 64 + 3);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 3), "CSF");
    std::string header = "6100030000";  // "0000300016" reversed
    for (int i = 0; i < 10; ++i) EXPECT_EQ(b[3 + i], header[i] + 40) << i;
    // Each filler repeats the first byte of its own vector.
    for (int k = 0; k < 3; ++k) EXPECT_EQ(b[13 + k * 65 + 64], b[13 + k * 65]);
}

TEST(CsFile, BinaryAndTextRoundTripIntoEveryMode) {
    ScratchDir dir;
    CCSDImage img;
    FillFloats(img, 12, 21);
    std::string bin = dir.File("v.cs"), txt = dir.File("v.txt");
    ASSERT_EQ(img.WriteBinary(bin.c_str(), 0, 2), 1);
    ASSERT_EQ(img.WriteText(txt.c_str(), 0, 2), 1);
    for (const std::string& path : {bin, txt})
        for (int mode = 1; mode <= 10; ++mode) {
            SCOPED_TRACE(testing::Message() << path << " mode " << mode);
            CCSDImage in;
            ASSERT_EQ(in.Read(path.c_str(), 0, mode), 1);
            EXPECT_EQ(in.count, 12);
            EXPECT_EQ(in.dim, 21);
            EXPECT_EQ(in.tag1, 0);
            for (int k = 0; k < 12; ++k)
                for (int i = 0; i < 21; ++i) ASSERT_EQ(ValueIn(in, mode, k, i), ValueOf(k, i));
        }
    CCSDImage limited;
    ASSERT_EQ(limited.Read(bin.c_str(), 5, 3), 1);
    EXPECT_EQ(limited.count, 5);
    CCSDImage shortRows;
    ASSERT_EQ(shortRows.Read(bin.c_str(), 0, 9), 1);
    std::string again = dir.File("again.cs");
    ASSERT_EQ(shortRows.WriteBinary(again.c_str(), 4, 9), 1);
    EXPECT_EQ(ReadBytes(again).size(), 13u + 4 * 84 + 4);  // header "0000400021": four 1s
}

TEST(CsFile, LayoutsKeepTheWholeBlockPadding) {
    CCSDImage img;
    ASSERT_EQ(img.Allocate(0, 0, 16, 3, 9), 1);
    ASSERT_EQ(img.Allocate(0, 0, 16, 3, 8), 1);  // added beside the short rows
    ASSERT_NE(img.asrows, nullptr);
    ASSERT_NE(img.afrows, nullptr);
    EXPECT_EQ(img.asrows[0][31], 0);     // (16/32 + 1) * 32 values
    EXPECT_EQ(img.afrows[0][31], 0.0f);  // (16/16 + 1) * 16 values
    for (int i = 3; i < 16; ++i) EXPECT_EQ(img.afrows[i], nullptr);
    ASSERT_EQ(img.Allocate(0, 0, 16, 3, 1), 1);  // releases the others
    EXPECT_EQ(img.asrows, nullptr);
    EXPECT_EQ(img.Allocate(0, 0, 16, 3, 11), 0);
}

TEST(CsFile, DoubleFileNarrowsIntoFloatModes) {
    std::string text = "0000100003";
    std::vector<unsigned char> b = {'C', 'S', 'D'};
    for (int i = 9; i >= 0; --i) b.push_back(static_cast<unsigned char>(text[i] + 40));
    for (double v : {0.1, -2.5, 1e-3}) {
        unsigned char raw[8];
        std::memcpy(raw, &v, 8);
        b.insert(b.end(), raw, raw + 8);
    }
    b.push_back(0);  // filler of vector 0: digit '0' + 1
    CCSDImage in;
    ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 0, 2), 1);
    EXPECT_EQ(in.frows[0][0], 0.1f);
    EXPECT_EQ(in.frows[0][2], 1e-3f);
    ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 0, 1), 1);
    EXPECT_EQ(in.drows[0][0], 0.1);
    ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 0, 3), 1);
    EXPECT_EQ(in.srows[0][0], 1638);  // 1638.4 truncated
    b.pop_back();
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 0, 2), 0);  // filler missing
}

TEST(CsFile, CountsAboveTenThousandAndBrokenFilesAreRejected) {
    std::string text = "10001 2\n";
    for (int i = 0; i < 2 * 10001; ++i) text += "0 ";
    CCSDImage in;
    EXPECT_EQ(in.ReadBytes(reinterpret_cast<const unsigned char*>(text.data()), text.size(), 0, 2),
              0);
    const std::vector<std::string> bad = {"-1 2\n", "2 -2\n", "2 2 1 2 3\n",
                                          "x",      "",       "3 100000000\n1"};
    for (const std::string& t : bad)
        EXPECT_EQ(in.ReadBytes(reinterpret_cast<const unsigned char*>(t.data()), t.size(), 0, 2), 0)
            << t;
    std::string binaryCount = "1000100001";
    std::vector<unsigned char> b = {'C', 'S', 'F'};
    for (int i = 9; i >= 0; --i) b.push_back(static_cast<unsigned char>(binaryCount[i] + 40));
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 0, 2), 0);

    ScratchDir dir;
    CCSDImage img;
    FillFloats(img, 4, 5);
    std::string path = dir.File("t.cs");
    ASSERT_EQ(img.WriteBinary(path.c_str(), 0, 2), 1);
    std::vector<unsigned char> good = ReadBytes(path);
    for (std::size_t n = 3; n < good.size(); ++n)
        ASSERT_EQ(in.ReadBytes(good.data(), n, 0, 2), 0) << n;
    EXPECT_EQ(img.WriteBinary(path.c_str(), 0, 9), 0);  // no rows of that layout
    EXPECT_EQ(in.Read("/nonexistent/v.cs", 0, 2), 0);
}

msm::ClockReading Stamp() {
    return {12, 31, 7, 23, 59, 58};
}

void FillCov(CCOVImage& c, int order, int number, int m) {
    ASSERT_EQ(c.Allocate(order), 1);
    c.number = number;
    c.matrixNumber = m;
    for (int e = 0; e < c.elementCount; ++e) c.elements[e] = std::sin(e * 0.37f);
}

TEST(CovFile, NumberedFillerLength) {
    EXPECT_EQ(movFillerLength(1234), 0);
    EXPECT_EQ(movFillerLength(7), 2);
    EXPECT_EQ(movFillerLength(9999), (9999 + 999 + 99 + 9) % 5);
}

TEST(CovFile, BinaryLayoutOfBothKinds) {
    msm::setClockSource(Stamp);
    ScratchDir dir;
    CCOVImage c;
    FillCov(c, 4, 50, 0);
    std::string path = dir.File("c.cov");
    ASSERT_EQ(c.WriteBinary(path.c_str()), 1);
    std::vector<unsigned char> b = ReadBytes(path);
    ASSERT_EQ(b.size(), 27u + 4 * 10);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 3), "COV");
    std::string header = "000500000420071231235958";
    for (int i = 0; i < 24; ++i) EXPECT_EQ(b[3 + i], header[23 - i] + 40);

    c.matrixNumber = 7;
    ASSERT_EQ(c.WriteBinary(path.c_str()), 1);
    b = ReadBytes(path);
    msm::setClockSource(nullptr);
    ASSERT_EQ(b.size(), 27u + 5 + 2 + 4 * 10);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 3), "MOV");
    const char* digits = "M0007";
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(b[27 + i], static_cast<unsigned char>(digits[i] + 2 * (i + 17)));
    EXPECT_EQ(b[32], b[3]);  // fillers copy the scrambled header's start
    EXPECT_EQ(b[33], b[4]);
}

TEST(CovFile, BinaryAndTextRoundTrip) {
    ScratchDir dir;
    for (int m : {0, 7, 1234}) {
        CCOVImage c;
        FillCov(c, 9, 321, m);
        std::string bin = dir.File("r.cov"), txt = dir.File("r.txt");
        ASSERT_EQ(c.WriteBinary(bin.c_str()), 1);
        ASSERT_EQ(c.WriteText(txt.c_str()), 1);
        for (const std::string& path : {bin, txt}) {
            CCOVImage in;
            ASSERT_EQ(in.Read(path.c_str()), 1) << path;
            EXPECT_EQ(in.number, 321);
            EXPECT_EQ(in.order, 9);
            EXPECT_EQ(in.date, c.date);
            EXPECT_EQ(in.time, c.time);
            EXPECT_EQ(in.matrixNumber, path == bin ? m : 0);
            for (int e = 0; e < 45; ++e) ASSERT_EQ(in.elements[e], c.elements[e]);
        }
    }
}

TEST(CovFile, MalformedFilesAreRejected) {
    ScratchDir dir;
    CCOVImage c;
    FillCov(c, 3, 1, 12);
    std::string path = dir.File("m.cov");
    ASSERT_EQ(c.WriteBinary(path.c_str()), 1);
    std::vector<unsigned char> good = ReadBytes(path);
    CCOVImage in;
    for (std::size_t n = 0; n < good.size(); ++n) {
        ASSERT_EQ(in.ReadBytes(good.data(), n), 0) << n;
        ASSERT_EQ(in.elements, nullptr);
    }
    std::vector<unsigned char> b = good;
    b[2] = 'X';  // handed to the text reader, which cannot parse it
    EXPECT_EQ(in.ReadBytes(b.data(), b.size()), 0);
    b = good;
    const char* negative = "M-001";
    for (int i = 0; i < 5; ++i) b[27 + i] = static_cast<unsigned char>(negative[i] + 2 * (i + 17));
    EXPECT_EQ(in.ReadBytes(b.data(), b.size()), 0);
    for (std::string t : {"1 -3\n0 0\n", "-1 1\n0 0\n1", "1 2\n0 0\n1 2", "1 100000\n0 0\n1 2 3"})
        EXPECT_EQ(in.ReadBytes(reinterpret_cast<const unsigned char*>(t.data()), t.size()), 0) << t;
    c.matrixNumber = 10000;
    EXPECT_EQ(c.WriteBinary(path.c_str()), 0);
    EXPECT_EQ(ReadBytes(path), good);
    ASSERT_EQ(in.ReadBytes(good.data(), good.size()), 1);
    EXPECT_EQ(in.matrixNumber, 12);
}

}  // namespace
