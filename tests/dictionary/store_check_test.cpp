// What check finds in a dictionary directory, and what repair does about it: temporaries removed,
// orphans moved into lost+found, listed persons never lost. Also the registry's reader and the
// report of a write that a full disk refused.
#include <msmface/store.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "io/atomic_file.h"
#include "store/registry.h"
#include "store/store_files.h"
#include "scratch.h"

namespace {

using msmface::StoreProblemKind;
using msmtest::ScratchDir;
using msmtest::WriteBytes;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

void WriteText(const std::string& path, const std::string& text) {
    WriteBytes(path, std::vector<unsigned char>(text.begin(), text.end()));
}

// A person's .dck and .mck as the engine would read them: five channels of two orthonormal
// vectors of 256 values.
void WritePerson(const std::string& dir, const std::string& name) {
    DictChunk chunk;
    ASSERT_EQ(chunk.Allocate(5), 1);
    for (int c = 0; c < chunk.count; ++c) {
        ASSERT_EQ(chunk.prims[c].Allocate(256, 2, kDicPrimFloat), 1);
        chunk.prims[c].frows[0][c] = 1;
        chunk.prims[c].frows[1][c + 1] = 1;
    }
    ASSERT_EQ(chunk.Write((dir + "/" + name + ".dck").c_str(), 0, kDicPrimFloat), 1);
    MtrxChunk matrices;
    ASSERT_EQ(matrices.Allocate(1), 1);
    ASSERT_EQ(matrices.prims[0].Allocate(2), 1);
    matrices.prims[0].number = 50;
    ASSERT_EQ(matrices.Write((dir + "/" + name + ".mck").c_str()), 1);
}

std::vector<StoreProblemKind> Kinds(const msmface::StoreReport& r) {
    std::vector<StoreProblemKind> kinds;
    for (const auto& p : r.problems) kinds.push_back(p.kind);
    return kinds;
}

TEST(StoreFiles, OnlyOurOwnTemporariesAreTemporaries) {
    for (const char* ours : {"alice.mck.tmpAb12Z9", "alice.dck.tmp000000", "persons.txt.tmp4711",
                             "constraint.list.tmp12", "cmsm.dckev.tmpQwErTy", "threshold.txt.tmp9",
                             ".msmface-write-check123", "x.bmp.tmp77", "persons.txt.tmpx1Y2z3"})
        EXPECT_TRUE(msm::isOwnTemporaryName(ours)) << ours;
    for (const char* theirs : {"notes.txt.tmp1234", "alice.mck.tmp", "alice.mck.tmpAb12Z",
                               ".tmp123456", "alice.mck.tmpAb-2Z9", "persons.txt", "alice.dck",
                               "report.tmp123456", ".msmface-write-checkx", ".msmface.lock"})
        EXPECT_FALSE(msm::isOwnTemporaryName(theirs)) << theirs;
    EXPECT_EQ(msm::personStemOf("a.b.dck"), "a.b");
    EXPECT_EQ(msm::personStemOf(".dck"), "");
    EXPECT_EQ(msm::personStemOf("persons.txt"), "");
}

TEST(StoreCheck, ACleanDirectoryHasNoProblems) {
    ScratchDir dir;
    WritePerson(dir.path(), "alice");
    WritePerson(dir.path(), "bob");
    WriteText(dir / "persons.txt", "# msmface persons\n1 alice\n2 bob\n");
    WriteText(dir / "notes.md", "a user's own file is none of our business\n");
    const auto r = msmface::checkStore(dir.path());
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->persons, 2);
    EXPECT_TRUE(r->problems.empty()) << r->problems.front().message;
    EXPECT_FALSE(r->damaged());
}

TEST(StoreCheck, ReportsEveryDisagreementAndRepairLosesNoListedPerson) {
    ScratchDir dir;
    for (const char* name : {"alice", "bob", "carol", "ghost"}) WritePerson(dir.path(), name);
    WriteText(dir / "persons.txt", "1 alice\n2 bob\n3 carol\n4 dave\n");
    ::unlink((dir / "bob.mck").c_str());                 // listed, a file missing
    WriteText(dir / "carol.dck", "DCK but not really");  // listed, a file unreadable
    WriteText(dir / "alice.mck.tmpAbCdEf", "half");      // an interrupted write
    // ghost.dck / ghost.mck: an enrolment that never reached the registry; dave: no files at all.

    const auto r = msmface::checkStore(dir.path());
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->persons, 4);
    EXPECT_THAT(Kinds(*r),
                ElementsAre(StoreProblemKind::MissingFiles, StoreProblemKind::MissingFiles,
                            StoreProblemKind::MissingFiles, StoreProblemKind::UnreadableFile,
                            StoreProblemKind::Orphan, StoreProblemKind::Orphan,
                            StoreProblemKind::Temporary));
    EXPECT_EQ(r->problems[0].path, dir / "bob.mck");
    EXPECT_THAT(r->problems[1].message, HasSubstr("dave.dck: missing; person 4 (dave)"));
    EXPECT_EQ(r->problems[3].path, dir / "carol.dck");
    EXPECT_EQ(r->problems[4].path, dir / "ghost.dck");
    for (const auto& p : r->problems) EXPECT_EQ(p.message.find('\n'), std::string::npos);
    EXPECT_TRUE(r->damaged());

    const auto fixed = msmface::repairStore(dir.path());
    ASSERT_TRUE(fixed.ok()) << fixed.message();
    // The temporary, the orphan's two files, and carol's two files: a listed person whose
    // dictionary does not load has its files put aside, its entry kept.
    EXPECT_THAT(fixed->repaired.size(), 5u);
    EXPECT_TRUE(msmtest::ReadBytes(dir / "lost+found/ghost.dck").size() > 0);
    EXPECT_TRUE(msmtest::ReadBytes(dir / "lost+found/ghost.mck").size() > 0);
    EXPECT_EQ(msmtest::ReadBytes(dir / "lost+found/carol.dck").size(), 18u);
    EXPECT_TRUE(msmtest::ReadBytes(dir / "lost+found/carol.mck").size() > 0);
    EXPECT_FALSE(::access((dir / "alice.mck.tmpAbCdEf").c_str(), F_OK) == 0);
    // What only the user can decide stays reported; the registry keeps every entry.
    EXPECT_THAT(Kinds(*fixed),
                ElementsAre(StoreProblemKind::MissingFiles, StoreProblemKind::MissingFiles,
                            StoreProblemKind::MissingFiles, StoreProblemKind::MissingFiles,
                            StoreProblemKind::MissingFiles));
    std::vector<msmface::Person> listed;
    EXPECT_EQ(msmface::detail::loadRegistry(dir.path(), listed), "");
    EXPECT_EQ(listed.size(), 4u);

    // A second orphan of the same name does not overwrite the first in lost+found.
    WritePerson(dir.path(), "ghost");
    ASSERT_TRUE(msmface::repairStore(dir.path()).ok());
    EXPECT_TRUE(::access((dir / "lost+found/ghost.dck.1").c_str(), F_OK) == 0);
}

// lost+found as a link to a folder elsewhere (or as a file): a repair moves nothing out of the
// directory, and check and repair both say why in one line.
TEST(StoreCheck, RepairMovesFilesOnlyIntoARealLostAndFound) {
    ScratchDir dir, outside;
    WritePerson(dir.path(), "alice");
    WritePerson(dir.path(), "ghost");
    WriteText(dir / "persons.txt", "1 alice\n");
    ASSERT_EQ(::symlink(outside.path().c_str(), (dir / "lost+found").c_str()), 0);
    const auto r = msmface::checkStore(dir.path());
    ASSERT_TRUE(r.ok()) << r.message();
    bool named = false;
    for (const auto& p : r->problems)
        named = named || (p.path == dir / "lost+found" &&
                          p.message == dir / "lost+found" +
                                           ": expected a folder of the directory, found a "
                                           "symbolic link; a repair moves nothing until it is "
                                           "moved away");
    EXPECT_TRUE(named);
    const auto refused = msmface::repairStore(dir.path());
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.status().kind(), msmface::ErrorKind::File);
    EXPECT_THAT(refused.message(), HasSubstr(dir / "lost+found: expected a folder"));
    EXPECT_EQ(refused.message().find('\n'), std::string::npos);
    EXPECT_TRUE(outside.Entries().empty());
    EXPECT_TRUE(::access((dir / "ghost.dck").c_str(), F_OK) == 0);

    ::unlink((dir / "lost+found").c_str());
    WriteText(dir / "lost+found", "a file of the user's\n");
    EXPECT_FALSE(msmface::repairStore(dir.path()).ok());
    EXPECT_TRUE(::access((dir / "ghost.mck").c_str(), F_OK) == 0);

    ::unlink((dir / "lost+found").c_str());
    const auto fixed = msmface::repairStore(dir.path());
    ASSERT_TRUE(fixed.ok()) << fixed.message();
    EXPECT_THAT(fixed->repaired,
                ElementsAre("moved " + dir / "ghost.dck" + " to " + dir / "lost+found/ghost.dck",
                            "moved " + dir / "ghost.mck" + " to " + dir / "lost+found/ghost.mck"));
    EXPECT_TRUE(outside.Entries().empty());
}

// A listed person's picture as a pipe or as a link elsewhere: named as such, and the check
// neither hangs on the pipe nor reads the link's target.
TEST(StoreCheck, APictureThatIsAPipeOrALinkIsNamedWithoutBeingRead) {
    ScratchDir dir, outside;
    WritePerson(dir.path(), "alice");
    WritePerson(dir.path(), "bob");
    WriteText(dir / "persons.txt", "1 alice\n2 bob\n");
    ASSERT_EQ(::mkfifo((dir / "alice.bmp").c_str(), 0644), 0);
    WriteText(outside / "picture.bmp", std::string("BM\x08\0\0\0xx", 8));
    ASSERT_EQ(::symlink((outside / "picture.bmp").c_str(), (dir / "bob.bmp").c_str()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);  // a check that hangs on the pipe is ended here, and fails the test
        const auto r = msmface::checkStore(dir.path());
        std::vector<std::string> lines;
        for (const auto& p : r->problems)
            if (p.kind == StoreProblemKind::UnreadableFile) lines.push_back(p.message);
        const bool ok =
            r.ok() && lines.size() == 2 &&
            lines[0] == dir / "alice.bmp" + ": cannot be read (is a FIFO, not a file)" &&
            lines[1] == dir / "bob.bmp" +
                            ": expected a BMP picture in a file of the directory, found a "
                            "symbolic link";
        for (const std::string& line : lines)
            if (!ok) std::fprintf(stderr, "%s\n", line.c_str());
        ::_exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "the check hung on the pipe";
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
}

TEST(StoreCheck, ConstraintFilesMustLoadAndBelongToTheDirectory) {
    ScratchDir dir;
    WritePerson(dir.path(), "alice");
    WriteText(dir / "persons.txt", "1 alice\n");
    WriteText(dir / "constraint.list", "1\n1\nCMSML /elsewhere/cmsm 10 /elsewhere/cmsm\n");
    auto r = msmface::checkStore(dir.path());
    ASSERT_TRUE(r.ok());
    ASSERT_FALSE(r->problems.empty());
    EXPECT_EQ(r->problems[0].kind, StoreProblemKind::Constraint);
    EXPECT_THAT(r->problems[0].message,
                HasSubstr("/elsewhere/cmsm, which is not in this directory"));

    WriteText(dir / "constraint.list", "garbage\n");
    r = msmface::checkStore(dir.path());
    ASSERT_EQ(r->problems.size(), 1u);
    EXPECT_THAT(r->problems[0].message, HasSubstr("constraint.list: expected a constraint list"));

    // The files of a rebuild that never wrote its list are leftovers.
    ::unlink((dir / "constraint.list").c_str());
    WriteText(dir / "cmsm.dck", "x");
    r = msmface::checkStore(dir.path());
    ASSERT_EQ(r->problems.size(), 1u);
    EXPECT_EQ(r->problems[0].kind, StoreProblemKind::Orphan);
}

TEST(StoreCheck, ADirectoryWithoutRegistryHasNoOrphansAndAMissingOneIsNotFound) {
    ScratchDir dir;
    WritePerson(dir.path(), "legacy");  // a legacy host keeps no registry
    auto r = msmface::checkStore(dir.path());
    ASSERT_TRUE(r.ok());
    EXPECT_TRUE(r->problems.empty());
    r = msmface::checkStore(dir / "nowhere");
    EXPECT_EQ(r.status().kind(), msmface::ErrorKind::NotFound);
    EXPECT_THAT(r.message(), HasSubstr("nowhere: expected a dictionary directory"));
}

// A full disk (here: the file size limit, whose signal is ignored as a host would) refuses a
// replacement: the old file stays, no temporary stays, and the failure names the file and why.
TEST(WriteFailure, AFileSizeLimitLeavesTheOldFileAndNamesTheNewOne) {
    ScratchDir dir;
    const std::string target = dir / "big.dck";
    WriteText(target, "old");
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        msm::clearWriteFailure();
        msm::AtomicFile file(target.c_str());
        std::vector<char> bytes(100000, 'x');
        const bool wrote =
            file.stream() != nullptr && msm::writeAll(file.stream(), bytes.data(), bytes.size());
        const bool committed = file.Commit();
        const std::string why = msm::lastWriteFailure();
        const bool named = why == target + ": cannot be written (File too large)";
        ::_exit(!wrote && !committed && named ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_THAT(dir.Entries(), ElementsAre("big.dck"));
    const auto kept = msmtest::ReadBytes(target);
    EXPECT_EQ(std::string(kept.begin(), kept.end()), "old");
}

// A writer that opens the file by name (a video encoder) gets a temporary that keeps the ending it
// reads the format from; only Commit puts the bytes in the target's place, through a link too.
TEST(WriteFailure, ANamedWritersFileReplacesTheTargetOnlyOnCommit) {
    ScratchDir dir;
    const std::string target = dir / "clip.avi";
    const std::string elsewhere = dir / "elsewhere.avi";
    WriteText(elsewhere, "theirs");
    ASSERT_EQ(::symlink(elsewhere.c_str(), target.c_str()), 0);
    {
        msm::AtomicFile dropped(target.c_str(), msm::AtomicFile::NamedWriter{});
        ASSERT_FALSE(dropped.temporaryPath().empty());
        WriteText(dropped.temporaryPath(), "half");
    }
    EXPECT_THAT(dir.Entries(), ElementsAre("clip.avi", "elsewhere.avi"));
    msm::AtomicFile file(target.c_str(), msm::AtomicFile::NamedWriter{});
    const std::string temp = file.temporaryPath();
    ASSERT_GE(temp.size(), 4u);
    EXPECT_EQ(temp.substr(temp.size() - 4), ".avi");
    EXPECT_EQ(temp.substr(0, dir.path().size() + 2), dir.path() + "/.");
    WriteText(temp, "frames");
    ASSERT_TRUE(file.Commit());
    EXPECT_THAT(dir.Entries(), ElementsAre("clip.avi", "elsewhere.avi"));
    const auto written = msmtest::ReadBytes(target);
    EXPECT_EQ(std::string(written.begin(), written.end()), "frames");
    const auto kept = msmtest::ReadBytes(elsewhere);
    EXPECT_EQ(std::string(kept.begin(), kept.end()), "theirs");
    // A folder in the target's place is not replaced.
    ASSERT_EQ(::mkdir((dir / "folder.avi").c_str(), 0755), 0);
    msm::clearWriteFailure();
    msm::AtomicFile refused((dir / "folder.avi").c_str(), msm::AtomicFile::NamedWriter{});
    EXPECT_TRUE(refused.temporaryPath().empty());
    EXPECT_FALSE(refused.Commit());
    EXPECT_THAT(msm::lastWriteFailure(), HasSubstr("not a regular file"));
}

}  // namespace
