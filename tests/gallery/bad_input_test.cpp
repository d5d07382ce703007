// Every bad input to a gallery gets one line naming the argument or file and what was expected,
// the matching kind of error, and leaves the directory byte for byte as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "gallery_support.h"

namespace {

using gallerytest::ExpectFailure;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::Snapshot;
using gallerytest::WriteText;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Sample;
using ::testing::HasSubstr;
using ::testing::Not;

class BadInput : public ::testing::Test {
  protected:
    void SetUp() override {
        auto g = Gallery::open(work_.path());
        ASSERT_TRUE(g.ok()) << g.message();
        gallery_ = std::make_unique<Gallery>(std::move(g).value());
        ASSERT_TRUE(gallery_->enrol(1, "alice", Population::get().enrol[0].samples()).ok());
        before_ = Snapshot(work_.path());
    }
    void TearDown() override {
        EXPECT_EQ(Snapshot(work_.path()), before_) << "the directory changed";
        EXPECT_EQ(gallery_->persons().size(), 1u);
    }
    msmface::Status Enrol(int id, const std::string& name, const std::vector<Sample>& frames) {
        return gallery_->enrol(id, name, frames);
    }
    static std::vector<Sample> Bob() { return Population::get().enrol[1].samples(); }

    ScratchDir work_;
    std::unique_ptr<Gallery> gallery_;
    std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(BadInput, EnrolmentArgumentsAreCheckedBeforeAnythingIsWritten) {
    ExpectFailure(Enrol(1, "bob", Bob()), ErrorKind::Argument,
                  "id 1: the ID number is taken by \"alice\"");
    ExpectFailure(Enrol(2, "alice", Bob()), ErrorKind::Argument,
                  "name alice: the key name is taken by ID 1");
    for (const std::string& name :
         {std::string("../x"), std::string(".hidden"), std::string(""), std::string("a b"),
          std::string("x/y"), std::string(65, 'n'), std::string("caf\xc3\xa9")})
        ExpectFailure(Enrol(2, name, Bob()), ErrorKind::Argument,
                      "name \"" + name + "\": expected 1 to 64 letters");
    for (int id : {0, -1})
        ExpectFailure(Enrol(id, "bob", Bob()), ErrorKind::Argument,
                      "id " + std::to_string(id) + ": expected an ID number of 1 or more");
    ExpectFailure(Enrol(2, "bob", {}), ErrorKind::Argument, "no frames");
    // 64 characters is the longest name; it is refused here only for the frames.
    ExpectFailure(Enrol(2, std::string(64, 'n'), {}), ErrorKind::Argument, "no frames");
}

TEST_F(BadInput, FramesThatCannotMakeARegistrationChangeNothing) {
    std::vector<Sample> few = Bob();
    few.resize(25);
    ExpectFailure(Enrol(2, "bob", few), ErrorKind::Argument,
                  "only 25 of 25 frames gave a face; a registration needs 50");
    // Without points and without a finder no frame has a face.
    ExpectFailure(Enrol(2, "bob", Population::get().enrol[1].samples(false)), ErrorKind::Argument,
                  "only 0 of 50 frames gave a face");
    // Fifty times the same frame spans no directions at all.
    std::vector<Sample> same(60, Bob().front());
    const msmface::Status s = Enrol(2, "bob", same);
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(s.kind(), ErrorKind::Argument) << s.message();
}

TEST_F(BadInput, BadFrameViewsAreNamedByTheirPlace) {
    const std::vector<Sample> good = Bob();
    struct Case {
        const char* what;
        void (*spoil)(msmface::FrameView&);
        const char* message;
    };
    const Case cases[] = {
        {"null", [](msmface::FrameView& v) { v.data = nullptr; }, "no pixels (data is null)"},
        {"narrow", [](msmface::FrameView& v) { v.width = 1; },
         "1 x 240 pixels; expected at least 2 x 2"},
        {"flat", [](msmface::FrameView& v) { v.height = 0; }, "320 x 0 pixels"},
        {"negative", [](msmface::FrameView& v) { v.width = -5; }, "-5 x 240 pixels"},
        {"huge", [](msmface::FrameView& v) { v.width = v.height = 20000; },
         "20000 x 20000 pixels; expected at most 16384"},
        {"stride", [](msmface::FrameView& v) { v.stride = 100; }, "stride 100 is less than a row"},
        {"colour stride",
         [](msmface::FrameView& v) {
             v.format = msmface::PixelFormat::BGR;
             v.stride = v.width * 2;
         },
         "stride 640 is less than a row of 320 pixels of 3 bytes"},
        {"format", [](msmface::FrameView& v) { v.format = static_cast<msmface::PixelFormat>(2); },
         "unknown pixel format 2"},
    };
    for (const Case& c : cases) {
        std::vector<Sample> frames = good;
        c.spoil(frames[7].frame);
        ExpectFailure(Enrol(2, "bob", frames), ErrorKind::Argument,
                      std::string("frame 8 of 50: ") + c.message);
        const auto r = gallery_->recognise(frames);
        ExpectFailure(r.status(), ErrorKind::Argument, std::string("frame 8 of 50: ") + c.message);
    }
}

TEST_F(BadInput, UnknownPersonsAndBadRecognitionOptions) {
    ExpectFailure(gallery_->remove(9), ErrorKind::NotFound, "id 9: no person with this ID number");
    const auto probe = Population::get().probe[0].samples();
    ExpectFailure(gallery_->recognise(probe, {static_cast<msmface::Method>(3), -1}).status(),
                  ErrorKind::Argument, "method 3: expected 0 (single pattern), 1 (MSM), 2 or 4");
    ExpectFailure(gallery_->recognise(probe, {msmface::Method::Msm, 1001}).status(),
                  ErrorKind::Argument, "threshold 1001: expected 0 to 1000");
    ExpectFailure(gallery_->recognise(probe, {msmface::Method::Msm, -2}).status(),
                  ErrorKind::Argument, "threshold -2");
    ExpectFailure(gallery_->recognise({}).status(), ErrorKind::Argument,
                  "none of the frames gave a face");
    ExpectFailure(gallery_->recognise(Population::get().probe[0].samples(false)).status(),
                  ErrorKind::Argument, "none of the frames gave a face");
    ExpectFailure(gallery_->rebuildConstraint(100), ErrorKind::Argument, "at least two persons");
    ExpectFailure(gallery_->setThreshold(2000), ErrorKind::Argument, "threshold 2000");
}

TEST(BadDirectory, IsRefusedWithItsName) {
    ScratchDir work;
    auto g = Gallery::open(work / "missing");
    EXPECT_EQ(g.status().kind(), ErrorKind::NotFound);
    EXPECT_THAT(g.message(), HasSubstr("missing: the dictionary directory does not exist"));
    EXPECT_FALSE(gallerytest::Exists(work / "missing"));

    WriteText(work / "plain", "x");
    g = Gallery::open(work / "plain");
    EXPECT_EQ(g.status().kind(), ErrorKind::File);
    EXPECT_THAT(g.message(), HasSubstr("plain: expected a dictionary directory, found a file"));
    g = Gallery::open(work / "plain/sub", msmface::OpenOptions{true});
    EXPECT_THAT(g.message(), HasSubstr("plain"));
    EXPECT_EQ(Gallery::open("").status().kind(), ErrorKind::Argument);
    g = Gallery::open(work.path() + "/" + std::string(220, 'd'), msmface::OpenOptions{true});
    EXPECT_EQ(g.status().kind(), ErrorKind::Argument);
    EXPECT_THAT(g.message(), HasSubstr("the directory name is too long"));
    EXPECT_THAT(work.Entries(), ::testing::ElementsAre("plain"));
}

TEST(BadDirectory, MalformedRegistryAndThresholdFilesAreNamedOnOpen) {
    ScratchDir work;
    const std::string dir = work.path();
    struct Case {
        const char* file;
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"persons.txt", "1 alice\n2\n", "persons.txt: line 2: expected \"<ID number> <key name>\""},
        {"persons.txt", "1 alice\n1 bob\n", "persons.txt: line 2: ID number or key name twice"},
        {"persons.txt", "0 alice\n", "persons.txt: line 1: expected"},
        {"persons.txt", "1 ../etc\n", "persons.txt: line 1: expected"},
        {"persons.txt", "1 alice extra\n", "persons.txt: line 1: expected"},
        {"threshold.txt", "abc\n",
         "threshold.txt: line 1: expected an identify threshold of 0 to 1000, found \"abc\""},
        {"threshold.txt", "# calibrated\n1001\n",
         "threshold.txt: line 2: expected an identify threshold of 0 to 1000, found \"1001\""},
        {"threshold.txt", "-5", "found \"-5\""},
        {"threshold.txt", "",
         "threshold.txt: expected an identify threshold of 0 to 1000, found none"},
        {"threshold.txt", "300\n400\n",
         "line 2: expected an identify threshold of 0 to 1000 on one line only"},
        {"threshold.txt", std::string(5000, '1'), "threshold.txt: larger than 4 KiB"},
    };
    for (const Case& c : cases) {
        WriteText(work / c.file, c.text);
        const auto g = Gallery::open(dir);
        EXPECT_EQ(g.status().kind(), ErrorKind::File) << c.text;
        EXPECT_THAT(g.message(), HasSubstr(c.message)) << c.text;
        EXPECT_THAT(g.message(), Not(HasSubstr("\n")));
        ::unlink((work / c.file).c_str());
    }
    ASSERT_EQ(::mkdir((work / "threshold.txt").c_str(), 0755), 0);
    EXPECT_THAT(Gallery::open(dir).message(), HasSubstr("threshold.txt: expected an identify"));
}

TEST(BadDirectory, UnwritableDirectoryIsRefusedBeforeAnyWork) {
    if (::geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
    ScratchDir work;
    auto g = Gallery::open(work.path());
    ASSERT_TRUE(g.ok());
    ASSERT_TRUE(g->enrol(1, "alice", Population::get().enrol[0].samples()).ok());
    const auto before = Snapshot(work.path());
    ASSERT_EQ(::chmod(work.path().c_str(), 0555), 0);
    ExpectFailure(g->enrol(2, "bob", Population::get().enrol[1].samples()), ErrorKind::File,
                  "the dictionary directory is not writable");
    ExpectFailure(g->remove(1), ErrorKind::File, "the dictionary directory is not writable");
    ExpectFailure(g->setThreshold(500), ErrorKind::File,
                  "cannot write in the dictionary directory");
    ::chmod(work.path().c_str(), 0755);
    EXPECT_EQ(Snapshot(work.path()), before);
    EXPECT_EQ(g->threshold(), msmface::kDefaultIdentifyThreshold);
}

}  // namespace
