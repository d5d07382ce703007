#include "dictionary/DictChunk.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <limits>

#include "io/byte_reader.h"
#include "dictionary/fixed_point.h"
#include "scratch.h"

namespace {

using msmtest::Int32At;
using msmtest::PutFloat;
using msmtest::PutInt32;
using msmtest::ReadBytes;
using msmtest::ScratchDir;
using msmtest::WriteBytes;

// Values that Q14 holds exactly, different in every primitive, vector and component.
float ValueOf(int p, int k, int i) {
    return (p * 7 + k * 3 + i) / 64.0f - 0.5f;
}

void Fill(DictChunk& chunk, int prims, int count, int dim, int mode) {
    ASSERT_EQ(chunk.Allocate(prims), 1);
    for (int p = 0; p < prims; ++p) {
        DicPrim& prim = chunk.prims[p];
        ASSERT_EQ(prim.Allocate(dim, count, mode), 1);
        for (int k = 0; k < count; ++k)
            for (int i = 0; i < dim; ++i) {
                float v = ValueOf(p, k, i);
                switch (mode) {
                    case 1:
                        prim.drows[k][i] = v;
                        break;
                    case 2:
                        prim.frows[k][i] = v;
                        break;
                    case 3:
                        prim.srows[k][i] = msm::toQ14(v);
                        break;
                    default:
                        prim.arows[k][i] = v;
                        break;
                }
            }
        chunk.tags[p] = 100 + p;
    }
}

float ValueIn(const DicPrim& prim, int k, int i) {
    switch (prim.mode) {
        case 1:
            return static_cast<float>(prim.drows[k][i]);
        case 2:
            return prim.frows[k][i];
        case 3:
            return msm::fromQ14(prim.srows[k][i]);
        default:
            return prim.arows[k][i];
    }
}

// Hand-made ".dck" bytes: records of count x dim values given by ValueOf.
std::vector<unsigned char> DckBytes(const std::vector<std::pair<int, int>>& records) {
    std::vector<unsigned char> b = {'D', 'C', 'K'};
    PutInt32(b, static_cast<int32_t>(records.size()));
    for (std::size_t p = 0; p < records.size(); ++p) {
        auto [count, dim] = records[p];
        PutInt32(b, 12 + 4 * count * dim);
        PutInt32(b, 2);
        PutInt32(b, count);
        PutInt32(b, dim);
        for (int k = 0; k < count; ++k)
            for (int i = 0; i < dim; ++i) PutFloat(b, ValueOf(static_cast<int>(p), k, i));
    }
    return b;
}

TEST(DictChunk, EveryWriteModeReadsBackInEveryReadMode) {
    ScratchDir dir;
    for (int writeMode : {1, 2, 3, 7}) {
        DictChunk out;
        Fill(out, 3, 4, 37, writeMode);
        std::string path = dir.File("m" + std::to_string(writeMode) + ".dck");
        ASSERT_EQ(out.Write(path.c_str(), 0, writeMode), 1);
        for (int readMode : {1, 2, 3, 7}) {
            SCOPED_TRACE(testing::Message() << "write " << writeMode << " read " << readMode);
            DictChunk in;
            in.SetModeAndLimit(readMode, 0);
            ASSERT_EQ(in.ReadAll(path.c_str()), 1);
            ASSERT_EQ(in.count, 3);
            for (int p = 0; p < 3; ++p) {
                const DicPrim& prim = in.prims[p];
                ASSERT_EQ(prim.mode, readMode);
                ASSERT_EQ(prim.count, 4);
                ASSERT_EQ(prim.dim, 37);
                EXPECT_EQ(in.nanFlags[p], 0);
                for (int k = 0; k < 4; ++k)
                    for (int i = 0; i < 37; ++i) ASSERT_EQ(ValueIn(prim, k, i), ValueOf(p, k, i));
            }
        }
    }
}

TEST(DictChunk, PaddedModesRoundTheRowLengthUp) {
    DicPrim shorts(33, 2, 3), aligned(33, 2, 7), plain(33, 2, 2);
    EXPECT_EQ(shorts.paddedLength, 64);
    EXPECT_EQ(aligned.paddedLength, 48);
    EXPECT_EQ(plain.paddedLength, 33);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(shorts.srows[1]) % 32, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned.arows[1]) % 16, 0u);
    EXPECT_EQ(shorts.srows[1][63], 0);
    EXPECT_EQ(shorts.srows[2], nullptr);  // terminator
}

TEST(DictChunk, FileLayoutIsTheRecordFormat) {
    ScratchDir dir;
    DictChunk out;
    Fill(out, 2, 3, 5, 2);
    std::string path = dir.File("a.dck");
    ASSERT_EQ(out.Write(path.c_str(), 2, 2), 1);
    std::vector<unsigned char> b = ReadBytes(path);
    ASSERT_EQ(b.size(), 7u + 2 * (16 + 4 * 2 * 5));
    EXPECT_EQ(std::string(b.begin(), b.begin() + 3), "DCK");
    EXPECT_EQ(Int32At(b, 3), 2);
    EXPECT_EQ(Int32At(b, 7), 12 + 4 * 2 * 5);  // S counts the bytes after it
    EXPECT_EQ(Int32At(b, 11), 2);              // writer's mode
    EXPECT_EQ(Int32At(b, 15), 2);              // vectors written under the limit
    EXPECT_EQ(Int32At(b, 19), 5);
    float first;
    std::memcpy(&first, b.data() + 23, 4);
    EXPECT_EQ(first, ValueOf(0, 0, 0));
}

TEST(DictChunk, VectorLimitKeepsTheNextRecordInPlace) {
    ScratchDir dir;
    std::string path = dir.File("limit.dck");
    WriteBytes(path, DckBytes({{30, 8}, {30, 8}}));
    DictChunk in;
    in.SetModeAndLimit(2, 20);
    ASSERT_EQ(in.ReadAll(path.c_str()), 1);
    for (int p = 0; p < 2; ++p) {
        ASSERT_EQ(in.prims[p].count, 20);
        for (int k = 0; k < 20; ++k)
            for (int i = 0; i < 8; ++i) ASSERT_EQ(in.prims[p].frows[k][i], ValueOf(p, k, i));
    }
}

TEST(DictChunk, NaNZeroesItsPrimitiveOnly) {
    std::vector<unsigned char> b = DckBytes({{3, 4}, {3, 4}});
    float nan = std::numeric_limits<float>::quiet_NaN();
    std::memcpy(b.data() + 7 + 16 + 4 * 6, &nan, 4);  // vector 1, component 2 of record 0
    for (int mode : {2, 7}) {
        DictChunk in;
        in.SetModeAndLimit(mode, 0);
        ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 1);
        EXPECT_EQ(in.nanFlags[0], 1);
        EXPECT_EQ(in.prims[0].nanFlag, 1);
        EXPECT_EQ(in.nanFlags[1], 0);
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(ValueIn(in.prims[0], k, i), 0.0f);
                EXPECT_EQ(ValueIn(in.prims[1], k, i), ValueOf(1, k, i));
            }
    }
    DicPrim single;
    msm::ByteReader reader(b.data() + 11, b.size() - 11);
    EXPECT_EQ(single.ReadRecord(reader, 0, 2), 2);
}

TEST(DictChunk, FixedPointTruncatesTowardZeroAndWrapsLikeTheProcessor) {
    EXPECT_EQ(msm::toQ14(0.99999), 16383);
    EXPECT_EQ(msm::toQ14(-0.99999), -16383);
    EXPECT_EQ(msm::toQ14(-0.5), -8192);
    EXPECT_EQ(msm::toQ14(3.0), -16384);  // 49152 keeps its low 16 bits
    EXPECT_EQ(msm::toQ14(1e10), 0);
    EXPECT_EQ(msm::toQ14(std::nan("")), 0);
}

TEST(DictChunk, ReadOneSkipsRecordsAndLeavesTheOthersEmpty) {
    std::vector<unsigned char> b = DckBytes({{2, 3}, {4, 3}, {1, 3}});
    DictChunk in;
    in.SetModeAndLimit(2, 0);
    ASSERT_EQ(in.ReadBytes(b.data(), b.size(), 2, 1, 2), 1);
    ASSERT_EQ(in.count, 3);
    EXPECT_EQ(in.prims[0].count, 0);
    ASSERT_EQ(in.prims[2].count, 4);
    EXPECT_EQ(in.prims[2].frows[3][2], ValueOf(1, 3, 2));
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 2, 0, 3), 0);  // index past the count
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 2, 3, 0), 0);  // skips past the end
    EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 2, -1, 0), 0);
    EXPECT_EQ(in.count, 0);
}

TEST(DictChunk, MalformedFilesAreRejectedAndLeaveTheChunkUsable) {
    std::vector<unsigned char> good = DckBytes({{2, 3}, {1, 5}});
    DictChunk in;
    in.SetModeAndLimit(2, 0);
    for (std::size_t n = 0; n < good.size(); ++n) {
        ASSERT_EQ(in.ReadBytes(good.data(), n, 1, 0, 0), 0) << "prefix of " << n << " bytes";
        ASSERT_EQ(in.count, 0);
        ASSERT_EQ(in.prims, nullptr);
    }
    auto patched = [&](std::size_t at, int32_t v) {
        std::vector<unsigned char> b = good;
        std::memcpy(b.data() + at, &v, 4);
        return b;
    };
    std::vector<std::vector<unsigned char>> bad = {
        patched(3, 0x7fffffff),                               // primitive count beyond the file
        patched(3, -1),          patched(7, 12 + 4 * 6 + 4),  // size field that lies
        patched(15, -2),                                      // negative vector count
        patched(15, 0x40000000),                              // vector count beyond the file
        patched(19, 0x7fffffff),                              // dimension beyond the file
        patched(19, 0),                                       // vectors of no values
    };
    bad.push_back(good);
    bad.back()[2] = 'X';
    for (const auto& b : bad) {
        EXPECT_EQ(in.ReadBytes(b.data(), b.size(), 1, 0, 0), 0);
        EXPECT_EQ(in.count, 0);
    }
    ASSERT_EQ(in.ReadBytes(good.data(), good.size(), 1, 0, 0), 1);
    EXPECT_EQ(in.prims[1].frows[0][4], ValueOf(1, 0, 4));
    // No vectors of a huge dimension: nothing to hold, so nothing may be allocated for it.
    std::vector<unsigned char> empty = DckBytes({{0, 1}});
    std::memcpy(empty.data() + 19, "\xff\xff\xff\x7f", 4);
    ASSERT_EQ(in.ReadBytes(empty.data(), empty.size(), 1, 0, 0), 1);
    EXPECT_EQ(in.prims[0].count, 0);
    EXPECT_EQ(in.ReadAll("/nonexistent/x.dck"), 0);
}

TEST(DictChunk, CopyIsDeepAndCarriesTagsAndFixedRows) {
    DictChunk a;
    Fill(a, 2, 3, 40, 2);
    ASSERT_EQ(a.prims[1].PrepareQ14Rows(), 1);
    EXPECT_EQ(a.prims[1].qLength, 64);
    EXPECT_EQ(a.prims[1].qrows[2][5], msm::toQ14(ValueOf(1, 2, 5)));
    EXPECT_EQ(a.prims[1].qrows[2][50], 0);
    DictChunk b;
    ASSERT_EQ(b.CopyFrom(a), 1);
    a.prims[1].frows[0][0] = 99.0f;
    a.Release();
    ASSERT_EQ(b.count, 2);
    EXPECT_EQ(b.tags[1], 101);
    EXPECT_EQ(b.prims[1].frows[0][0], ValueOf(1, 0, 0));
    ASSERT_NE(b.prims[1].qrows, nullptr);
    EXPECT_EQ(b.prims[1].qrows[2][5], msm::toQ14(ValueOf(1, 2, 5)));
    EXPECT_EQ(b.CopyFrom(b), 1);
    EXPECT_EQ(b.count, 2);
}

TEST(DictChunk, WritesThatCannotCompleteFail) {
    ScratchDir dir;
    DictChunk chunk;
    Fill(chunk, 1, 2, 4, 2);
    EXPECT_EQ(chunk.Write(dir.File("missing/a.dck").c_str(), 0, 2), 0);
    EXPECT_EQ(chunk.Write(dir.File("a.dck").c_str(), 0, 3), 0);  // rows of another mode
    ::mkdir(dir.File("isdir.dck").c_str(), 0755);
    EXPECT_EQ(chunk.Write(dir.File("isdir.dck").c_str(), 0, 2), 0);
    ::rmdir(dir.File("isdir.dck").c_str());
    EXPECT_TRUE(dir.Entries().empty());
}

// A disk that fills mid-write: the old file stays whole and no temporary remains.
TEST(DictChunk, FailedWriteKeepsTheOldFile) {
    ScratchDir dir;
    std::string path = dir.File("person.dck");
    DictChunk small;
    Fill(small, 1, 1, 4, 2);
    ASSERT_EQ(small.Write(path.c_str(), 0, 2), 1);
    std::vector<unsigned char> before = ReadBytes(path);

    DictChunk big;
    Fill(big, 5, 20, 256, 2);
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit capped = old;
    capped.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &capped), 0);
    int result = big.Write(path.c_str(), 0, 2);
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, previous);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(ReadBytes(path), before);
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"person.dck"});
}

}  // namespace
