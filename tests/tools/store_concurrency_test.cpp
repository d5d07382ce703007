// Several msmface processes writing one dictionary directory at once. Each used to read the
// registry, add its person and replace the file, so the last writers won and the others' persons
// vanished although their commands said "enrolled". Now every process whose command succeeded
// must find its person listed, loadable and recognised, and nobody else may be listed.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_support.h"

namespace {

using clitest::RunCli;
using clitest::Scratch;
using clitest::WriteText;
using storetest::Finished;
using storetest::Launch;
using storetest::Launched;
using storetest::ListedIds;
using storetest::Wait;
using ::testing::HasSubstr;

constexpr int kPersons = 6;

std::string NameOf(int id) {
    return "person" + std::to_string(id);
}

class StoreConcurrency : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        frames_ = std::make_unique<Scratch>("frames");
        for (int id = 1; id <= kPersons; ++id) {
            const std::string n = NameOf(id);
            WriteText(*frames_ / (n + ".txt"),
                      clitest::Join(clitest::WriteTake(frames_->path(), n, id, 300 + id, 10)));
            WriteText(
                *frames_ / (n + "_probe.txt"),
                clitest::Join(clitest::WriteTake(frames_->path(), n + "p", id, 300 + id, 12, 10)));
        }
    }
    static void TearDownTestSuite() { frames_.reset(); }

    static std::vector<std::string> EnrolArgs(const std::string& dir, int id) {
        return {"enrol",    dir,        "--id",     std::to_string(id),
                "--name",   NameOf(id), "--points", *frames_ / (NameOf(id) + ".txt"),
                "--copies", "5",        "--jitter", "1.5"};
    }

    // Every listed person has readable files (check finds nothing at all) and is the best match
    // of its own fresh frames.
    static void ExpectListedAndRecognised(const std::string& dir, const std::set<int>& ids) {
        EXPECT_EQ(ListedIds(dir), ids);
        const auto report = msmface::checkStore(dir);
        ASSERT_TRUE(report.ok()) << report.message();
        EXPECT_TRUE(report->problems.empty()) << storetest::Lines(*report);
        if (ids.size() < 2) return;
        for (int id : ids) {
            const auto r = RunCli("recognise '" + dir + "' --points '" +
                                  *frames_ / (NameOf(id) + "_probe.txt") + "' --top 1");
            ASSERT_EQ(r.status, 0) << r.err;
            char top[64];
            std::snprintf(top, sizeof top, "   1 %4d  %s ", id, NameOf(id).c_str());
            EXPECT_THAT(r.out, HasSubstr(top)) << r.out;
        }
    }

    // Which of the processes said, within a minute, that they wait for the directory's lock.
    static std::vector<bool> QueuedFor(const std::string& dir,
                                       const std::vector<Launched>& running) {
        const std::string waits = "waiting for the lock on " + dir + " held by ";
        std::vector<bool> queued(running.size(), false);
        for (int tick = 0; tick < 600 && std::count(queued.begin(), queued.end(), false) > 0;
             ++tick) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            for (std::size_t k = 0; k < running.size(); ++k)
                queued[k] = clitest::ReadText(running[k].errPath).find(waits) != std::string::npos;
        }
        return queued;
    }

    static std::unique_ptr<Scratch> frames_;
};

std::unique_ptr<Scratch> StoreConcurrency::frames_;

TEST_F(StoreConcurrency, ProcessesEnrollingAtOnceAreAllListed) {
    Scratch work("conc");
    const std::string dir = work / "dict";  // created by whichever enrolment comes first
    std::vector<Launched> running;
    for (int id = 1; id <= kPersons; ++id)
        running.push_back(Launch(EnrolArgs(dir, id), work / ("enrol" + std::to_string(id))));
    std::set<int> succeeded;
    double slowest = 0, fastest = 1e9, longestWait = 0;
    int waited = 0;
    for (int k = 0; k < kPersons; ++k) {
        const Finished f = Wait(running[k]);
        if (f.status == 0) {
            succeeded.insert(k + 1);
            EXPECT_THAT(f.out, HasSubstr("enrolled " + NameOf(k + 1)));
        } else {
            ADD_FAILURE() << NameOf(k + 1) << " failed: " << f.err;
        }
        if (f.err.find("waiting for the lock on " + dir + " held by PID ") != std::string::npos)
            ++waited;
        // "got the lock on DIR after S s", once per lock the command waited for.
        for (std::size_t at = f.err.find("got the lock on " + dir + " after ");
             at != std::string::npos; at = f.err.find("got the lock on ", at + 1)) {
            const double s = std::atof(f.err.c_str() + f.err.find(" after ", at) + 7);
            longestWait = std::max(longestWait, s);
        }
        slowest = std::max(slowest, f.seconds);
        fastest = std::min(fastest, f.seconds);
    }
    std::printf(
        "[ measured ] %d processes enrolling at once: fastest %.2f s, slowest %.2f s, "
        "%d told whom they waited for, longest wait for a lock %.2f s\n",
        kPersons, fastest, slowest, waited, longestWait);
    ExpectListedAndRecognised(dir, succeeded);
}

// The same with every process queued to write before any of them may: the test holds the lock
// as a reader, which lets each open the directory (and read its empty registry) but not write,
// until each has said that it waits. Then they all add to the registry one after another, each
// having read it before the others wrote.
TEST_F(StoreConcurrency, ProcessesQueuedOnTheLockAreAllListed) {
    Scratch work("queue");
    const std::string dir = work / "dict";
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    msm::DirectoryLock held;
    ASSERT_TRUE(msm::DirectoryLock::acquire(dir, msm::LockMode::Shared, {}, held).ok());
    std::vector<Launched> running;
    for (int id = 1; id <= kPersons; ++id)
        running.push_back(Launch(EnrolArgs(dir, id), work / ("enrol" + std::to_string(id))));
    const std::vector<bool> queued = QueuedFor(dir, running);
    held.release();
    EXPECT_EQ(queued, std::vector<bool>(kPersons, true));
    std::set<int> succeeded;
    for (int k = 0; k < kPersons; ++k) {
        const Finished f = Wait(running[k]);
        EXPECT_EQ(f.status, 0) << NameOf(k + 1) << ": " << f.err;
        EXPECT_THAT(f.out, HasSubstr("enrolled " + NameOf(k + 1)));
        if (f.status == 0) succeeded.insert(k + 1);
    }
    EXPECT_EQ(succeeded.size(), static_cast<std::size_t>(kPersons));
    ExpectListedAndRecognised(dir, succeeded);
}

TEST_F(StoreConcurrency, EnrolmentsRacingDeletionsLoseNobody) {
    Scratch work("race");
    const std::string dir = work / "dict";
    for (int id = 1; id <= 3; ++id) {
        const Finished f = Wait(Launch(EnrolArgs(dir, id), work / ("pre" + std::to_string(id))));
        ASSERT_EQ(f.status, 0) << f.err;
    }
    // Deletions of the first three interleaved with enrolments of the next three, each queued to
    // write (the test holds the lock as a reader) after it read the registry of 1, 2 and 3.
    msm::DirectoryLock held;
    ASSERT_TRUE(msm::DirectoryLock::acquire(dir, msm::LockMode::Shared, {}, held).ok());
    std::vector<int> who;
    std::vector<Launched> running;
    for (int k = 0; k < 3; ++k) {
        const int enrolled = 4 + k, deleted = 1 + k;
        who.push_back(enrolled);
        running.push_back(
            Launch(EnrolArgs(dir, enrolled), work / ("enrol" + std::to_string(enrolled))));
        who.push_back(-deleted);
        running.push_back(Launch({"delete", dir, "--id", std::to_string(deleted)},
                                 work / ("delete" + std::to_string(deleted))));
    }
    const std::vector<bool> queued = QueuedFor(dir, running);
    held.release();
    EXPECT_EQ(queued, std::vector<bool>(running.size(), true));
    std::set<int> expected = {1, 2, 3};
    for (std::size_t k = 0; k < running.size(); ++k) {
        const Finished f = Wait(running[k]);
        EXPECT_EQ(f.status, 0) << f.err;
        if (f.status != 0) continue;
        if (who[k] > 0)
            expected.insert(who[k]);
        else
            expected.erase(-who[k]);
    }
    EXPECT_EQ(expected, (std::set<int>{4, 5, 6}));
    ExpectListedAndRecognised(dir, expected);
    for (int id = 1; id <= 3; ++id) {
        if (expected.count(id)) continue;
        EXPECT_FALSE(clitest::Exists(dir + "/" + NameOf(id) + ".dck"))
            << NameOf(id) << " was deleted but its dictionary stayed";
    }
}

// A writer that will not wait is refused at once with one line while another one writes.
TEST_F(StoreConcurrency, NoWaitFailsAtOnceWithOneLine) {
    Scratch work("nowait");
    const std::string dir = work / "dict";
    ASSERT_EQ(Wait(Launch(EnrolArgs(dir, 1), work / "pre")).status, 0);
    msm::DirectoryLock held;
    ASSERT_TRUE(msm::DirectoryLock::acquire(dir, msm::LockMode::Exclusive, {}, held).ok());
    std::vector<std::string> args = EnrolArgs(dir, 2);
    args.push_back("--no-wait");
    const Finished f = Wait(Launch(args, work / "refused"));
    EXPECT_EQ(f.status, 1);
    EXPECT_THAT(f.err,
                HasSubstr("msmface: " + dir + ": the dictionary directory is locked by PID " +
                          std::to_string(::getpid())));
    EXPECT_EQ(std::count(f.err.begin(), f.err.end(), '\n'), 1) << f.err;
    const Finished d = Wait(Launch({"delete", dir, "--id", "1", "--no-wait"}, work / "refused2"));
    EXPECT_EQ(d.status, 1) << d.err;
    held.release();
    EXPECT_EQ(ListedIds(dir), std::set<int>{1});
}

}  // namespace
