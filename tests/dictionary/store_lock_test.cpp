// The directory lock: writers exclude each other, a waiter learns whom it waits for, a process that
// died never blocks anyone, and readers share.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_lock.h"
#include "scratch.h"

namespace {

using msm::DirectoryLock;
using msm::LockHolder;
using msm::LockMode;
using msm::LockWait;
using msmface::ErrorKind;
using msmtest::ScratchDir;
using ::testing::HasSubstr;

const LockWait kNoWait{false, {}};

// A child that takes dir's lock, tells the parent through a pipe, then sleeps (or is killed).
pid_t ChildHolding(const std::string& dir, LockMode mode, int holdMilliseconds) {
    int ready[2];
    if (::pipe(ready) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(ready[0]);
        DirectoryLock lock;
        const bool ok = DirectoryLock::acquire(dir, mode, {}, lock).ok();
        const char c = ok ? '1' : '0';
        (void)!::write(ready[1], &c, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(holdMilliseconds));
        ::_exit(ok ? 0 : 1);
    }
    ::close(ready[1]);
    char c = 0;
    (void)!::read(ready[0], &c, 1);
    ::close(ready[0]);
    return c == '1' ? pid : -1;
}

int ExitCode(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LockHolderText, RoundTripsAndRefusesAnythingElse) {
    LockHolder in{4242, "box1", "msmface enrol faces --id 3"};
    LockHolder out;
    ASSERT_TRUE(msm::parseLockHolder(msm::formatLockHolder(in), out));
    EXPECT_EQ(out.pid, 4242);
    EXPECT_EQ(out.host, "box1");
    EXPECT_EQ(out.command, "msmface enrol faces --id 3");

    // An unknown host is written as "-" and read back as empty; control characters never reach
    // the file.
    ASSERT_TRUE(msm::parseLockHolder(msm::formatLockHolder({7, "", "a\tb\nc"}), out));
    EXPECT_EQ(out.host, "");
    EXPECT_EQ(out.command, "a?b?c");

    for (const char* bad : {"", "\n", "12", "12 host cmd", "0 host cmd\n", "-3 host cmd\n",
                            "99999999999 host cmd\n", "12host cmd\n", "12  cmd\n",
                            "12 host cmd\nmore\n", "12 host c\x01md\n", "x12 host cmd\n"})
        EXPECT_FALSE(msm::parseLockHolder(bad, out)) << bad;
    EXPECT_FALSE(msm::parseLockHolder("1 h " + std::string(300, 'c') + "\n", out));
}

TEST(DirectoryLock, SecondWriterIsRefusedWithTheHolderWhenItWillNotWait) {
    ScratchDir dir;
    DirectoryLock first;
    ASSERT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, {}, first).ok());
    EXPECT_TRUE(first.held());
    EXPECT_THAT(msm::describeLockHolder(dir.path()),
                HasSubstr("PID " + std::to_string(::getpid())));

    DirectoryLock second;
    const msmface::Status s =
        DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, second);
    EXPECT_EQ(s.kind(), ErrorKind::Busy);
    EXPECT_THAT(s.message(), HasSubstr(dir.path() + ": the dictionary directory is locked by PID " +
                                       std::to_string(::getpid())));
    EXPECT_EQ(s.message().find('\n'), std::string::npos);
    EXPECT_FALSE(second.held());

    // Readers wait for a writer too.
    EXPECT_EQ(DirectoryLock::acquire(dir.path(), LockMode::Shared, kNoWait, second).kind(),
              ErrorKind::Busy);
    first.release();
    EXPECT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, second).ok());
    // A finished writer is named nowhere.
    second.release();
    EXPECT_EQ(msm::describeLockHolder(dir.path()), "");
}

TEST(DirectoryLock, ReadersShareAndKeepWritersOut) {
    ScratchDir dir;
    DirectoryLock a, b, w;
    ASSERT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Shared, kNoWait, a).ok());
    ASSERT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Shared, kNoWait, b).ok());
    EXPECT_EQ(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, w).kind(),
              ErrorKind::Busy);
    a.release();
    b.release();
    EXPECT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, w).ok());
}

TEST(DirectoryLock, AWaiterIsToldWhomItWaitsForAndGetsTheLockWhenReleased) {
    ScratchDir dir;
    const pid_t child = ChildHolding(dir.path(), LockMode::Exclusive, 300);
    ASSERT_GT(child, 0);
    std::vector<std::string> notices;
    DirectoryLock lock;
    const auto start = std::chrono::steady_clock::now();
    const msmface::Status s = DirectoryLock::acquire(
        dir.path(), LockMode::Exclusive,
        LockWait{true, [&](const std::string& m) { notices.push_back(m); }}, lock);
    const auto waited = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(s.ok()) << s.message();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_THAT(notices[1], HasSubstr("got the lock on " + dir.path() + " after 0."));
    EXPECT_THAT(notices[0], HasSubstr("waiting for the lock on " + dir.path() + " held by PID " +
                                      std::to_string(child)));
    // It waited for the child rather than taking the lock beside it.
    EXPECT_GE(waited, std::chrono::milliseconds(100));
    EXPECT_EQ(ExitCode(child), 0);
}

TEST(DirectoryLock, AKilledHolderNeverBlocks) {
    ScratchDir dir;
    const pid_t child = ChildHolding(dir.path(), LockMode::Exclusive, 60000);
    ASSERT_GT(child, 0);
    DirectoryLock lock;
    EXPECT_EQ(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock).kind(),
              ErrorKind::Busy);
    ::kill(child, SIGKILL);
    ExitCode(child);
    // Its PID is still in the file; only the kernel's lock counts.
    EXPECT_THAT(msm::describeLockHolder(dir.path()), HasSubstr("PID " + std::to_string(child)));
    const msmface::Status s =
        DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock);
    EXPECT_TRUE(s.ok()) << s.message();
}

// A writer rewrites the lock file's text: a lock file that is another file's second name would
// have that file truncated. Refused with one line, and nothing is written.
TEST(DirectoryLock, AWriterRefusesALockFileThatIsNotTheDirectorysOwn) {
    ScratchDir dir, outside;
    const std::string victim = outside / "victim";
    msmtest::WriteBytes(victim, {'k', 'e', 'e', 'p', '\n'});
    ASSERT_EQ(::link(victim.c_str(), (dir / ".msmface.lock").c_str()), 0);
    DirectoryLock lock;
    const msmface::Status s =
        DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock);
    EXPECT_EQ(s.kind(), ErrorKind::File);
    EXPECT_THAT(s.message(),
                HasSubstr(dir / ".msmface.lock" + ": expected the directory's own lock file"));
    EXPECT_THAT(s.message(), HasSubstr("found a file with 2 names"));
    EXPECT_EQ(s.message().find('\n'), std::string::npos);
    EXPECT_FALSE(lock.held());
    EXPECT_EQ(msmtest::ReadBytes(victim), (std::vector<unsigned char>{'k', 'e', 'e', 'p', '\n'}));
    // Readers write nothing and may share it.
    EXPECT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Shared, kNoWait, lock).ok());
    lock.release();
    EXPECT_EQ(msmtest::ReadBytes(victim).size(), 5u);
    // A link to a file elsewhere is not opened at all.
    ::unlink((dir / ".msmface.lock").c_str());
    ASSERT_EQ(::symlink(victim.c_str(), (dir / ".msmface.lock").c_str()), 0);
    EXPECT_FALSE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock).ok());
    EXPECT_EQ(msmtest::ReadBytes(victim).size(), 5u);
    // Its own file again: taken, and released empty.
    ::unlink((dir / ".msmface.lock").c_str());
    ASSERT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock).ok());
}

TEST(DirectoryLock, AnotherUsersLockFileLocksWritersWithoutBeingWritten) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to give the lock file to another user";
    ScratchDir dir;
    const std::string path = dir / ".msmface.lock";
    msmtest::WriteBytes(path, {'t', 'h', 'e', 'i', 'r', 's', '\n'});
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    DirectoryLock lock;
    ASSERT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, lock).ok());
    EXPECT_TRUE(lock.held());
    // Held: a second writer is told the directory is busy.
    DirectoryLock second;
    EXPECT_EQ(DirectoryLock::acquire(dir.path(), LockMode::Exclusive, kNoWait, second).kind(),
              ErrorKind::Busy);
    lock.release();
    EXPECT_EQ(msmtest::ReadBytes(path),
              (std::vector<unsigned char>{'t', 'h', 'e', 'i', 'r', 's', '\n'}));
}

TEST(DirectoryLock, ReadOnlyDirectoryRefusesWritersAndLetsReadersThrough) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
    ScratchDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
    DirectoryLock lock;
    const msmface::Status s = DirectoryLock::acquire(dir.path(), LockMode::Exclusive, {}, lock);
    EXPECT_EQ(s.kind(), ErrorKind::File);
    EXPECT_THAT(s.message(),
                HasSubstr(dir.path() + ": cannot write in the dictionary directory ("));
    EXPECT_TRUE(DirectoryLock::acquire(dir.path(), LockMode::Shared, {}, lock).ok());
    EXPECT_FALSE(lock.held());
    ::chmod(dir.path().c_str(), 0755);
}

}  // namespace
