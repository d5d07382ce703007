// One bad file must not take the gallery down: a listed person whose dictionary does not read or
// is not a valid dictionary is left out with a reason, the others are recognised, check reports
// the file, delete removes the person, and nothing the library reads can hang it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msmface/store.h>

#include "dictionary/DictChunk.h"
#include "gallery_support.h"

namespace {

namespace fs = std::filesystem;
using gallerytest::Exists;
using gallerytest::Names;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::WriteText;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Method;
using msmface::Stream;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::vector<std::string> kAliceAndCarol = {"1 alice", "3 carol"};

// alice, bob and carol enrolled once, with a constraint space; each test works on a copy.
const std::string& TemplateDirectory() {
    static ScratchDir dir("msmface-unusable");
    static const bool made = [] {
        auto g = Gallery::open(dir.path());
        if (!g.ok()) return false;
        const char* names[] = {"alice", "bob", "carol"};
        for (int i = 0; i < 3; ++i)
            if (!g->enrol(i + 1, names[i], Population::get().enrol[i].samples()).ok()) return false;
        return g->rebuildConstraint(20).ok();
    }();
    EXPECT_TRUE(made) << "the template gallery could not be made";
    return dir.path();
}

void CopyTemplate(const ScratchDir& to) {
    for (const auto& e : fs::directory_iterator(TemplateDirectory()))
        if (e.is_regular_file()) fs::copy_file(e.path(), to / e.path().filename().string());
    // The constraint list names its files by absolute path: point it at the copy.
    const std::string list = ReadText(to / "constraint.list");
    std::string text = list;
    for (std::size_t at; (at = text.find(TemplateDirectory())) != std::string::npos;)
        text.replace(at, TemplateDirectory().size(), to.path());
    WriteText(to / "constraint.list", text);
}

// Reads a dictionary whole, lets change alter it, and writes it back in place.
void Rewrite(const std::string& path, const std::function<void(DictChunk&)>& change) {
    DictChunk chunk;
    chunk.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(chunk.ReadAll(path.c_str()), 1) << path;
    change(chunk);
    ASSERT_EQ(chunk.Write(path.c_str(), 0, kDicPrimFloat), 1) << path;
}

void SetEveryValue(DictChunk& c, float value) {
    for (int s = 0; s < c.count; ++s)
        for (int i = 0; i < c.prims[s].count; ++i)
            for (int k = 0; k < c.prims[s].dim; ++k) c.prims[s].frows[i][k] = value;
}

// Every set given vectors of `dim` values (the first ones kept) and `count` vectors.
void Reshape(DictChunk& c, int dim, int count) {
    for (int s = 0; s < c.count; ++s) {
        DicPrim next(dim, count, kDicPrimFloat);
        for (int i = 0; i < count && i < c.prims[s].count; ++i)
            for (int k = 0; k < dim && k < c.prims[s].dim; ++k)
                next.frows[i][k] = c.prims[s].frows[i][k];
        ASSERT_EQ(c.prims[s].CopyFrom(next), 1);
    }
}

void Overwrite(const std::string& path, long offset, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
}

void ReplaceWithFifo(const std::string& path) {
    ::unlink(path.c_str());
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0) << path;
}

struct Damage {
    const char* what;
    std::function<void(const std::string& dck)> apply;
    const char* reason;  // what the reason must say after the file's name
};

std::vector<Damage> Damages() {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    return {
        {"three bytes of the signature", [](auto& p) { Overwrite(p, 0, "XYZ"); },
         "truncated or malformed"},
        {"three bytes of a vector", [](auto& p) { Overwrite(p, 1000, "AAA"); }, "set 1, vector 1"},
        {"every value 1/16",
         [](auto& p) { Rewrite(p, [](DictChunk& c) { SetEveryValue(c, 1.0f / 16); }); },
         "set 1, vectors 1 and 2 have the dot product 1, expected 0"},
        {"a NaN",
         [nan](auto& p) { Rewrite(p, [nan](DictChunk& c) { c.prims[2].frows[3][7] = nan; }); },
         "set 3 holds a value that is not a number"},
        {"an infinity",
         [inf](auto& p) { Rewrite(p, [inf](DictChunk& c) { c.prims[1].frows[4][9] = -inf; }); },
         "set 2, vector 5 holds a value that is infinite"},
        {"a huge value",
         [](auto& p) { Rewrite(p, [](DictChunk& c) { c.prims[0].frows[0][0] = 1e30f; }); },
         "set 1, vector 1 has length 1e+30, expected 1"},
        {"dimension 255", [](auto& p) { Rewrite(p, [](DictChunk& c) { Reshape(c, 255, 20); }); },
         "set 1 has vectors of 255 values, expected 256"},
        {"dimension 512", [](auto& p) { Rewrite(p, [](DictChunk& c) { Reshape(c, 512, 20); }); },
         "set 1 has vectors of 512 values, expected 256"},
        {"no vectors", [](auto& p) { Rewrite(p, [](DictChunk& c) { Reshape(c, 256, 0); }); },
         "set 1 has 0 vectors, expected 1 to 256"},
        {"two sets", [](auto& p) { Rewrite(p, [](DictChunk& c) { c.count = 2; }); },
         "2 sets, expected 5"},
        {"padding after its records", [](auto& p) { fs::resize_file(p, fs::file_size(p) + 4096); },
         "bytes, longer than the 256087 its records take"},
        {"a FIFO", [](auto& p) { ReplaceWithFifo(p); }, "cannot be read (is a FIFO, not a file)"},
        {"a folder",
         [](auto& p) {
             ::unlink(p.c_str());
             fs::create_directory(p);
         },
         "cannot be read (is a folder, not a file)"},
    };
}

msmface::Ranking Recognise(Gallery& g, int person, Method method = Method::Msm) {
    auto r = g.recognise(Population::get().probe[static_cast<std::size_t>(person)].samples(),
                         {method, -1});
    EXPECT_TRUE(r.ok()) << r.message();
    return r.ok() ? r.value() : msmface::Ranking{};
}

TEST(UnusableDictionary, IsLeftOutReportedAndRemovableWhileTheOthersWork) {
    for (const Damage& damage : Damages()) {
        SCOPED_TRACE(damage.what);
        ScratchDir dir;
        CopyTemplate(dir);
        const std::string bob = dir / "bob.dck";
        damage.apply(bob);

        auto g = Gallery::open(dir.path());
        ASSERT_TRUE(g.ok()) << g.message();
        EXPECT_EQ(Names(g->persons()), kAliceAndCarol);
        EXPECT_TRUE(g->orphans().empty());
        ASSERT_EQ(g->leftOut().size(), 1u);
        const msmface::LeftOut left = g->leftOut().front();
        EXPECT_EQ(left.person.id, 2);
        EXPECT_EQ(left.reason.rfind(bob + ": ", 0), 0u) << left.reason;
        EXPECT_THAT(left.reason, HasSubstr(damage.reason));
        EXPECT_THAT(left.reason, HasSubstr("person 2 (bob) ignored"));
        EXPECT_THAT(left.reason, Not(HasSubstr("\n")));

        // The others are recognised as before; a stranger is nobody's best match above 1000.
        const msmface::Ranking own = Recognise(*g, 0);
        ASSERT_EQ(own.matches.size(), 2u);
        EXPECT_EQ(own.matches.front().name, "alice");
        const msmface::Ranking stranger = Recognise(*g, 3);
        ASSERT_EQ(stranger.matches.size(), 2u);
        for (const msmface::Match& m : stranger.matches) {
            EXPECT_NE(m.name, "bob");
            EXPECT_LE(m.score, 1000);
        }

        // A stream over the same directory runs.
        auto s = Stream::create(*g);
        ASSERT_TRUE(s.ok()) << s.message();
        const gallerytest::Take& probe = Population::get().probe[2];
        for (std::size_t k = 0; k < probe.frames.size(); ++k)
            ASSERT_TRUE(s->push(probe.view(k), probe.points(k)).ok());

        const auto report = msmface::checkStore(dir.path());
        ASSERT_TRUE(report.ok()) << report.message();
        bool reported = false;
        for (const msmface::StoreProblem& p : report->problems)
            if (p.path == bob && p.kind == msmface::StoreProblemKind::UnreadableFile)
                reported = p.message.find(damage.reason) != std::string::npos;
        EXPECT_TRUE(reported) << "check does not report " << bob;
        EXPECT_TRUE(report->damaged());

        // Delete removes the person it cannot load, and the others stay.
        const msmface::Status removed = g->remove(2);
        ASSERT_TRUE(removed.ok()) << removed.message();
        EXPECT_EQ(Names(g->persons()), kAliceAndCarol);
        EXPECT_TRUE(g->leftOut().empty());
        EXPECT_THAT(ReadText(dir / "persons.txt"), Not(HasSubstr("bob")));
        if (!fs::is_directory(bob)) {
            EXPECT_FALSE(Exists(bob));
        }
        EXPECT_FALSE(Exists(dir / "bob.mck"));
    }
}

TEST(UnusableDictionary, EnrolmentKeepsTheLeftOutPersonListedAndItsNameTaken) {
    ScratchDir dir;
    CopyTemplate(dir);
    Overwrite(dir / "bob.dck", 0, "XYZ");
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    const msmface::Status taken = g->enrol(9, "bob", Population::get().enrol[3].samples());
    EXPECT_EQ(taken.kind(), ErrorKind::Argument);
    EXPECT_THAT(taken.message(), HasSubstr("2 bob is listed but not loaded (" +
                                           dir / "bob.dck: truncated or malformed"));
    const msmface::Status dave = g->enrol(4, "dave", Population::get().enrol[3].samples());
    ASSERT_TRUE(dave.ok()) << dave.message();
    EXPECT_THAT(Names(g->persons()), ElementsAre("1 alice", "3 carol", "4 dave"));
    EXPECT_EQ(ReadText(dir / "persons.txt").find("2 bob") != std::string::npos, true);
}

TEST(UnusableDictionary, RepairPutsTheFilesAsideAndKeepsTheEntry) {
    ScratchDir dir;
    CopyTemplate(dir);
    Overwrite(dir / "bob.dck", 1000, "AAA");
    const std::string damaged = ReadText(dir / "bob.dck");
    const auto fixed = msmface::repairStore(dir.path());
    ASSERT_TRUE(fixed.ok()) << fixed.message();
    EXPECT_TRUE(ReadText(dir / "lost+found/bob.dck") == damaged);
    EXPECT_TRUE(Exists(dir / "lost+found/bob.mck"));
    EXPECT_FALSE(Exists(dir / "bob.dck"));
    EXPECT_TRUE(Exists(dir / "alice.dck"));
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    EXPECT_THAT(Names(g->orphans()), ElementsAre("2 bob"));
    EXPECT_EQ(Names(g->persons()), kAliceAndCarol);
}

TEST(UnusableDictionary, AStreamGoesOnWhenAPersonsFileGoesBadUnderIt) {
    ScratchDir dir;
    CopyTemplate(dir);
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    auto s = Stream::create(*g);
    ASSERT_TRUE(s.ok()) << s.message();
    const gallerytest::Take& probe = Population::get().probe[0];
    for (std::size_t k = 0; k < 10; ++k) ASSERT_TRUE(s->push(probe.view(k), probe.points(k)).ok());

    // Another process: bob's file is damaged and dave enrolled, so the stream reloads.
    Rewrite(dir / "bob.dck", [](DictChunk& c) { SetEveryValue(c, 1.0f / 16); });
    {
        auto other = Gallery::open(dir.path());
        ASSERT_TRUE(other.ok()) << other.message();
        ASSERT_TRUE(other->enrol(4, "dave", Population::get().enrol[3].samples()).ok());
    }
    msmface::StreamState last;
    for (std::size_t k = 10; k < probe.frames.size(); ++k) {
        auto state = s->push(probe.view(k), probe.points(k));
        ASSERT_TRUE(state.ok()) << "frame " << k << ": " << state.message();
        last = state.value();
    }
    ASSERT_FALSE(last.ranking.matches.empty());
    EXPECT_EQ(last.ranking.matches.front().name, "alice");
    for (const msmface::Match& m : last.ranking.matches) EXPECT_NE(m.name, "bob");
    ASSERT_EQ(g->leftOut().size(), 1u);
    EXPECT_EQ(g->leftOut().front().person.name, "bob");
}

TEST(UnusableConstraintSpace, IsRefusedNamingItsFile) {
    ScratchDir dir;
    CopyTemplate(dir);
    Rewrite(dir / "cmsm.dck", [](DictChunk& c) { SetEveryValue(c, 1.0f / 16); });
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    auto r = g->recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1});
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.status().kind(), ErrorKind::File);
    EXPECT_THAT(r.message(), HasSubstr(dir / "cmsm.dck: set 1, vectors 1 and 2"));
    const auto report = msmface::checkStore(dir.path());
    ASSERT_TRUE(report.ok());
    ASSERT_EQ(report->problems.size(), 1u);
    EXPECT_EQ(report->problems[0].kind, msmface::StoreProblemKind::Constraint);
    EXPECT_EQ(report->problems[0].path, dir / "cmsm.dck");
    // Rebuilt, it loads again.
    ASSERT_TRUE(g->rebuildConstraint(20).ok());
    EXPECT_TRUE(g->recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1}).ok());
}

TEST(UnusableDictionary, AFilePaddedFarBeyondItsRecordsIsRefusedWithoutReadingIt) {
    ScratchDir dir;
    CopyTemplate(dir);
    rusage before{};
    ::getrusage(RUSAGE_SELF, &before);
    const std::size_t peak = static_cast<std::size_t>(before.ru_maxrss) * 1024;
    // Larger than the process has ever been, so that reading it would raise the peak; below the
    // reader's 1 GiB limit, so that only the dictionary's own check refuses it. Sparse: no disk.
    const std::size_t padded =
        std::min<std::size_t>(peak + (std::size_t{512} << 20), (std::size_t{1} << 30) - 4096);
    if (padded < peak + (std::size_t{256} << 20)) GTEST_SKIP() << "the process is already large";
    fs::resize_file(dir / "bob.dck", padded);

    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    EXPECT_EQ(Names(g->persons()), kAliceAndCarol);
    ASSERT_EQ(g->leftOut().size(), 1u);
    EXPECT_THAT(g->leftOut().front().reason,
                HasSubstr(dir / "bob.dck: cannot be read (" + std::to_string(padded) +
                          " bytes, more than "));
    rusage after{};
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(static_cast<std::size_t>(after.ru_maxrss - before.ru_maxrss) * 1024,
              std::size_t{128} << 20);
}

// A dictionary of five channels of one unit vector each: the smallest an engine accepts.
void WriteSmallDictionary(const std::string& path) {
    DictChunk chunk;
    ASSERT_EQ(chunk.Allocate(5), 1);
    for (int c = 0; c < 5; ++c) {
        ASSERT_EQ(chunk.prims[c].Allocate(256, 1, kDicPrimFloat), 1);
        chunk.prims[c].frows[0][c] = 1;
    }
    ASSERT_EQ(chunk.Write(path.c_str(), 0, kDicPrimFloat), 1);
}

// A registry of `count` persons p1, p2, ... sharing one dictionary file through hard links.
void ListPersons(const ScratchDir& dir, int count) {
    WriteSmallDictionary(dir / "shared.dck");
    std::string registry;
    for (int id = 1; id <= count; ++id) {
        const std::string name = "p" + std::to_string(id);
        registry += std::to_string(id) + " " + name + "\n";
        if (!Exists(dir / (name + ".dck"))) {
            ASSERT_EQ(::link((dir / "shared.dck").c_str(), (dir / (name + ".dck")).c_str()), 0);
        }
    }
    WriteText(dir / "persons.txt", registry);
}

TEST(Capacity, ADirectoryOfMoreThanTwoThousandPersonsLoadsAndRecognisesThemAll) {
    ScratchDir dir;
    constexpr int kListed = 2003;
    ListPersons(dir, kListed);
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    EXPECT_EQ(g->persons().size(), static_cast<std::size_t>(kListed));
    EXPECT_TRUE(g->leftOut().empty());
    // A real person enrolled behind them all is the one the probe identifies: the last place of
    // the snapshot is scored like the first.
    const Population& population = Population::get();
    ASSERT_TRUE(g->enrol(kListed + 1, "newcomer", population.enrol[0].samples()).ok());
    auto r = g->recognise(population.probe[0].samples());
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->matches.size(), static_cast<std::size_t>(kListed + 1));
    ASSERT_TRUE(r->identified.has_value());
    EXPECT_EQ(r->identified->id, kListed + 1);
    auto stream = msmface::Stream::create(*g);
    ASSERT_TRUE(stream.ok()) << stream.message();
    msmface::StreamState last;
    for (const msmface::Sample& s : population.probe[0].samples()) {
        auto state = stream->push(s.frame, *s.points);
        ASSERT_TRUE(state.ok()) << state.message();
        last = *state;
    }
    EXPECT_EQ(last.ranking.matches.size(), static_cast<std::size_t>(kListed + 1));
    ASSERT_FALSE(last.ranking.matches.empty());
    EXPECT_EQ(last.ranking.matches.front().id, kListed + 1);
    // A removal keeps every other person.
    ASSERT_TRUE(g->remove(5).ok());
    EXPECT_EQ(g->persons().size(), static_cast<std::size_t>(kListed));
    EXPECT_EQ(g->persons().back().name, "newcomer");
}

// Runs call on a thread of its own. A call still running after 20 s hangs: the FIFO is then
// opened for writing, which releases a reader blocked on it, so that the test can end.
bool FinishesWithoutHanging(const std::function<void()>& call, const std::string& fifo) {
    auto done = std::async(std::launch::async, call);
    if (done.wait_for(std::chrono::seconds(20)) == std::future_status::ready) return true;
    while (done.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) ::close(fd);
    }
    return false;
}

TEST(Hangs, FifosWhereTheDirectoryHasFilesAreRefusedWithoutBlocking) {
    ScratchDir dir;
    CopyTemplate(dir);
    ReplaceWithFifo(dir / "constraint.list");
    ReplaceWithFifo(dir / "carol.bmp");
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    msmface::Result<msmface::Ranking> r = msmface::Status();
    EXPECT_TRUE(FinishesWithoutHanging(
        [&] {
            r = g->recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1});
        },
        dir / "constraint.list"));
    EXPECT_FALSE(r.ok());
    EXPECT_THAT(r.message(), HasSubstr(dir / "constraint.list"));

    msmface::Result<msmface::StoreReport> report = msmface::Status();
    EXPECT_TRUE(FinishesWithoutHanging([&] { report = msmface::checkStore(dir.path()); },
                                       dir / "carol.bmp"));
    ASSERT_TRUE(report.ok()) << report.message();
    bool pictureReported = false;
    for (const msmface::StoreProblem& p : report->problems)
        pictureReported = pictureReported || p.message == dir / "carol.bmp" +
                                                              ": cannot be read (is a FIFO, not "
                                                              "a file)";
    EXPECT_TRUE(pictureReported);

    msmface::Status rebuilt;
    EXPECT_TRUE(FinishesWithoutHanging([&] { rebuilt = g->rebuildConstraint(10); },
                                       dir / "constraint.list"));
    EXPECT_TRUE(rebuilt.ok()) << rebuilt.message();
}

TEST(GoneDirectory, IsSaidByEveryCallThatReadsIt) {
    ScratchDir parent;
    const std::string dir = parent / "gallery";
    fs::create_directory(dir);
    for (const auto& e : fs::directory_iterator(TemplateDirectory()))
        if (e.is_regular_file() && e.path().extension() != ".list")
            fs::copy_file(e.path(), dir + "/" + e.path().filename().string());
    auto g = Gallery::open(dir);
    ASSERT_TRUE(g.ok()) << g.message();
    auto s = Stream::create(*g);
    ASSERT_TRUE(s.ok()) << s.message();
    fs::remove_all(dir);

    const std::string gone = dir + ": the dictionary directory is gone (No such file or directory)";
    const msmface::Status refreshed = g->refresh();
    EXPECT_EQ(refreshed.kind(), ErrorKind::File);
    EXPECT_EQ(refreshed.message(), gone);
    auto r = g->recognise(Population::get().probe[0].samples());
    EXPECT_EQ(r.status().kind(), ErrorKind::File);
    EXPECT_EQ(r.message(), gone);
    const gallerytest::Take& probe = Population::get().probe[0];
    auto pushed = s->push(probe.view(0), probe.points(0));
    EXPECT_EQ(pushed.status().kind(), ErrorKind::File);
    EXPECT_EQ(pushed.message(), gone);
}

}  // namespace
