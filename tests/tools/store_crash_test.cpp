// Processes killed in the middle of their work. A child enrols, deletes or rebuilds the constraint
// space and is killed with SIGKILL after a delay drawn from a seeded generator, at hundreds of
// points spread over the whole command. After every kill the directory must still be one a user
// can trust: the registry reads, every listed person has readable files, what was listed before
// and not touched is still listed, and the only leftovers are temporaries and the files of the
// person in flight. The next complete write removes the temporaries, and check --repair leaves
// nothing to report.
//
// MSMFACE_CRASH_POINTS=N runs N kill points (a few hundred by default, fewer under sanitizers);
// MSMFACE_CRASH_SEED=S replays the run that a failure names.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_files.h"
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

#ifdef MSMFACE_TEST_SANITIZED
constexpr long kDefaultPoints = 60;
#else
constexpr long kDefaultPoints = 250;
#endif
constexpr int kVictimId = 9;
constexpr int kCompleteEvery = 25;

long EnvNumber(const char* name, long fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? std::atol(v) : fallback;
}

std::string Name(int id) {
    return id == kVictimId ? "victim" : "person" + std::to_string(id);
}

enum class Op { Enrol, Delete, Constraint };

const char* OpName(Op op) {
    return op == Op::Enrol ? "enrol" : op == Op::Delete ? "delete" : "constraint";
}

class StoreCrash : public ::testing::Test {
  protected:
    void SetUp() override {
        for (int id : {1, 2, 3, kVictimId}) {
            const int index = id == kVictimId ? 4 : id;
            WriteText(frames_ / (Name(id) + ".txt"),
                      clitest::Join(
                          clitest::WriteTake(frames_.path(), Name(id), index, 500 + index, 10)));
            WriteText(frames_ / (Name(id) + "_probe.txt"),
                      clitest::Join(clitest::WriteTake(frames_.path(), Name(id) + "p", index,
                                                       500 + index, 12, 10)));
        }
    }

    std::vector<std::string> Args(Op op) const {
        if (op == Op::Delete) return {"delete", dir_, "--id", std::to_string(kVictimId)};
        if (op == Op::Constraint) return {"constraint", dir_, "--dimension", "20"};
        return {"enrol",    dir_,
                "--id",     std::to_string(kVictimId),
                "--name",   Name(kVictimId),
                "--points", frames_ / (Name(kVictimId) + ".txt"),
                "--copies", "5",
                "--jitter", "1.5"};
    }

    Finished Run(const std::vector<std::string>& args) {
        return Wait(Launch(args, work_ / "complete"));
    }

    // What must hold after any kill: the registry reads and keeps the untouched persons, check
    // finds no damage, and leftovers belong only to the work in flight.
    void ExpectTrustworthy() {
        const std::set<int> ids = ListedIds(dir_);
        for (int id : {1, 2, 3}) EXPECT_TRUE(ids.count(id)) << Name(id) << " was lost";
        for (int id : ids) EXPECT_TRUE(id <= 3 || id == kVictimId) << "unknown ID " << id;
        const auto report = msmface::checkStore(dir_);
        ASSERT_TRUE(report.ok()) << report.message();
        EXPECT_FALSE(report->damaged()) << storetest::Lines(*report);
        for (const auto& p : report->problems) {
            if (p.kind != msmface::StoreProblemKind::Orphan) continue;
            const std::string stem = storetest::StemOf(p.path);
            EXPECT_TRUE(stem == Name(kVictimId) || msm::isConstraintStem(stem)) << p.message;
        }
    }

    // An enrolment refused because files of its name that no entry lists are in its way.
    static bool RefusedForLeftovers(const Finished& f) {
        return f.status == 1 &&
               f.err.find(
                   ": exists, and no person of the registry names it; "
                   "move it away or repair the directory") != std::string::npos;
    }

    void ExpectNoTemporaries() {
        const auto report = msmface::checkStore(dir_);
        ASSERT_TRUE(report.ok()) << report.message();
        EXPECT_FALSE(report->damaged()) << storetest::Lines(*report);
        for (const auto& p : report->problems)
            EXPECT_NE(p.kind, msmface::StoreProblemKind::Temporary) << p.message;
    }

    Scratch frames_{"crashframes"};
    Scratch work_{"crash"};
    std::string dir_ = work_ / "dict";
};

TEST_F(StoreCrash, KilledWritersLeaveADirectoryThatCanBeTrusted) {
    const long points = EnvNumber("MSMFACE_CRASH_POINTS", kDefaultPoints);
    const auto seed = static_cast<uint32_t>(EnvNumber("MSMFACE_CRASH_SEED", 1));
    for (int id : {1, 2, 3}) {
        const Finished f =
            Run({"enrol", dir_, "--id", std::to_string(id), "--name", Name(id), "--points",
                 frames_ / (Name(id) + ".txt"), "--copies", "5", "--jitter", "1.5"});
        ASSERT_EQ(f.status, 0) << f.err;
    }
    // How long each command runs when left alone: the kill points spread over all of it.
    double seconds[3];
    for (Op op : {Op::Enrol, Op::Constraint, Op::Delete}) {
        const Finished f = Run(Args(op));
        ASSERT_EQ(f.status, 0) << OpName(op) << ": " << f.err;
        seconds[static_cast<int>(op)] = f.seconds;
    }
    ExpectNoTemporaries();

    std::mt19937 rng(seed);
    int killed = 0, finished = 0, completes = 0;
    for (long k = 0; k < points && !HasFatalFailure(); ++k) {
        const bool listed = ListedIds(dir_).count(kVictimId) != 0;
        const Op op = k % 3 == 2 ? Op::Constraint : listed ? Op::Delete : Op::Enrol;
        const auto limit = static_cast<long>(1.1e6 * seconds[static_cast<int>(op)]);
        const long delay = std::uniform_int_distribution<long>(0, limit)(rng);
        SCOPED_TRACE("kill point " + std::to_string(k) + " of seed " + std::to_string(seed) + ": " +
                     OpName(op) + " killed after " + std::to_string(delay) + " us");
        const Launched l = Launch(Args(op), work_ / "killed");
        ::usleep(static_cast<useconds_t>(delay));
        ::kill(l.pid, SIGKILL);
        const Finished f = Wait(l);
        if (f.status == -SIGKILL) {
            ++killed;
        } else if (op == Op::Enrol && RefusedForLeftovers(f)) {
            // The files of an enrolment killed before keep the name until a repair moves them.
            ++finished;
            ASSERT_EQ(Run({"check", dir_, "--repair"}).status, 0);
        } else {
            ++finished;
            // A command that finished did all it said.
            EXPECT_EQ(f.status, 0) << f.err;
            if (f.status == 0 && op != Op::Constraint) {
                EXPECT_EQ(ListedIds(dir_).count(kVictimId), op == Op::Enrol ? 1u : 0u);
            }
        }
        ExpectTrustworthy();
        if ((k + 1) % kCompleteEvery == 0) {
            // The next write, left to finish, cleans up after the killed ones.
            Finished next = Run(Args(op == Op::Constraint ? Op::Constraint : Op::Enrol));
            if (RefusedForLeftovers(next)) {
                ASSERT_EQ(Run({"check", dir_, "--repair"}).status, 0);
                next = Run(Args(Op::Enrol));
            }
            if (next.status != 0) {
                EXPECT_THAT(next.err, HasSubstr("is taken"));
            }
            ++completes;
            ExpectNoTemporaries();
        }
    }
    std::printf(
        "[ measured ] %ld kill points (seed %u): %d killed mid-command, %d finished first, "
        "%d complete writes checked; commands ran %.2f s (enrol), %.2f s (constraint), "
        "%.2f s (delete)\n",
        points, seed, killed, finished, completes, seconds[0], seconds[1], seconds[2]);

    const Finished repair = Run({"check", dir_, "--repair"});
    EXPECT_EQ(repair.status, 0) << repair.out << repair.err;
    const auto report = msmface::checkStore(dir_);
    ASSERT_TRUE(report.ok());
    EXPECT_TRUE(report->problems.empty()) << storetest::Lines(*report);
    for (int id : ListedIds(dir_)) {
        const auto r = RunCli("recognise '" + dir_ + "' --points '" +
                              frames_ / (Name(id) + "_probe.txt") + "' --top 1");
        ASSERT_EQ(r.status, 0) << r.err;
        char top[64];
        std::snprintf(top, sizeof top, "   1 %4d  %s ", id, Name(id).c_str());
        EXPECT_THAT(r.out, HasSubstr(top)) << r.out;
    }
}

}  // namespace
