// The host process is not the library's: loading galleries leaves the process's standard error
// alone (other threads and child processes keep theirs), and the engine's own words go to the
// sink the host chose, or stay with the caller that captures them.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msmface/IDDatabase.h>
#include <msmface/diagnostics.h>

#include "gallery_support.h"
#include "numeric/diagnostics.h"

extern char** environ;

namespace {

using gallerytest::Population;
using gallerytest::ScratchDir;
using msmface::Gallery;

// What the legacy registry says when a person's dictionary cannot be read (Shift-JIS).
const std::string kCannotReadNobody =
    "nobody(7)\x82\xcc\x8e\xab\x8f\x91\x83\x74\x83\x40\x83\x43\x83\x8b\x82\xaa\x93\xc7\x82\xdd"
    "\x8d\x9e\x82\xdf\x82\xdc\x82\xb9\x82\xf1\x81\x42";

// Asks a legacy registry for the dictionary of a person who has none: it diagnoses.
void ReadMissingPerson(const std::string& dir) {
    IDDatabase db;
    db.SetDicPath(dir.c_str());
    HumanID nobody{7, const_cast<char*>("nobody")};
    ASSERT_EQ(db.InitIdDictionary(1), 1);
    ASSERT_EQ(db.PushIdDictionary(&nobody), 1);
    EXPECT_EQ(db.ReadIdDictionaries(), 0);
}

// Standard error of this process replaced by a pipe that a thread drains, for the test's
// duration.
class StandardErrorPipe {
  public:
    StandardErrorPipe() {
        int ends[2];
        if (::pipe(ends) != 0) return;
        saved_ = ::dup(2);
        ::dup2(ends[1], 2);
        ::close(ends[1]);
        reader_ = std::thread([this, in = ends[0]] {
            char buffer[4096];
            for (ssize_t n; (n = ::read(in, buffer, sizeof buffer)) > 0;)
                text_.append(buffer, static_cast<std::size_t>(n));
            ::close(in);
        });
    }
    // Restores standard error and returns all that was written to the pipe (by this process and
    // its children).
    std::string finish() {
        if (saved_ < 0) return {};
        ::dup2(saved_, 2);
        ::close(saved_);
        saved_ = -1;
        reader_.join();
        return text_;
    }
    ~StandardErrorPipe() { finish(); }

  private:
    int saved_ = -1;
    std::thread reader_;
    std::string text_;
};

std::size_t Count(const std::string& text, const std::string& line) {
    std::size_t n = 0;
    for (std::size_t at = 0; (at = text.find(line, at)) != std::string::npos; at += line.size())
        ++n;
    return n;
}

TEST(HostProcess, LoadingGalleriesLeavesStandardErrorToTheHost) {
    ScratchDir dir;
    {
        auto g = Gallery::open(dir.path());
        ASSERT_TRUE(g.ok()) << g.message();
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(
                g->enrol(i + 1, Population::Name(i), Population::get().enrol[i].samples()).ok());
        ASSERT_TRUE(g->rebuildConstraint(20).ok());
    }
    // Many persons make each load long: the same dictionary under many names.
    std::string registry = gallerytest::ReadText(dir / "persons.txt");
    for (int id = 10; id < 200; ++id) {
        const std::string name = "copy" + std::to_string(id);
        std::filesystem::create_hard_link(dir / "person1.dck", dir / (name + ".dck"));
        registry += std::to_string(id) + " " + name + "\n";
    }
    gallerytest::WriteText(dir / "persons.txt", registry);

    StandardErrorPipe pipe;
    std::atomic<bool> loading{true};
    std::atomic<int> written{0}, children{0};
    std::thread writer([&] {
        while (loading) {
            const std::string line = "host line " + std::to_string(written) + "\n";
            if (::write(2, line.data(), line.size()) == static_cast<ssize_t>(line.size()))
                ++written;
            std::this_thread::yield();
        }
    });
    std::thread spawner([&] {
        while (loading) {
            char sh[] = "/bin/sh", c[] = "-c", script[] = "echo child line >&2";
            char* argv[] = {sh, c, script, nullptr};
            pid_t pid = 0;
            if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) break;
            ::waitpid(pid, nullptr, 0);
            ++children;
        }
    });
    // Both are at work before the first load, and the loads go on (twenty at least) until each
    // has written again since: their lines provably cross the loads.
    for (int k = 0; (written == 0 || children == 0) && k < 60000; ++k)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int writtenBefore = written, childrenBefore = children;
    int loads = 0;
    std::string failedLoad;
    for (; loads < 20 || ((written == writtenBefore || children == childrenBefore) && loads < 5000);
         ++loads) {
        auto g = Gallery::open(dir.path());
        if (!g.ok()) {
            failedLoad = g.message();
            break;
        }
        msmface::StreamOptions cmsm;
        cmsm.method = msmface::Method::Cmsm;
        auto s = msmface::Stream::create(*g, cmsm);
        if (!s.ok()) {
            failedLoad = s.message();
            break;
        }
    }
    const bool crossed = written > writtenBefore && children > childrenBefore;
    loading = false;
    writer.join();
    spawner.join();
    const std::string text = pipe.finish();
    EXPECT_EQ(failedLoad, "");
    EXPECT_GT(writtenBefore, 0);
    EXPECT_GT(childrenBefore, 0);
    ASSERT_TRUE(crossed) << "no line written while the galleries loaded";
    EXPECT_EQ(Count(text, "host line "), static_cast<std::size_t>(written.load()));
    EXPECT_EQ(Count(text, "child line\n"), static_cast<std::size_t>(children.load()));
}

TEST(Diagnostics, GoToStandardErrorTheHostsSinkOrTheCallersCapture) {
    ScratchDir dir;
    testing::internal::CaptureStderr();
    ReadMissingPerson(dir.path());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kCannotReadNobody);

    std::mutex mutex;
    std::vector<std::string> received;
    msmface::setDiagnosticSink([&](const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(text);
    });
    testing::internal::CaptureStderr();
    ReadMissingPerson(dir.path());
    {
        // Captured on this thread only: another thread's words still reach the sink meanwhile.
        msm::DiagnosticCapture capture;
        ReadMissingPerson(dir.path());
        std::thread other([&] { ReadMissingPerson(dir.path()); });
        other.join();
        EXPECT_EQ(capture.text(), kCannotReadNobody);
        {
            msm::DiagnosticCapture inner;
            msm::reportNoMemory();
            EXPECT_EQ(inner.text(), "\ncannot malloc.\n");
        }
        EXPECT_EQ(capture.text(), kCannotReadNobody);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(received, testing::ElementsAre(kCannotReadNobody, kCannotReadNobody));

    msmface::setDiagnosticSink(nullptr);
    testing::internal::CaptureStderr();
    ReadMissingPerson(dir.path());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kCannotReadNobody);
    EXPECT_EQ(received.size(), 2u);
}

}  // namespace
