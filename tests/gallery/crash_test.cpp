// A process killed while it enrols or removes never leaves the registry naming a person without
// a complete dictionary: the files come first and the registry last on enrolment, the registry
// first on removal, and every file is replaced atomically.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <msmface/FileSummary.h>

#include "gallery_support.h"

namespace {

using gallerytest::Exists;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using msmface::Gallery;

// The invariant after any interruption: the directory opens, every listed person has readable
// files (the open loads each dictionary), no one is listed without them, and what is listed is
// either the state before the interrupted call or the state after it.
void ExpectConsistent(const std::string& dir, const std::vector<std::string>& before,
                      const std::vector<std::string>& after, const std::string& where) {
    const auto g = Gallery::open(dir);
    ASSERT_TRUE(g.ok()) << where << ": " << g.message();
    EXPECT_TRUE(g->orphans().empty()) << where;
    for (const msmface::Person& p : g->persons()) {
        const std::string dck = dir + "/" + p.name + ".dck";
        char text[256];
        EXPECT_GE(msmface_describeFile(dck.c_str(), text, sizeof text), 0) << where << ": " << text;
        EXPECT_TRUE(Exists(dir + "/" + p.name + ".mck")) << where;
    }
    const std::vector<std::string> listed = gallerytest::Names(g->persons());
    EXPECT_TRUE(listed == before || listed == after)
        << where << ": " << ::testing::PrintToString(listed);
}

// Runs `work` in a child process and kills it with SIGKILL after `delay`, or lets it finish.
// Returns true when the child was killed before it finished.
template <typename Work>
bool RunAndKill(Work work, std::chrono::microseconds delay) {
    const pid_t child = ::fork();
    if (child == 0) {
        work();
        ::_exit(0);
    }
    std::this_thread::sleep_for(delay);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status);
}

// How long the call takes when nobody interrupts it, so the kill points spread across it.
template <typename Work>
std::chrono::microseconds TimeInChild(Work work) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        work();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

TEST(Crash, KilledEnrolmentsAndRemovalsNeverListAPersonWithoutItsDictionary) {
    ScratchDir work;
    const std::string dir = work.path();
    {
        auto g = Gallery::open(dir);
        ASSERT_TRUE(g.ok());
        ASSERT_TRUE(g->enrol(1, "alice", Population::get().enrol[0].samples()).ok());
    }
    const std::vector<std::string> one = {"1 alice"}, two = {"1 alice", "2 bob"};
    const std::vector<msmface::Sample> bob = Population::get().enrol[1].samples();
    auto enrolBob = [&] {
        auto g = Gallery::open(dir);
        if (!g.ok() || !g->enrol(2, "bob", bob).ok()) ::_exit(1);
    };
    auto removeBob = [&] {
        auto g = Gallery::open(dir);
        if (!g.ok() || !g->remove(2).ok()) ::_exit(1);
    };
    // A person whose enrolment or removal was cut off is brought to a known state before the
    // next kill: removed when listed, its unlisted files dropped.
    auto settle = [&] {
        auto g = Gallery::open(dir);
        ASSERT_TRUE(g.ok()) << g.message();
        if (g->find(2)) {
            ASSERT_TRUE(g->remove(2).ok());
        }
        for (const char* ext : {".dck", ".mck", ".bmp", ".dckev"})
            ::unlink((dir + "/bob" + ext).c_str());
    };

    ASSERT_EQ(gallerytest::Names(Gallery::open(dir)->persons()), one);
    constexpr int kPoints = 12;
    // One round of kill points spread over the call's time, as timed just before: the machine's
    // load may change between the timing and the kills, so a round that cut off too few calls is
    // timed and run again. The invariant is checked after every kill, cut off or not.
    auto phase = [&](auto call, auto before, double from, double span, auto prepare,
                     const std::vector<std::string>& listedBefore,
                     const std::vector<std::string>& listedAfter, const char* what) {
        int killed = 0;
        for (int round = 0; round < 4 && killed < kPoints / 4; ++round) {
            prepare();
            const auto time = TimeInChild(call);
            // Uninterrupted, the call does its work.
            EXPECT_EQ(gallerytest::Names(Gallery::open(dir)->persons()), listedAfter) << what;
            settle();
            for (int k = 0; k < kPoints; ++k) {
                before();
                const double f = from + span * k / (kPoints - 1);
                killed += RunAndKill(
                    call, std::chrono::microseconds(static_cast<long long>(f * time.count())));
                ExpectConsistent(dir, listedBefore, listedAfter,
                                 std::string(what) + " killed at point " + std::to_string(k) +
                                     " of round " + std::to_string(round));
                settle();
            }
        }
        return killed;
    };
    auto nothing = [] {};
    auto enrolFirst = [&] { TimeInChild(enrolBob); };
    // Kill points weighted toward the enrolment's end, where the files and the registry are
    // written.
    const int enrolmentsCut = phase(enrolBob, nothing, 0.5, 0.55, nothing, one, two, "enrolment");
    const int removalsCut = phase(removeBob, enrolFirst, 0.0, 1.1, enrolFirst, two, one, "removal");
    // Only a call cut off tests the invariant: each kind must have been cut off.
    EXPECT_GE(enrolmentsCut, 1) << "no enrolment was cut off";
    EXPECT_GE(removalsCut, 1) << "no removal was cut off";
}

TEST(Crash, EnrolmentKilledOnceItsDictionaryIsWrittenLeavesOnlyUnlistedFiles) {
    ScratchDir work;
    const std::string dir = work.path();
    const std::vector<msmface::Sample> bob = Population::get().enrol[1].samples();
    // Kill the moment the dictionary appears (woken by the directory's own change event),
    // before the registry can name it. On a machine so busy that the child still gets to the
    // registry first, the attempt is repeated.
    bool between = false;
    for (int attempt = 0; attempt < 5 && !between; ++attempt) {
        if (auto g = Gallery::open(dir); g.ok() && g->find(2)) {
            ASSERT_TRUE(g->remove(2).ok());
        }
        for (const char* ext : {".dck", ".mck", ".bmp"}) ::unlink((dir + "/bob" + ext).c_str());
        const int watch = ::inotify_init1(IN_CLOEXEC);
        ASSERT_GE(watch, 0);
        ASSERT_GE(::inotify_add_watch(watch, dir.c_str(), IN_CREATE | IN_MOVED_TO), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            auto g = Gallery::open(dir);
            if (g.ok()) (void)g->enrol(2, "bob", bob);
            ::_exit(0);
        }
        alignas(inotify_event) char events[4096];
        bool seen = false;
        while (!seen) {
            const ssize_t n = ::read(watch, events, sizeof events);
            if (n <= 0) break;
            for (ssize_t at = 0; at < n;) {
                const auto* e = reinterpret_cast<const inotify_event*>(events + at);
                if (e->len > 0 && std::string(e->name) == "bob.dck") seen = true;
                at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            }
        }
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ::close(watch);
        ASSERT_TRUE(seen);
        ExpectConsistent(dir, {}, {"2 bob"}, "killed at the dictionary");
        between = Gallery::open(dir)->persons().empty();
    }
    if (!between) GTEST_SKIP() << "every enrolment reached its registry before the kill";
    // Files that no entry names are left out of loading; they keep the name from an enrolment
    // (which would replace them) until the user moves them away.
    auto g = Gallery::open(dir);
    ASSERT_TRUE(g.ok());
    const msmface::Status refused = g->enrol(2, "bob", bob);
    EXPECT_THAT(refused.message(), ::testing::HasSubstr("no person of the registry names it"));
    for (const char* ext : {".dck", ".mck", ".bmp"}) ::unlink((dir + "/bob" + ext).c_str());
    const msmface::Status s = g->enrol(2, "bob", bob);
    EXPECT_TRUE(s.ok()) << s.message();
    EXPECT_THAT(ReadText(dir + "/persons.txt"), ::testing::HasSubstr("2 bob\n"));
}

}  // namespace
