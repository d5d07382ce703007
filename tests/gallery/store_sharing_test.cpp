// One dictionary directory shared by several galleries: other processes' enrolments and deletions
// reach a running stream at its next frame and a gallery at its next recognition, two galleries
// of one process enrolling at once both keep their persons, a writer that will not wait is told
// who holds the directory, and a stream that runs for thousands of frames across reloads keeps
// its memory.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/in_step.h"
#include "common/sanitizer.h"
#include "store/store_lock.h"
#include "gallery_support.h"
#include "tools/soak/soak_run.h"

namespace {

using gallerytest::Population;
using gallerytest::ScratchDir;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Stream;
using msmface::StreamState;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

Gallery Open(const std::string& dir) {
    msmface::Result<Gallery> g = Gallery::open(dir);
    if (!g.ok()) {
        ADD_FAILURE() << g.message();
        std::abort();
    }
    return std::move(g).value();
}

std::vector<int> Ids(const std::vector<msmface::Person>& persons) {
    std::vector<int> ids;
    for (const auto& p : persons) ids.push_back(p.id);
    return ids;
}

// Runs change on a gallery of its own in a child process, as another program would.
void InAnotherProcess(const std::string& dir, const std::function<bool(Gallery&)>& change) {
    const pid_t child = ::fork();
    if (child == 0) {
        msmface::Result<Gallery> g = Gallery::open(dir);
        ::_exit(g.ok() && change(g.value()) ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(SharedDirectory, AnotherProcesssChangesReachARunningStreamAndTheGallery) {
    ScratchDir work;
    Gallery g = Open(work.path());
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(g.enrol(i + 1, Population::Name(i), Population::get().enrol[i].samples()).ok());
    msmface::Result<Stream> s = Stream::create(g);
    ASSERT_TRUE(s.ok()) << s.message();
    const auto& third = Population::get().probe[2];
    StreamState st;
    for (std::size_t k = 0; k < 8; ++k) st = s->push(third.view(k), third.points(k)).value();
    ASSERT_EQ(st.ranking.matches.size(), 2u);

    InAnotherProcess(work.path(), [](Gallery& other) {
        return other.enrol(3, Population::Name(2), Population::get().enrol[2].samples()).ok();
    });
    // The next frame is ranked against the new person, with the input gathered before.
    st = s->push(third.view(8), third.points(8)).value();
    ASSERT_EQ(st.ranking.matches.size(), 3u);
    EXPECT_EQ(st.ranking.matches[0].id, 3);
    EXPECT_GT(st.frames, 1);

    InAnotherProcess(work.path(), [](Gallery& other) { return other.remove(1).ok(); });
    st = s->push(third.view(9), third.points(9)).value();
    ASSERT_EQ(st.ranking.matches.size(), 2u);
    for (const auto& m : st.ranking.matches) EXPECT_NE(m.id, 1);

    // The stream brought the list it shares with its gallery up to the directory; the gallery's
    // own engine, which did not change anything, reads the changes at its next recognition, and
    // its own next change keeps them.
    EXPECT_EQ(Ids(g.persons()), (std::vector<int>{2, 3}));
    const auto r = g.recognise(third.samples());
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->matches.front().id, 3);
    EXPECT_EQ(Ids(g.persons()), (std::vector<int>{2, 3}));
    ASSERT_TRUE(g.enrol(4, Population::Name(3), Population::get().enrol[3].samples()).ok());
    EXPECT_EQ(Ids(Open(work.path()).persons()), (std::vector<int>{2, 3, 4}));
}

TEST(SharedDirectory, TwoGalleriesEnrollingAtOnceBothKeepTheirPersons) {
    ScratchDir work;
    // The second enrolment starts while the first is gathering its frames, and the first goes
    // on only once the second waits for the directory's lock (or, were the frames gathered
    // before the lock is taken, has finished): the two provably overlap.
    msmtest::Signal firstInside, secondWaitsOrDone;
    std::atomic<bool> secondWaited{false};
    msmface::OpenOptions first;
    first.interrupted = [&] {
        if (!firstInside.Raised()) {
            firstInside.Raise();
            secondWaitsOrDone.Wait();
        }
        return false;
    };
    msmface::OpenOptions second;
    second.lock.notice = [&](const std::string& text) {
        if (text.rfind("waiting for the lock on ", 0) != 0) return;
        secondWaited = true;
        secondWaitsOrDone.Raise();
    };
    msmface::Result<Gallery> a = Gallery::open(work.path(), first);
    msmface::Result<Gallery> b = Gallery::open(work.path(), second);
    ASSERT_TRUE(a.ok() && b.ok());
    msmface::Status sa, sb;
    std::thread ta([&] { sa = a->enrol(1, "one", Population::get().enrol[0].samples()); });
    const bool firstReachedItsFrames = firstInside.Wait();
    std::thread tb([&] {
        sb = b->enrol(2, "two", Population::get().enrol[1].samples());
        secondWaitsOrDone.Raise();
    });
    ta.join();
    tb.join();
    EXPECT_TRUE(firstReachedItsFrames);
    ASSERT_TRUE(sa.ok()) << sa.message();
    ASSERT_TRUE(sb.ok()) << sb.message();
    // The later writer read the other's person under the lock before it wrote: both are listed,
    // in the order the lock let them in.
    const std::vector<int> order = secondWaited ? std::vector<int>{1, 2} : std::vector<int>{2, 1};
    EXPECT_EQ(Ids(Open(work.path()).persons()), order);
    EXPECT_EQ(Ids((secondWaited ? b : a)->persons()), order);
    EXPECT_EQ(Ids((secondWaited ? a : b)->persons()), std::vector<int>{order[0]});
}

TEST(SharedDirectory, AWriterThatWillNotWaitIsRefusedAndLeavesNothing) {
    ScratchDir work;
    msmface::OpenOptions options;
    options.lock.wait = false;
    msmface::Result<Gallery> g = Gallery::open(work.path(), options);
    ASSERT_TRUE(g.ok());
    ASSERT_TRUE(g->enrol(1, "one", Population::get().enrol[0].samples()).ok());
    const auto before = gallerytest::Snapshot(work.path());
    msm::DirectoryLock held;
    ASSERT_TRUE(msm::DirectoryLock::acquire(work.path(), msm::LockMode::Exclusive, {}, held).ok());
    const std::string holder = "locked by PID " + std::to_string(::getpid());
    for (const msmface::Status& s :
         {g->enrol(2, "two", Population::get().enrol[1].samples()), g->remove(1),
          g->rebuildConstraint(10), g->setThreshold(500)}) {
        EXPECT_EQ(s.kind(), ErrorKind::Busy);
        EXPECT_THAT(s.message(), HasSubstr(holder));
    }
    EXPECT_EQ(Gallery::open(work.path(), options).status().kind(), ErrorKind::Busy);
    held.release();
    EXPECT_EQ(gallerytest::Snapshot(work.path()), before);
}

// Thousands of frames through one stream while another gallery changes the directory every few
// hundred: every change makes the stream load its persons anew.
TEST(SharedDirectory, AStreamKeepsItsMemoryOverThousandsOfFramesAndReloads) {
#ifdef MSMFACE_TEST_ASAN
    GTEST_SKIP() << "the address sanitizer keeps freed memory in quarantine; it finds leaks itself";
#endif
    ScratchDir work;
    Gallery g = Open(work.path());
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(g.enrol(i + 1, Population::Name(i), Population::get().enrol[i].samples()).ok());
    Gallery admin = Open(work.path());
    msmface::Result<Stream> s = Stream::create(g);
    ASSERT_TRUE(s.ok());
    int frame = 0, right = 0, reloads = 0;
    auto run = [&](int frames) {
        for (int k = 0; k < frames; ++k, ++frame) {
            if (frame % 300 == 299) {
                ASSERT_TRUE(admin.setThreshold(800 + (reloads++ % 2)).ok());
            }
            const int who = (frame / 20) % 3;
            const auto& take = Population::get().probe[who];
            const std::size_t f = static_cast<std::size_t>(frame % 20);
            const auto r =
                frame % 53 == 0 ? s->push(take.view(f)) : s->push(take.view(f), take.points(f));
            ASSERT_TRUE(r.ok()) << r.message();
            if (frame % 20 == 19) {
                if (!r->ranking.matches.empty() && r->ranking.matches[0].id == who + 1) ++right;
                s->reset();
            }
        }
    };
    run(1000);  // past the first reloads: arenas and the engine's tables reach their size
    const long early = msmsoak::residentBytes();
    ASSERT_GT(early, 0);
    run(5000);
    const long late = msmsoak::residentBytes();
    EXPECT_GE(reloads, 15);
    EXPECT_GT(right, 6000 / 20 / 2) << "the stream stopped recognising";
    EXPECT_LT(late - early, 1536 * 1024)
        << "resident memory grew from " << early / 1024 << " kB to " << late / 1024 << " kB over "
        << 5000 << " frames";
}

}  // namespace
