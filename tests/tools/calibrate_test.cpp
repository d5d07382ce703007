// msmface calibrate: the threshold it stores is the one that holds the false-accept rate on the
// scores it measured, recognise takes it, and bad input leaves the directory without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <sstream>

#include <msmface/gallery.h>

#include "cli_support.h"

namespace {

using clitest::CliRun;
using clitest::ReadText;
using clitest::RunCli;
using clitest::Scratch;
using clitest::WriteText;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A manifest row per points-file line, all of one identity and video.
std::string ManifestRows(const std::vector<std::string>& pointsLines, const std::string& folder,
                         const std::string& identity, const std::string& video) {
    std::string rows;
    for (const std::string& line : pointsLines) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        rows += identity + "," + video + ",0,test," + folder + "/" + name + ",320,240";
        for (std::string v; fields >> v;) rows += "," + v;
        rows += "\n";
    }
    return rows;
}

std::string ManifestHeader() {
    std::string h = "identity,video,frame,split,image,width,height";
    for (int k = 0; k < 14; ++k) h += ",x" + std::to_string(k) + ",y" + std::to_string(k);
    return h + "\n";
}

// Three synthetic persons; Ann and Bob are enrolled (Bob as eval names its persons), Cy is a
// stranger. The manifest holds a later stretch of each one's take, two videos each.
class Calibrate : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* names[] = {"Ann", "Bob", "Cy"};
        manifest_ = ManifestHeader();
        for (int i = 0; i < 3; ++i) {
            const std::string n = names[i];
            const auto enrol = clitest::WriteTake(work_.path(), n, i, 100 + i, 25);
            WriteText(work_ / (n + ".txt"), clitest::Join(enrol));
            for (int v = 0; v < 2; ++v)
                manifest_ +=
                    ManifestRows(clitest::WriteTake(work_.path(), n + "v" + std::to_string(v), i,
                                                    100 + i, 8, 25 + 8 * v),
                                 work_.path(), n, std::to_string(v));
        }
        WriteText(work_ / "m.csv", manifest_);
        for (const auto& [id, name] : {std::pair<int, std::string>{1, "Ann"}, {2, "p7_Bob"}}) {
            const std::string person = name == "Ann" ? "Ann" : "Bob";
            const CliRun r =
                RunCli("enrol '" + dir() + "' --id " + std::to_string(id) + " --name " + name +
                       " --points '" + work_ / (person + ".txt") + "' --copies 3 --jitter 1");
            ASSERT_EQ(r.status, 0) << r.err;
        }
    }
    std::string dir() const { return work_ / "dict"; }

    Scratch work_;
    std::string manifest_;
};

TEST_F(Calibrate, StoresTheThresholdThatHoldsTheRateOnItsScoresAndRecogniseTakesIt) {
    const CliRun r = RunCli("calibrate '" + dir() + "' --manifest '" + work_ / "m.csv" +
                            "' --far 0.25 --scores '" + work_ / "s.csv" + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("6 videos of 3 identities (2 enrolled in"));
    EXPECT_THAT(r.out, HasSubstr("1 strangers giving impostor scores only"));
    // Every video against both persons: Ann's and Bob's own videos are genuine (4 scores), the
    // rest impostors (8, Cy's four among them).
    std::vector<int> genuine, impostor;
    std::istringstream csv(ReadText(work_ / "s.csv"));
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "probe,video,candidate,score,genuine");
    int strangers = 0;
    while (std::getline(csv, line)) {
        std::vector<std::string> f;
        std::istringstream fields(line);
        for (std::string v; std::getline(fields, v, ',');) f.push_back(v);
        ASSERT_EQ(f.size(), 5u) << line;
        const bool own = (f[0] == "Ann" && f[2] == "Ann") || (f[0] == "Bob" && f[2] == "p7_Bob");
        EXPECT_EQ(f[4], own ? "1" : "0") << line;
        (own ? genuine : impostor).push_back(std::stoi(f[3]));
        if (f[0] == "Cy") ++strangers;
    }
    ASSERT_EQ(genuine.size(), 4u);
    ASSERT_EQ(impostor.size(), 8u);
    EXPECT_EQ(strangers, 4);
    // The smallest whole threshold with at most 25 % (2 of 8) impostor scores above it.
    int expected = -1;
    for (int t = -1; t <= 1000; ++t) {
        int above = 0;
        for (int s : impostor) above += s > t ? 1 : 0;
        if (above <= 2) {
            expected = t;
            break;
        }
    }
    std::smatch m;
    ASSERT_TRUE(
        std::regex_search(r.out, m, std::regex("threshold at 25.00% false accepts: (-?\\d+) ")))
        << r.out;
    EXPECT_EQ(std::stoi(m[1]), expected);
    int accepted = 0;
    for (int s : genuine) accepted += s > expected ? 1 : 0;
    char tar[64];
    std::snprintf(tar, sizeof tar, "true accepts %.2f%%", 100.0 * accepted / 4);
    EXPECT_THAT(r.out, HasSubstr(tar));

    // The stored threshold reads back through the library and is what recognise compares with.
    auto gallery = msmface::Gallery::open(dir());
    ASSERT_TRUE(gallery.ok()) << gallery.message();
    EXPECT_EQ(gallery->threshold(), expected);
    const std::string probe = "--points '" + work_ / "Ann.txt" + "'";
    const CliRun rec = RunCli("recognise '" + dir() + "' " + probe);
    ASSERT_EQ(rec.status, 0) << rec.err;
    EXPECT_THAT(rec.out,
                ::testing::ContainsRegex("score [0-9]+ (>|<=) " + std::to_string(expected) + "\n"));
    const CliRun given = RunCli("recognise '" + dir() + "' " + probe + " --threshold 999");
    EXPECT_THAT(given.out, HasSubstr("<= 999\n"));
}

TEST_F(Calibrate, BadInputGetsOneLineAndStoresNothing) {
    auto oneLine = [&](const std::string& args, const std::string& what) {
        const CliRun r = RunCli("calibrate '" + dir() + "' " + args);
        EXPECT_NE(r.status, 0) << args;
        EXPECT_EQ(r.errLines().size(), 1u) << r.err;
        EXPECT_THAT(r.err, AllOf(StartsWith("msmface: "), HasSubstr(what))) << args;
        EXPECT_FALSE(clitest::Exists(dir() + "/threshold.txt")) << args;
    };
    const std::string m = "--manifest '" + work_ / "m.csv" + "'";
    oneLine(m + " --far 0", "--far: expected a rate above 0 and at most 0.5");
    oneLine(m + " --far 0.7", "--far");
    oneLine(m + " --method 3", "--method 3: expected");
    WriteText(work_ / "strangers.csv",
              ManifestHeader() + manifest_.substr(manifest_.find("\nCy,") + 1));
    oneLine("--manifest '" + work_ / "strangers.csv" + "'", "no identity matches a person");
    oneLine("--manifest '" + work_ / "none.csv" + "'", "none.csv");
    const CliRun missing = RunCli("calibrate '" + work_ / "nodir" + "' " + m);
    EXPECT_NE(missing.status, 0);
    EXPECT_EQ(missing.errLines().size(), 1u) << missing.err;
}

TEST_F(Calibrate, TheScoresFileNeverReplacesAnInputAndIsWrittenWhole) {
    const std::string manifest = work_ / "m.csv";
    ASSERT_EQ(::symlink(manifest.c_str(), (work_ / "soft.csv").c_str()), 0);
    ASSERT_EQ(::link(manifest.c_str(), (work_ / "hard.csv").c_str()), 0);
    const std::string registry = ReadText(dir() + "/persons.txt");
    for (const std::string& scores :
         {manifest, work_ / "soft.csv", work_ / "hard.csv", dir() + "/persons.txt"}) {
        const CliRun r = RunCli("calibrate '" + dir() + "' --manifest '" + manifest +
                                "' --far 0.25 --scores '" + scores + "'");
        EXPECT_NE(r.status, 0) << scores;
        ASSERT_EQ(r.errLines().size(), 1u) << r.err;
        EXPECT_THAT(r.err, AllOf(StartsWith("msmface: --scores " + scores + ": is "),
                                 HasSubstr("expected a file")));
        EXPECT_EQ(ReadText(manifest), manifest_) << scores;
        EXPECT_EQ(ReadText(dir() + "/persons.txt"), registry) << scores;
    }
    EXPECT_FALSE(clitest::Exists(dir() + "/threshold.txt"));

    // A run that fails half-way (the last video's picture is gone) leaves the earlier scores
    // file as it was, and no temporary beside it.
    const std::string scores = work_ / "out/s.csv";
    ASSERT_EQ(::mkdir((work_ / "out").c_str(), 0755), 0);
    WriteText(scores, "the scores of yesterday\n");
    const std::string broken = manifest_ + "Cy,9,0,test," + work_ / "gone.pgm" + ",320,240" +
                               manifest_.substr(manifest_.rfind(",320,240") + 8);
    WriteText(work_ / "broken.csv", broken);
    const CliRun r = RunCli("calibrate '" + dir() + "' --manifest '" + work_ / "broken.csv" +
                            "' --far 0.25 --scores '" + scores + "'");
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.err, HasSubstr("gone.pgm"));
    EXPECT_EQ(ReadText(scores), "the scores of yesterday\n");
    EXPECT_EQ(clitest::Entries(work_ / "out"), std::vector<std::string>{"s.csv"});
}

// Makes a folder unwritable for as long as it lives, also for root (which permissions do not
// stop): by its mode, and where that is not enough by the immutable attribute.
class UnwritableFolder {
  public:
    explicit UnwritableFolder(std::string path) : path_(std::move(path)) {
        ::chmod(path_.c_str(), 0555);
        if (writable())
            immutable_ = std::system(("chattr +i '" + path_ + "' 2>/dev/null").c_str()) == 0;
    }
    ~UnwritableFolder() {
        if (immutable_) (void)std::system(("chattr -i '" + path_ + "'").c_str());
        ::chmod(path_.c_str(), 0755);
    }
    bool writable() const {
        const std::string probe = path_ + "/.probe";
        const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0) return false;
        ::close(fd);
        ::unlink(probe.c_str());
        return true;
    }

  private:
    std::string path_;
    bool immutable_ = false;
};

TEST_F(Calibrate, AnUnwritableDirectoryIsSaidBeforeAnyScoreIsComputed) {
    const UnwritableFolder locked(dir());
    if (locked.writable()) GTEST_SKIP() << "cannot make a folder unwritable here";
    const std::string scores = work_ / "s.csv";
    const CliRun r = RunCli("calibrate '" + dir() + "' --manifest '" + work_ / "m.csv" +
                            "' --far 0.25 --scores '" + scores + "'");
    EXPECT_NE(r.status, 0);
    ASSERT_EQ(r.errLines().size(), 1u) << r.err;
    EXPECT_THAT(r.err,
                AllOf(StartsWith("msmface: " + dir() + "/threshold.txt: cannot be written")));
    // Said before the work: no score was computed, so no scores file exists.
    EXPECT_FALSE(clitest::Exists(scores));
}

}  // namespace
