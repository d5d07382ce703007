// The description of data files: every kind the engine writes is recognised and described with
// the sizes it holds, the caller's buffer is never overrun, and files that are not what they
// claim are refused with a reason naming the file.
#include <msmface/FileSummary.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dictionary/CCOVImage.h"
#include "dictionary/CCSDImage.h"
#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "scratch.h"

namespace {

using msmtest::ReadBytes;
using msmtest::ScratchDir;
using msmtest::WriteBytes;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The whole description, or the reason prefixed with "failed: ".
std::string Describe(const std::string& path) {
    const int needed = msmface_describeFile(path.c_str(), nullptr, 0);
    const int length = needed >= 0 ? needed : -needed - 1;
    std::vector<char> text(static_cast<std::size_t>(length) + 1, 'x');
    const int again = msmface_describeFile(path.c_str(), text.data(), length + 1);
    EXPECT_EQ(again, needed);
    return (needed >= 0 ? "" : "failed: ") + std::string(text.data());
}

void WriteDictionary(const std::string& path, int sets, int vectors, int dim) {
    DictChunk chunk;
    ASSERT_EQ(chunk.Allocate(sets), 1);
    for (int s = 0; s < sets; ++s) {
        ASSERT_EQ(chunk.prims[s].Allocate(dim, vectors, kDicPrimFloat), 1);
        // Vector k has length k + 1: lengths tell the rows apart in the description.
        for (int k = 0; k < vectors; ++k) chunk.prims[s].frows[k][0] = static_cast<float>(k + 1);
    }
    ASSERT_EQ(chunk.Write(path.c_str(), 0, kDicPrimFloat), 1);
}

TEST(FileSummary, DescribesEveryKindWithItsSizes) {
    ScratchDir dir;
    WriteDictionary(dir.File("alice.dck"), 5, 20, 256);
    EXPECT_THAT(Describe(dir.File("alice.dck")),
                AllOf(HasSubstr("dictionary chunk file"), HasSubstr(": 5 sets"),
                      HasSubstr("set 4: 20 vectors of 256 values"),
                      HasSubstr("lengths 1.0000 2.0000 3.0000 4.0000 5.0000 ...")));

    WriteDictionary(dir.File("space.dckev"), 2, 3, 1);
    EXPECT_THAT(Describe(dir.File("space.dckev")),
                AllOf(HasSubstr("eigenvalue file"), HasSubstr("values 1 2 3 (sum 6)")));

    MtrxChunk matrices;
    ASSERT_EQ(matrices.Allocate(1), 1);
    ASSERT_EQ(matrices.prims[0].Allocate(3), 1);
    const float packed[6] = {1, 9, -12, 2, 0, 3};  // trace 6, largest |element| 12
    std::copy(packed, packed + 6, matrices.prims[0].elements);
    matrices.prims[0].number = 50;
    ASSERT_EQ(matrices.Write(dir.File("alice.mck").c_str()), 1);
    EXPECT_THAT(Describe(dir.File("alice.mck")),
                AllOf(HasSubstr("1 matrix"), HasSubstr("order 3, number 50"),
                      HasSubstr("trace 6, largest |element| 12")));

    CCSDImage vectors;
    ASSERT_EQ(vectors.Allocate(0, 0, 4, 2, 2), 1);
    vectors.frows[0][0] = 3;
    vectors.frows[0][1] = 4;
    ASSERT_EQ(vectors.WriteBinary(dir.File("cs.bin").c_str(), 0, 2), 1);
    EXPECT_THAT(Describe(dir.File("cs.bin")),
                AllOf(HasSubstr("binary, float"), HasSubstr("2 vectors of 4 values"),
                      HasSubstr("vector 0: length 5")));
    ASSERT_EQ(vectors.WriteText(dir.File("space.CS").c_str(), 0, 2), 1);
    EXPECT_THAT(Describe(dir.File("space.CS")), HasSubstr("(\"CS\", text): 2 vectors"));

    CCOVImage cov;
    ASSERT_EQ(cov.Allocate(2), 1);
    cov.elements[0] = 2;
    cov.elements[1] = -7;
    cov.elements[2] = 5;
    cov.number = 12;
    cov.matrixNumber = 3;
    ASSERT_EQ(cov.WriteBinary(dir.File("m.bin").c_str()), 1);
    EXPECT_THAT(Describe(dir.File("m.bin")),
                AllOf(HasSubstr("binary \"MOV\""), HasSubstr("order 2, number 12"),
                      HasSubstr("matrix number 3"), HasSubstr("trace 7, largest |element| 7")));
    ASSERT_EQ(cov.WriteText(dir.File("m.cov").c_str()), 1);
    EXPECT_THAT(Describe(dir.File("m.cov")), HasSubstr("matrix file (text): order 2"));
}

TEST(FileSummary, ShortBuffersGetAPrefixAndTheFullLength) {
    ScratchDir dir;
    WriteDictionary(dir.File("a.dck"), 1, 2, 8);
    const std::string full = Describe(dir.File("a.dck"));
    char small[11];
    std::fill(small, small + sizeof small, '#');
    const int needed = msmface_describeFile(dir.File("a.dck").c_str(), small, 10);
    EXPECT_EQ(needed, static_cast<int>(full.size()));
    EXPECT_EQ(std::string(small), full.substr(0, 9));
    EXPECT_EQ(small[10], '#');  // nothing written past the given capacity
}

TEST(FileSummary, RefusesWhatItCannotReadWithAReasonNamingTheFile) {
    ScratchDir dir;
    EXPECT_THAT(Describe(dir.File("none.dck")),
                AllOf(StartsWith("failed: "), HasSubstr("none.dck"), HasSubstr("cannot be read")));
    EXPECT_THAT(Describe(dir.path()), HasSubstr("cannot be read"));  // a folder

    WriteBytes(dir.File("notes.txt"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_THAT(Describe(dir.File("notes.txt")),
                AllOf(StartsWith("failed: "), HasSubstr("not a recognised file")));

    // A dictionary cut short, and one whose set count promises more than the file holds.
    WriteDictionary(dir.File("cut.dck"), 2, 4, 16);
    std::vector<unsigned char> bytes = ReadBytes(dir.File("cut.dck"));
    bytes.resize(bytes.size() - 5);
    WriteBytes(dir.File("cut.dck"), bytes);
    EXPECT_THAT(Describe(dir.File("cut.dck")),
                AllOf(HasSubstr("cut.dck"), HasSubstr("truncated or malformed"),
                      HasSubstr("dictionary chunk")));
    WriteBytes(dir.File("huge.mck"), {'M', 'C', 'K', 0xff, 0xff, 0xff, 0x7f});
    EXPECT_THAT(Describe(dir.File("huge.mck")), HasSubstr("truncated or malformed"));
    WriteBytes(dir.File("bad.cov"), {'1', ' ', 'x'});
    EXPECT_THAT(Describe(dir.File("bad.cov")), HasSubstr("truncated or malformed"));

    EXPECT_LT(msmface_describeFile(nullptr, nullptr, 0), 0);
}

// The reason as a user who is not the file's owner gets it: root reads everything, so a test run
// as root asks in a child process that became "nobody".
std::string DescribeAsAnotherUser(const std::string& path) {
    char text[512] = {};
    if (::geteuid() != 0) {
        msmface_describeFile(path.c_str(), text, sizeof text);
        return text;
    }
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        if (::setgid(65534) == 0 && ::setuid(65534) == 0)
            msmface_describeFile(path.c_str(), text, sizeof text);
        const ssize_t written = ::write(pipeEnds[1], text, std::strlen(text));
        ::_exit(written < 0 ? 1 : 0);
    }
    ::close(pipeEnds[1]);
    std::string out;
    for (ssize_t n; (n = ::read(pipeEnds[0], text, sizeof text)) > 0;)
        out.append(text, static_cast<std::size_t>(n));
    ::close(pipeEnds[0]);
    ::waitpid(child, nullptr, 0);
    return out;
}

TEST(FileSummary, SaysWhyAFileCannotBeRead) {
    ScratchDir dir;
    EXPECT_EQ(Describe(dir.File("none.dck")),
              "failed: " + dir.File("none.dck") + ": cannot be read (No such file or directory)");
    EXPECT_EQ(Describe(dir.path()),
              "failed: " + dir.path() + ": cannot be read (is a folder, not a file)");
    ASSERT_EQ(::mkfifo(dir.File("pipe.dck").c_str(), 0644), 0);
    EXPECT_EQ(Describe(dir.File("pipe.dck")),
              "failed: " + dir.File("pipe.dck") + ": cannot be read (is a FIFO, not a file)");
    EXPECT_EQ(Describe("/dev/null"), "failed: /dev/null: cannot be read (is a device, not a file)");
    // Sparse: the size is refused before anything is read.
    WriteBytes(dir.File("big.dck"), {'D', 'C', 'K'});
    ASSERT_EQ(::truncate(dir.File("big.dck").c_str(), (1 << 30) + 1), 0);
    EXPECT_EQ(
        Describe(dir.File("big.dck")),
        "failed: " + dir.File("big.dck") + ": cannot be read (1073741825 bytes, more than 1 GiB)");
    WriteBytes(dir.File("locked.dck"), {'D', 'C', 'K'});
    ASSERT_EQ(::chmod(dir.File("locked.dck").c_str(), 0), 0);
    EXPECT_EQ(DescribeAsAnotherUser(dir.File("locked.dck")),
              dir.File("locked.dck") + ": cannot be read (Permission denied)");
}

}  // namespace
