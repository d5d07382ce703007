// The msmface program driven through its command line: the enrol / list / recognise / delete
// cycle keeps the registry and the files in step, the constraint space is built and used, every
// bad input gets one line naming what was wrong and leaves the dictionary as it was, and the demo
// and the evaluation produce their reports and pictures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>

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
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kNames[] = {"alice", "bob", "carol"};

// Frames of three synthetic persons written once: 25 frames of a take to enrol from, and the 16
// frames that follow in the same take to recognise, as a camera would see the person again.
class Cli : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        frames_ = std::make_unique<Scratch>();
        for (int i = 0; i < 3; ++i) {
            const std::string n = kNames[i];
            WriteText(*frames_ / (n + ".txt"),
                      clitest::Join(clitest::WriteTake(frames_->path(), n, i, 100 + i, 25)));
            WriteText(
                *frames_ / (n + "_probe.txt"),
                clitest::Join(clitest::WriteTake(frames_->path(), n + "p", i, 100 + i, 16, 25)));
        }
    }
    static void TearDownTestSuite() { frames_.reset(); }

    static std::string Points(const std::string& name) { return *frames_ / (name + ".txt"); }
    static std::string Frames(const std::string& file) { return *frames_ / file; }

    // Enrols person i of kNames with ID i + 1 from 25 frames fed three times.
    static CliRun Enrol(const std::string& dir, int i) {
        return RunCli("enrol '" + dir + "' --id " + std::to_string(i + 1) + " --name " + kNames[i] +
                      " --points '" + Points(kNames[i]) + "' --copies 3 --jitter 1");
    }

    static std::unique_ptr<Scratch> frames_;
};

std::unique_ptr<Scratch> Cli::frames_;

TEST_F(Cli, EnrolListRecogniseDeleteKeepRegistryAndFilesInStep) {
    Scratch work;
    const std::string dir = work / "dict";  // created by the first enrolment
    for (int i = 0; i < 3; ++i) {
        const CliRun r = Enrol(dir, i);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_THAT(r.out, HasSubstr(std::string("enrolled ") + kNames[i]));
    }
    EXPECT_THAT(Entries(dir),
                ElementsAre("alice.bmp", "alice.dck", "alice.mck", "bob.bmp", "bob.dck", "bob.mck",
                            "carol.bmp", "carol.dck", "carol.mck", "persons.txt"));
    CliRun list = RunCli("list '" + dir + "'");
    ASSERT_EQ(list.status, 0);
    EXPECT_THAT(list.out, AllOf(HasSubstr("3 persons"), HasSubstr("1  alice"), HasSubstr("2  bob"),
                                HasSubstr("3  carol")));

    // A fresh take of each person is ranked first among the three, by MSM and single pattern.
    for (int i = 0; i < 3; ++i)
        for (const char* method : {"1", "0"}) {
            const CliRun r = RunCli("recognise '" + dir + "' --points '" +
                                    Frames(std::string(kNames[i]) + "_probe.txt") + "' --method " +
                                    method + " --copies 2 --jitter 1");
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_THAT(r.out, HasSubstr(TopLine(i + 1, kNames[i]))) << r.out;
        }

    const CliRun del = RunCli("delete '" + dir + "' --id 2");
    ASSERT_EQ(del.status, 0) << del.err;
    EXPECT_THAT(del.out, HasSubstr("deleted ID 2 bob"));
    EXPECT_THAT(Entries(dir), ElementsAre("alice.bmp", "alice.dck", "alice.mck", "carol.bmp",
                                          "carol.dck", "carol.mck", "persons.txt"));
    list = RunCli("list '" + dir + "'");
    EXPECT_THAT(list.out, AllOf(HasSubstr("2 persons"), Not(HasSubstr("bob"))));

    // The ID number and the key name are free again.
    ASSERT_EQ(Enrol(dir, 1).status, 0);
    EXPECT_THAT(RunCli("list '" + dir + "'").out, HasSubstr("2  bob"));
}

TEST_F(Cli, ConstraintSpaceIsBuiltDescribedAndUsed) {
    Scratch work;
    const std::string dir = work / "dict";
    for (int i = 0; i < 3; ++i) ASSERT_EQ(Enrol(dir, i).status, 0);
    const std::string probe = Frames("carol_probe.txt");

    ExpectOneLineFailure(RunCli("recognise '" + dir + "' --method 4 --points '" + probe + "'"),
                         "no constraint space yet");
    const CliRun built = RunCli("constraint '" + dir + "' --dimension 100");
    ASSERT_EQ(built.status, 0) << built.err;
    for (const char* f : {"cmsm.dck", "cmsm.dckev", "cmsm.mck", "constraint.list"})
        EXPECT_TRUE(Exists(dir + "/" + f)) << f;
    EXPECT_THAT(RunCli("list '" + dir + "'").out, HasSubstr("with a constraint space"));

    const CliRun space = RunCli("inspect '" + dir + "/cmsm.dck'");
    ASSERT_EQ(space.status, 0);
    EXPECT_THAT(space.out, AllOf(HasSubstr("5 sets"), HasSubstr("256 vectors of 256 values")));
    // The class data sum 30 unit vectors per person and channel: each trace is 3 x 30.
    const CliRun sums = RunCli("inspect '" + dir + "/cmsm.mck'");
    EXPECT_THAT(sums.out, AllOf(HasSubstr("5 matrices"), HasSubstr("trace 90")));
    const CliRun person = RunCli("inspect '" + dir + "/alice.dck'");
    EXPECT_THAT(person.out, AllOf(HasSubstr("dictionary chunk file"), HasSubstr("5 sets")));

    for (const char* method : {"4", "2"}) {
        const CliRun r = RunCli("recognise '" + dir + "' --method " + method + " --points '" +
                                probe + "' --copies 2 --jitter 1");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_THAT(r.out, HasSubstr(TopLine(3, "carol"))) << r.out;
    }
    ExpectOneLineFailure(RunCli("constraint '" + dir + "' --dimension 300"), "--dimension 300");
}

TEST_F(Cli, RegistryAndFilesThatDisagreeAreResolvedByTheRegistry) {
    Scratch work;
    const std::string dir = work / "dict";
    for (int i = 0; i < 3; ++i) ASSERT_EQ(Enrol(dir, i).status, 0);
    // An enrolment cut off after the files but before the registry: files nobody lists.
    WriteText(dir + "/persons.txt", "1 alice\n2 bob\n");
    CliRun list = RunCli("list '" + dir + "'");
    EXPECT_THAT(list.out, AllOf(HasSubstr("2 persons"), Not(HasSubstr("carol"))));
    // A deletion cut off after the registry... the other way round: a listed person without files.
    ASSERT_EQ(std::remove((dir + "/bob.dck").c_str()), 0);
    list = RunCli("list '" + dir + "'");
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.out, AllOf(HasSubstr("1 person "), HasSubstr("alice")));
    EXPECT_THAT(list.err, HasSubstr("person 2 (bob) has no dictionary file; ignored"));
    const CliRun r = RunCli("recognise '" + dir + "' --points '" + Frames("alice_probe.txt") + "'");
    EXPECT_EQ(r.status, 0) << r.err;
    // The unlisted person's files keep its name until a repair moves them to lost+found (an
    // enrolment would replace them); the half-listed one must be deleted first.
    const CliRun unlisted = Enrol(dir, 2);
    EXPECT_EQ(unlisted.status, 1);
    EXPECT_THAT(unlisted.err, HasSubstr("no person of the registry names it"));
    // The repair reports bob's missing dictionary as well, which only a deletion settles.
    const CliRun repair = RunCli("check '" + dir + "' --repair");
    EXPECT_THAT(repair.out + repair.err, HasSubstr("carol.dck to "));
    EXPECT_EQ(Enrol(dir, 2).status, 0);
    const CliRun halfListed = Enrol(dir, 1);
    EXPECT_NE(halfListed.status, 0);
    EXPECT_THAT(halfListed.errLines(),
                ElementsAre(HasSubstr("warning"), HasSubstr("delete it first")));
    EXPECT_EQ(RunCli("delete '" + dir + "' --id 2").status, 0);
    EXPECT_EQ(Enrol(dir, 1).status, 0);
}

TEST_F(Cli, ADamagedDictionaryIsAWarningAndEveryCommandGoesOn) {
    Scratch work;
    const std::string dir = work / "dict";
    for (int i = 0; i < 3; ++i) ASSERT_EQ(Enrol(dir, i).status, 0);
    {
        std::fstream f(dir + "/bob.dck", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(1000);
        f.write("AAA", 3);
    }
    const std::string warning =
        "msmface: warning: " + dir + "/bob.dck: set 1, vector 1 has length ";
    CliRun list = RunCli("list '" + dir + "'");
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_THAT(list.out, AllOf(HasSubstr("2 persons"), HasSubstr("alice"), HasSubstr("carol")));
    ASSERT_EQ(list.errLines().size(), 1u) << list.err;
    EXPECT_THAT(list.errLines()[0],
                AllOf(StartsWith(warning), EndsWith("; person 2 (bob) ignored")));
    const CliRun r = RunCli("recognise '" + dir + "' --points '" + Frames("alice_probe.txt") + "'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr(TopLine(1, "alice")));
    const CliRun check = RunCli("check '" + dir + "'");
    EXPECT_NE(check.status, 0);
    EXPECT_THAT(check.out + check.err, HasSubstr(dir + "/bob.dck: set 1, vector 1 has length"));
    const CliRun repair = RunCli("check --repair '" + dir + "'");
    EXPECT_THAT(repair.out + repair.err, HasSubstr("moved " + dir + "/bob.dck to"));
    EXPECT_TRUE(Exists(dir + "/lost+found/bob.dck"));
    const CliRun deleted = RunCli("delete '" + dir + "' --id 2");
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_THAT(ReadText(dir + "/persons.txt"), Not(HasSubstr("bob")));
}

TEST_F(Cli, BadInputGetsOneLineAndLeavesTheDictionaryAsItWas) {
    Scratch work;
    const std::string dir = work / "dict";
    ASSERT_EQ(Enrol(dir, 0).status, 0);
    const std::string registry = ReadText(dir + "/persons.txt");
    const std::vector<std::string> files = Entries(dir);
    const std::string good = ReadText(Points("bob"));
    auto enrolFrom = [&](const std::string& points) {
        return RunCli("enrol '" + dir + "' --id 2 --name bob --points '" + points + "' --copies 6");
    };

    ExpectOneLineFailure(enrolFrom(work / "none.txt"), "none.txt: cannot be read");

    std::string cut = good;
    const std::size_t end = cut.find('\n');
    const std::size_t last = cut.rfind(' ', end);
    cut.erase(last, end - last);  // the first row loses its last coordinate
    WriteText(work / "short.txt", cut);
    ExpectOneLineFailure(enrolFrom(work / "short.txt"),
                         "short.txt: line 1: expected an image name and 28 coordinates, found 28");

    std::string word = good;
    const std::size_t at = word.find(' ', word.find(' ') + 1);
    word.insert(at + 1, "abc");  // y0 of the first row no longer a number
    WriteText(work / "word.txt", word);
    ExpectOneLineFailure(enrolFrom(work / "word.txt"), "line 1: expected a number for y0");

    WriteText(work / "ghost.txt", "ghost.pgm" + good.substr(good.find(' ')));
    ExpectOneLineFailure(enrolFrom(work / "ghost.txt"), "ghost.pgm: cannot be read");

    WriteText(work / "deep.pgm", "P5\n4 4\n65535\n" + std::string(32, '\x10'));
    WriteText(work / "deep.txt", "deep.pgm" + good.substr(good.find(' ')));
    ExpectOneLineFailure(enrolFrom(work / "deep.txt"), "deep.pgm: 16 bits per sample");

    WriteText(work / "text.pgm", "not a picture at all");
    WriteText(work / "text.txt", "text.pgm" + good.substr(good.find(' ')));
    ExpectOneLineFailure(enrolFrom(work / "text.txt"), "text.pgm: not a picture");

    // Too few frames for a registration, and frames whose points miss the face.
    ExpectOneLineFailure(
        RunCli("enrol '" + dir + "' --id 2 --name bob --points '" + Points("bob") + "'"),
        "only 25 of 25 frames gave a face");

    ExpectOneLineFailure(Enrol(dir, 0), "--id 1: the ID number is taken by \"alice\"");
    ExpectOneLineFailure(RunCli("enrol '" + dir + "' --id 5 --name alice --points '" +
                                Points("alice") + "' --copies 6"),
                         "--name alice: the key name is taken by ID 1");
    ExpectOneLineFailure(RunCli("enrol '" + dir + "' --id 5 --name ../x --points '" +
                                Points("alice") + "' --copies 6"),
                         "--name \"../x\"");
    ExpectOneLineFailure(
        RunCli("enrol '" + dir + "' --id 0 --name x --points '" + Points("alice") + "' --copies 6"),
        "--id 0: expected an ID number of 1 or more");
    ExpectOneLineFailure(RunCli("delete '" + dir + "' --id 9"), "--id 9: no person");
    ExpectOneLineFailure(
        RunCli("recognise '" + dir + "' --method 3 --points '" + Points("alice") + "'"),
        "--method 3");
    ExpectOneLineFailure(RunCli("enrol '" + dir + "' --id 2 --name bob --copies 6"),
                         "expected either --manifest FILE --identity NAME or --points FILE");

    EXPECT_EQ(ReadText(dir + "/persons.txt"), registry);
    EXPECT_EQ(Entries(dir), files);

    // A directory that is a file, or one that cannot be made.
    WriteText(work / "plain", "x");
    ExpectOneLineFailure(RunCli("list '" + work / "plain" + "'"),
                         "expected a dictionary directory, found a file");
    ExpectOneLineFailure(RunCli("enrol '" + work / "plain/sub" + "' --id 1 --name a --points '" +
                                Points("alice") + "' --copies 6"),
                         "plain");
    ExpectOneLineFailure(RunCli("list '" + work / "missing" + "'"), "does not exist");

    // Unknown commands and options: usage errors, exit 2.
    CliRun usage = RunCli("frobnicate");
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.errLines().size(), 1u) << usage.err;
    usage = RunCli("list '" + dir + "' --colour");
    EXPECT_EQ(usage.status, 2);
    EXPECT_THAT(usage.err, HasSubstr("--colour"));
}

TEST_F(Cli, ManifestRowsAreCheckedAgainstTheirImages) {
    Scratch work;
    std::string manifest = "identity,video,frame,split,image,width,height";
    for (int k = 0; k < 14; ++k) manifest += ",x" + std::to_string(k) + ",y" + std::to_string(k);
    manifest += "\n";
    const std::string header = manifest;
    std::istringstream rows(ReadText(Points("alice")));
    for (std::string line; std::getline(rows, line);) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        manifest += "alice,0,0,training," + Frames(name) + ",320,240";
        for (std::string v; fields >> v;) manifest += "," + v;
        manifest += "\n";
    }
    WriteText(work / "m.csv", manifest);
    const std::string dir = work / "dict";
    const CliRun ok = RunCli("enrol '" + dir + "' --id 1 --name alice --manifest '" +
                             work / "m.csv" + "' --identity alice --copies 6 --jitter 1");
    EXPECT_EQ(ok.status, 0) << ok.err;

    std::string wrongSize = manifest;
    wrongSize.replace(wrongSize.find(",320,240"), 8, ",321,240");
    WriteText(work / "size.csv", wrongSize);
    ExpectOneLineFailure(RunCli("enrol '" + dir + "' --id 2 --name b --manifest '" +
                                work / "size.csv" + "' --identity alice --copies 6"),
                         "is 320 x 240 pixels; the row expects 321 x 240");
    ExpectOneLineFailure(RunCli("enrol '" + dir + "' --id 2 --name b --manifest '" +
                                work / "m.csv" + "' --identity nobody"),
                         "no rows of identity \"nobody\"");
    WriteText(work / "cut.csv", header + "alice,0,0,training,x.pgm,320,240,1,2\n");
    ExpectOneLineFailure(RunCli("eval --manifest '" + work / "cut.csv" + "'"),
                         "cut.csv: line 2: expected 35 fields as in the header, found 9");
    EXPECT_THAT(Entries(dir), ElementsAre("alice.bmp", "alice.dck", "alice.mck", "persons.txt"));
}

TEST_F(Cli, RecogniseTakesTheDirectorysStoredThresholdUnlessOneIsGiven) {
    Scratch work;
    const std::string dir = work / "dict";
    for (int i = 0; i < 2; ++i) ASSERT_EQ(Enrol(dir, i).status, 0);
    const std::string recognise = "recognise '" + dir + "' --points '" + Frames("alice_probe.txt") +
                                  "' --copies 2 --jitter 1";
    const CliRun plain = RunCli(recognise);
    ASSERT_EQ(plain.status, 0) << plain.err;
    EXPECT_THAT(plain.out, HasSubstr(" > 850\n"));  // no stored threshold: the default
    int score = 0;
    ASSERT_EQ(std::sscanf(plain.out.substr(plain.out.find(TopLine(1, "alice"))).c_str(),
                          "%*d %*d %*s %d", &score),
              1);
    WriteText(dir + "/threshold.txt", std::to_string(score - 1) + "\n");
    EXPECT_THAT(RunCli(recognise).out,
                HasSubstr("identified: alice (ID 1), score " + std::to_string(score) + " > " +
                          std::to_string(score - 1)));
    EXPECT_THAT(RunCli(recognise + " --threshold 1000").out, HasSubstr(" <= 1000\n"));
    WriteText(dir + "/threshold.txt", "high\n");
    ExpectOneLineFailure(RunCli(recognise),
                         "threshold.txt: line 1: expected an identify threshold of 0 to 1000");
    ExpectOneLineFailure(RunCli(recognise + " --threshold 1001"), "--threshold");
}

TEST_F(Cli, InspectRefusesWhatIsNotAnEngineFile) {
    Scratch work;
    WriteText(work / "notes.txt", "hello");
    ExpectOneLineFailure(RunCli("inspect '" + work / "notes.txt" + "'"), "not a recognised file");
    WriteText(work / "cut.dck", std::string("DCK\x05\0\0\0", 7));
    ExpectOneLineFailure(RunCli("inspect '" + work / "cut.dck" + "'"), "truncated or malformed");
}

TEST(CliDemo, EnrolsRecognisesAndDrawsTheBuiltInPersons) {
    Scratch work;
    const CliRun r = RunCli("demo --out '" + work / "out" + "' --persons 4");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, AllOf(HasSubstr("probe5      stranger"), HasSubstr("summary: ")));
    // Every enrolled person is found first, whether or not the threshold accepts the score.
    for (int i = 1; i <= 4; ++i)
        EXPECT_THAT(r.out, HasSubstr("person" + std::to_string(i) + "    person" +
                                     std::to_string(i) + " "));
    const std::string png = ReadText(work / "out/demo.png");
    ASSERT_GT(png.size(), 8u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_THAT(RunCli("list '" + work / "out/dictionary" + "'").out, HasSubstr("4 persons"));
}

TEST(CliEval, ReportsEveryMethodAndWritesScoresAndPage) {
    Scratch work;
    const std::string manifest = clitest::WriteSyntheticManifest(work.path(), 4);
    const CliRun r = RunCli("eval --manifest '" + manifest + "' --out '" + work / "out" +
                            "' --dimension 100 --no-sweep");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out,
                AllOf(HasSubstr("4 enrolled, 4 probes per method"), HasSubstr("0 SINGLE PATTERN"),
                      HasSubstr("1 MSM"), HasSubstr("4 CMSM")));
    const std::string csv = ReadText(work / "out/scores.csv");
    EXPECT_THAT(csv, StartsWith("method,probe,candidate,score,genuine\n"));
    // Every method, probe and candidate once, in that order; the genuine flag on the row whose
    // candidate is the probe's own person (enrolled as "p<i+1>_P<i>") and on no other.
    struct Figures {
        int firstRank = 0, trueAccepts = 0, falseAccepts = 0;
    };
    std::map<std::string, Figures> byMethod;
    std::istringstream rows(csv);
    std::string line;
    std::getline(rows, line);
    for (const std::string method : {"0", "1", "4"})
        for (int p = 0; p < 4; ++p) {
            std::vector<int> scores;
            for (int c = 0; c < 4; ++c) {
                ASSERT_TRUE(std::getline(rows, line)) << "method " << method << " probe " << p;
                std::vector<std::string> f;
                std::istringstream fields(line);
                for (std::string v; std::getline(fields, v, ',');) f.push_back(v);
                ASSERT_EQ(f.size(), 5u) << line;
                EXPECT_EQ(f[0], method) << line;
                EXPECT_EQ(f[1], "P" + std::to_string(p)) << line;
                EXPECT_EQ(f[2], "p" + std::to_string(c + 1) + "_P" + std::to_string(c)) << line;
                EXPECT_EQ(f[4], c == p ? "1" : "0") << line;
                ASSERT_EQ(f[3].find_first_not_of("0123456789"), std::string::npos) << line;
                scores.push_back(std::stoi(f[3]));
                EXPECT_LE(scores.back(), 1000) << line;
            }
            Figures& fig = byMethod[method];
            int above = 0;
            for (int c = 0; c < 4; ++c) {
                above += c != p && scores[c] >= scores[p] ? 1 : 0;
                if (scores[c] > 850) ++(c == p ? fig.trueAccepts : fig.falseAccepts);
            }
            fig.firstRank += above == 0 ? 1 : 0;
        }
    EXPECT_FALSE(std::getline(rows, line)) << "a row too many: " << line;
    // The table's rank-1 and its accepts at the threshold (850) are those of the scores file.
    const auto percent = [](int part, int whole) {
        char text[16];
        std::snprintf(text, sizeof text, "%.1f%%", 100.0 * part / whole);
        return std::string(text);
    };
    for (const auto& [method, fig] : byMethod) {
        std::istringstream out(r.out);
        std::vector<std::string> words;
        while (std::getline(out, line))
            if (line.rfind(method + " ", 0) == 0 && line.find('%') != std::string::npos) {
                std::istringstream split(line);
                for (std::string w; split >> w;) words.push_back(w);
            }
        ASSERT_GE(words.size(), 4u) << "no table row of method " << method;
        const auto rank1 = std::find_if(words.begin(), words.end(),
                                        [](const std::string& w) { return w.back() == '%'; });
        EXPECT_EQ(*rank1, percent(fig.firstRank, 4)) << method;
        EXPECT_EQ(words[words.size() - 2], percent(fig.trueAccepts, 4)) << method;
        EXPECT_EQ(words.back(), percent(fig.falseAccepts, 12)) << method;
    }
    EXPECT_THAT(ReadText(work / "out/report.html"), StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(ReadText(work / "out/summary.json"), HasSubstr("\"sweep\": [],"));  // --no-sweep
    EXPECT_FALSE(Exists(work / "out/eval.png"));
    EXPECT_THAT(Entries(work / "out"), ElementsAre(".msmface-eval-run", "dictionary", "report.html",
                                                   "scores.csv", "summary.json"));
}

}  // namespace
