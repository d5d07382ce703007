// The msmface program on directories of descriptors: the kind chosen at the first enrolment,
// shown by list, check and inspect, and refused in one line when a command asks for the other;
// and on a few real faces (../shared/faces, with the descriptor model installed) the enrol,
// recognise, constraint, calibrate, watch and delete cycle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include <msmface/frame_lists.h>
#include <msmface/store.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "cli_support.h"

namespace {

using clitest::CliRun;
using clitest::Entries;
using clitest::Exists;
using clitest::ExpectOneLineFailure;
using clitest::ReadText;
using clitest::RunCli;
using clitest::Scratch;
using clitest::TopLine;
using clitest::WriteText;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kFaces = std::string(MSMFACE_SHARED_DIR) + "/faces";

// The files of a directory and their bytes, to show that a refused command changed nothing.
std::map<std::string, std::string> Contents(const std::string& dir) {
    std::map<std::string, std::string> out;
    for (const std::string& name : Entries(dir)) out[name] = ReadText(dir + "/" + name);
    return out;
}

// A directory of seed patterns from synthetic frames with their points: no model needed.
std::string SeedDirectory(const Scratch& work) {
    const std::string points = work / "ann.txt";
    WriteText(points, clitest::Join(clitest::WriteTake(work.path(), "ann", 0, 300, 20)));
    const std::string dir = work / "seed";
    const CliRun r = RunCli("enrol '" + dir + "' --id 1 --name ann --points '" + points +
                            "' --copies 3 --jitter 1");
    EXPECT_EQ(r.status, 0) << r.err;
    return dir;
}

TEST(DescriptorCli, TheKindOfAnExistingDirectoryIsKeptAndAnotherRefused) {
    Scratch work;
    const std::string dir = SeedDirectory(work);
    const auto before = Contents(dir);
    // Refused before any frame is read or model loaded: the points file named need not exist.
    const CliRun other =
        RunCli("enrol '" + dir + "' --id 2 --name ben --patterns descriptor --points nowhere.txt");
    ExpectOneLineFailure(other, "seed");
    EXPECT_THAT(other.err, HasSubstr("descriptor"));
    EXPECT_EQ(Contents(dir), before);
    ExpectOneLineFailure(RunCli("enrol '" + work / "new" + "' --id 1 --name a --patterns dlib"),
                         "--patterns dlib: expected seed or descriptor");
    EXPECT_FALSE(Exists(work / "new"));

    // The same kind asked again, or none asked: the directory's own.
    const CliRun same = RunCli("enrol '" + dir + "' --id 2 --name ben --patterns seed --points '" +
                               work / "ann.txt" + "' --copies 3");
    EXPECT_EQ(same.status, 0) << same.err;
    const CliRun list = RunCli("list '" + dir + "'");
    EXPECT_THAT(list.out, HasSubstr("2 persons in " + dir + ", seed patterns"));
    const CliRun check = RunCli("check '" + dir + "'");
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_THAT(check.out, HasSubstr("seed patterns"));
}

#ifdef MSMFACE_HAVE_DESCRIPTOR
TEST(DescriptorCli, AMissingModelIsOneLineNamingWhatInstallsItAndNothingIsMade) {
    Scratch work;
    const std::string points = work / "ann.txt";
    WriteText(points, clitest::Join(clitest::WriteTake(work.path(), "ann", 0, 300, 3)));
    const std::string dir = work / "dict";
    const CliRun r =
        RunCli("enrol '" + dir + "' --id 1 --name ann --patterns descriptor --points '" + points +
               "' --descriptor-model '" + work / "no-model" + "'");
    ExpectOneLineFailure(r, work / "no-model");
    EXPECT_THAT(r.err, HasSubstr("tools/fetch_descriptor_model.sh"));
    EXPECT_FALSE(Exists(dir));
}
#endif

// Three persons of the shared faces enrolled from all but their last video and probed with the
// last; two more as strangers for calibrate.
class RealDescriptorCli : public ::testing::Test {
  protected:
    struct Person {
        std::string identity;
        std::vector<std::string> enrolVideos;
        std::string probeVideo;
    };

    static void SetUpTestSuite() {
        auto rows = msmface::readManifest(kFaces + "/manifest.csv");
        if (!rows) return;
        std::map<std::string, std::set<std::string>> videos;
        std::vector<std::string> order;
        for (const msmface::FrameRow& r : rows.value()) {
            if (videos.count(r.identity) == 0) order.push_back(r.identity);
            videos[r.identity].insert(r.video);
        }
        for (const std::string& identity : order) {
            if (videos[identity].size() < 3 || persons_.size() == 5) continue;
            Person p{identity, {}, *videos[identity].rbegin()};
            for (const std::string& v : videos[identity])
                if (v != p.probeVideo) p.enrolVideos.push_back(v);
            persons_.push_back(p);
        }
    }

    // The three persons are enrolled once (each command loads the landmark and descriptor models,
    // about a second); every test works on its own copy.
    static void EnrolOnce() {
        if (enrolled_ || !skip_.empty()) return;
        shared_ = std::make_unique<Scratch>();
        // A folder made beforehand and still empty takes the kind of its first enrolment.
        const std::string dir = *shared_ / "dict";
        ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
        const CliRun first = Enrol(dir, 0, "--patterns descriptor");
        // The first enrolment tells whether the model is there.
        for (const char* missing : {"descriptor model", "not available in this build"})
            if (first.status != 0 && first.err.find(missing) != std::string::npos) {
                skip_ = first.err;
                return;
            }
        ASSERT_EQ(first.status, 0) << first.err;
        for (int i = 1; i < 3; ++i) ASSERT_EQ(Enrol(dir, i).status, 0);
        enrolled_ = true;
    }

    static void TearDownTestSuite() { shared_.reset(); }

    void SetUp() override {
        if (persons_.size() < 5) GTEST_SKIP() << "no real faces in " << kFaces;
        EnrolOnce();
        if (!skip_.empty()) GTEST_SKIP() << skip_;
        ASSERT_TRUE(enrolled_);
        dir_ = work_ / "dict";
        std::filesystem::copy(*shared_ / "dict", dir_);
    }

    static CliRun Enrol(const std::string& dir, int i, const std::string& extra = "") {
        const Person& p = persons_[static_cast<std::size_t>(i)];
        std::string videos;
        for (const std::string& v : p.enrolVideos) videos += " --video " + v;
        return RunCli("enrol '" + dir + "' --id " + std::to_string(i + 1) + " --name " +
                      p.identity + " --manifest '" + kFaces + "/manifest.csv' --identity " +
                      p.identity + videos + " " + extra);
    }

    CliRun Enrol(int i, const std::string& extra = "") const { return Enrol(dir_, i, extra); }

    CliRun Recognise(int i, const std::string& extra = "") const {
        const Person& p = persons_[static_cast<std::size_t>(i)];
        return RunCli("recognise '" + dir_ + "' --manifest '" + kFaces +
                      "/manifest.csv' --identity " + p.identity + " --video " + p.probeVideo + " " +
                      extra);
    }

    // The manifest's rows of the five persons, their images named by absolute paths.
    std::string WriteFivePersonManifest() const {
        std::ifstream in(kFaces + "/manifest.csv");
        std::string line, out;
        std::getline(in, line);
        out = line + "\n";
        while (std::getline(in, line)) {
            std::vector<std::string> f;
            std::stringstream fields(line);
            for (std::string x; std::getline(fields, x, ',');) f.push_back(x);
            bool wanted = false;
            for (const Person& p : persons_) wanted = wanted || f[0] == p.identity;
            if (!wanted) continue;
            f[4] = kFaces + "/" + f[4];
            for (std::size_t k = 0; k < f.size(); ++k) out += (k ? "," : "") + f[k];
            out += "\n";
        }
        const std::string path = work_ / "five.csv";
        WriteText(path, out);
        return path;
    }

    static std::vector<Person> persons_;
    static std::unique_ptr<Scratch> shared_;
    static bool enrolled_;
    static std::string skip_;
    Scratch work_;
    std::string dir_;
};

std::vector<RealDescriptorCli::Person> RealDescriptorCli::persons_;
std::unique_ptr<Scratch> RealDescriptorCli::shared_;
bool RealDescriptorCli::enrolled_ = false;
std::string RealDescriptorCli::skip_;

TEST_F(RealDescriptorCli, EnrolRecogniseConstraintAndDeleteOnDescriptors) {
    const std::vector<std::string> files = Entries(dir_);
    for (const Person& p : persons_)
        if (&p - persons_.data() < 3) {
            EXPECT_THAT(files, Contains(p.identity + ".dck"));
            EXPECT_THAT(files, Contains(p.identity + ".mck"));
        }
    const CliRun list = RunCli("list '" + dir_ + "'");
    EXPECT_THAT(list.out, HasSubstr("3 persons in " + dir_ + ", descriptor patterns"));
    const CliRun check = RunCli("check '" + dir_ + "'");
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_THAT(check.out, AllOf(HasSubstr("descriptor patterns"), HasSubstr("0 problems")));
    // A person's dictionary is the engine's file, holding one set of 128 values a vector.
    const CliRun inspect = RunCli("inspect '" + dir_ + "/" + persons_[0].identity + ".dck'");
    EXPECT_THAT(inspect.out, AllOf(HasSubstr(": 1 set\n"), HasSubstr("of 128 values")));

    // Each person's unseen last video is ranked first, by MSM and by the single pattern.
    for (int i = 0; i < 3; ++i)
        for (const char* method : {"1", "0"}) {
            if (i > 0 && method[0] == '0') continue;  // a second of models loaded a run
            const CliRun r = Recognise(i, std::string("--method ") + method);
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_THAT(r.out,
                        HasSubstr(TopLine(i + 1, persons_[static_cast<std::size_t>(i)].identity)))
                << r.out;
        }

    // A person of the other kind is refused and nothing changes.
    const auto before = Contents(dir_);
    ExpectOneLineFailure(Enrol(3, "--patterns seed"), "descriptor");
    EXPECT_EQ(Contents(dir_), before);

    // The constraint space keeps the directions the persons' leading vectors span, at most; it is
    // built from as many as there are (fewer make every person alike).
    const CliRun wide = RunCli("constraint '" + dir_ + "' --dimension 128");
    ExpectOneLineFailure(wide, "expected at most ");
    const int span = std::atoi(wide.err.c_str() + wide.err.find("expected at most ") + 17);
    ASSERT_GE(span, 3) << wide.err;
    const CliRun built = RunCli("constraint '" + dir_ + "' --dimension " + std::to_string(span));
    ASSERT_EQ(built.status, 0) << built.err;
    // The space's whole basis in one channel: the list names how many of its vectors are used.
    EXPECT_THAT(RunCli("inspect '" + dir_ + "/cmsm.dck'").out,
                AllOf(HasSubstr(": 1 set\n"), HasSubstr("128 vectors of 128 values")));
    EXPECT_THAT(RunCli("list '" + dir_ + "'").out, HasSubstr("with a constraint space"));
    for (int i = 0; i < 2; ++i) {
        const CliRun r = Recognise(i, "--method 4");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_THAT(r.out,
                    HasSubstr(TopLine(i + 1, persons_[static_cast<std::size_t>(i)].identity)));
    }
    ExpectOneLineFailure(RunCli("constraint '" + dir_ + "' --dimension 129"), "129");

    const CliRun del = RunCli("delete '" + dir_ + "' --id 2");
    ASSERT_EQ(del.status, 0) << del.err;
    EXPECT_THAT(Entries(dir_), Not(Contains(persons_[1].identity + ".dck")));
    EXPECT_THAT(RunCli("list '" + dir_ + "'").out,
                AllOf(HasSubstr("2 persons"), Not(HasSubstr(persons_[1].identity))));
    EXPECT_THAT(Recognise(0).out, HasSubstr(TopLine(1, persons_[0].identity)));
}

TEST_F(RealDescriptorCli, CalibrateStoresAThresholdThatRecogniseTakes) {
    const std::string manifest = WriteFivePersonManifest();
    const CliRun c = RunCli("calibrate '" + dir_ + "' --manifest '" + manifest + "' --far 0.1");
    ASSERT_EQ(c.status, 0) << c.err;
    // Three persons' videos give genuine scores, the two strangers' impostor scores only.
    EXPECT_THAT(c.out, HasSubstr("of 5 identities (3 enrolled in " + dir_ + ", 2 strangers"));
    const std::string stored = ReadText(dir_ + "/" + msmface::kThresholdFileName);
    ASSERT_FALSE(stored.empty());
    const std::size_t at = c.out.find("false accepts: ");
    ASSERT_NE(at, std::string::npos) << c.out;
    const int threshold = std::atoi(c.out.c_str() + at + 15);
    EXPECT_THAT(Recognise(0).out, AnyOf(HasSubstr("> " + std::to_string(threshold) + "\n"),
                                        HasSubstr("<= " + std::to_string(threshold) + "\n")));
}

TEST_F(RealDescriptorCli, WatchFindsThePersonOfAVideo) {
    // The probe video's frames, each shown for a few frames, as a camera would see them.
    auto rows = msmface::readManifest(kFaces + "/manifest.csv");
    ASSERT_TRUE(rows.ok());
    std::vector<cv::Mat> frames;
    for (const msmface::FrameRow& r : rows.value())
        if (r.identity == persons_[0].identity && r.video == persons_[0].probeVideo) {
            cv::Mat grey = cv::imread(kFaces + "/" + r.image, cv::IMREAD_GRAYSCALE);
            ASSERT_FALSE(grey.empty());
            cv::Mat bgr;
            cv::cvtColor(grey, bgr, cv::COLOR_GRAY2BGR);
            if (!frames.empty() && bgr.size() != frames.front().size()) continue;
            for (int k = 0; k < 4; ++k) frames.push_back(bgr);
        }
    const std::string video = work_ / "probe.avi";
    ASSERT_TRUE(clitest::WriteVideo(video, frames));
    const CliRun w = RunCli("watch '" + dir_ + "' --video '" + video + "' --threshold 0");
    ASSERT_EQ(w.status, 0) << w.err;
    EXPECT_THAT(w.out, HasSubstr("identified " + persons_[0].identity + " (ID 1)"));
    EXPECT_THAT(w.out, Not(HasSubstr("(ID 2)")));
    EXPECT_THAT(w.out, Not(HasSubstr("(ID 3)")));
}

}  // namespace
