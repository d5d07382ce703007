// What the msmface program does with files that are not what it expects: a gallery in the folder
// a demo or an evaluation writes to, pipes and devices named as pictures or lists, pictures whose
// header states no size or an absurd one, a list that begins with a byte order mark, and counts
// outside their range. Each is refused in one line with nothing changed, or read as meant.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "cli_support.h"
#include "tools/msmface/input/program_files.h"

namespace {

using clitest::CliRun;
using clitest::Exists;
using clitest::ExpectOneLineFailure;
using clitest::ReadText;
using clitest::RunCli;
using clitest::Scratch;
using clitest::WriteText;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Every entry of a folder (also the hidden ones) with its bytes.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
    std::map<std::string, std::string> files;
    for (const std::string& name : clitest::Entries(dir)) files[name] = ReadText(dir + "/" + name);
    files[".msmface.lock"] =
        Exists(dir + "/.msmface.lock") ? ReadText(dir + "/.msmface.lock") : "-";
    return files;
}

void CopyFolder(const std::string& from, const std::string& to) {
    ASSERT_EQ(::mkdir(to.c_str(), 0755), 0) << to;
    for (const std::string& name : clitest::Entries(from))
        WriteText(to + "/" + name, ReadText(from + "/" + name));
    WriteText(to + "/.msmface.lock", "");
}

class RunFolders : public ::testing::Test {
  protected:
    void SetUp() override {
        // Someone's gallery of two persons, made by the program itself elsewhere.
        const CliRun r = RunCli("demo --out '" + work_ / "theirs" + "' --persons 2");
        ASSERT_EQ(r.status, 0) << r.err;
        manifest_ = clitest::WriteSyntheticManifest(work_.path(), 2);
    }
    CliRun Demo(const std::string& out) const {
        return RunCli("demo --out '" + out + "' --persons 2");
    }
    CliRun Eval(const std::string& out) const {
        return RunCli("eval --manifest '" + manifest_ + "' --out '" + out +
                      "' --dimension 50 --no-sweep");
    }

    Scratch work_;
    std::string manifest_;
};

TEST_F(RunFolders, AGalleryOrAForeignFileInTheOutputFolderIsRefusedAndKept) {
    const std::string out = work_ / "out";
    ASSERT_EQ(::mkdir(out.c_str(), 0755), 0);
    CopyFolder(work_ / "theirs/dictionary", out + "/dictionary");
    const auto before = Snapshot(out + "/dictionary");
    ASSERT_GT(before.size(), 5u);
    ExpectOneLineFailure(Demo(out), out + "/dictionary: holds ");
    EXPECT_EQ(Snapshot(out + "/dictionary"), before);
    ExpectOneLineFailure(Eval(out), out + "/dictionary: holds ");
    EXPECT_EQ(Snapshot(out + "/dictionary"), before);

    // A lone file of someone else's is not ours to delete either.
    const std::string lone = work_ / "lone";
    ASSERT_EQ(::mkdir(lone.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((lone + "/dictionary").c_str(), 0755), 0);
    WriteText(lone + "/dictionary/notes.txt", "mine");
    ExpectOneLineFailure(Demo(lone), "holds notes.txt");
    EXPECT_EQ(ReadText(lone + "/dictionary/notes.txt"), "mine");
}

TEST_F(RunFolders, ARunReplacesWhatTheSameCommandLeftAndNothingElse) {
    const std::string out = work_ / "out";
    CliRun r = Demo(out);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::vector<std::string> files = clitest::Entries(out + "/dictionary");
    r = Demo(out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(clitest::Entries(out + "/dictionary"), files);

    // An evaluation does not take a demo's dictionary for its own.
    ExpectOneLineFailure(Eval(out), "which no finished msmface eval wrote there");
    EXPECT_EQ(clitest::Entries(out + "/dictionary"), files);

    // A gallery copied in under the very names the demo recorded is someone else's.
    for (const std::string& name : files)
        ASSERT_EQ(::unlink((out + "/dictionary/" + name).c_str()), 0);
    for (const std::string& name : clitest::Entries(work_ / "theirs/dictionary"))
        WriteText(out + "/dictionary/" + name, ReadText(work_ / "theirs/dictionary/" + name));
    const auto before = Snapshot(out + "/dictionary");
    ExpectOneLineFailure(Demo(out), out + "/dictionary: holds ");
    EXPECT_EQ(Snapshot(out + "/dictionary"), before);
}

TEST_F(RunFolders, AnEvaluationNeverWritesOverItsManifest) {
    const std::string out = work_ / "out";
    ASSERT_EQ(::mkdir(out.c_str(), 0755), 0);
    const std::string text = ReadText(manifest_);
    for (const std::string name : {"scores.csv", "summary.json", "report.html"}) {
        // The manifest's pictures are named relative to it: the copy lies beside them.
        const std::string copy = work_ / name;
        WriteText(copy, text);
        ASSERT_EQ(::symlink(copy.c_str(), (out + "/" + name).c_str()), 0);
        ExpectOneLineFailure(
            RunCli("eval --manifest '" + copy + "' --out '" + out + "' --dimension 50 --no-sweep"),
            "--out " + out + "/" + name + ": is the input " + copy);
        EXPECT_EQ(ReadText(copy), text) << name;
        ASSERT_EQ(::unlink((out + "/" + name).c_str()), 0);
    }
    EXPECT_FALSE(Exists(out + "/dictionary"));
}

TEST(ProgramInputs, PipesDevicesAndEmptyPicturesAreRefusedInOneLine) {
    Scratch work;
    const std::vector<std::string> lines = clitest::WriteTake(work.path(), "a", 0, 5, 25);
    WriteText(work / "good.txt", clitest::Join(lines));
    ASSERT_EQ(::mkfifo((work / "pipe.txt").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((work / "pipe.pgm").c_str(), 0600), 0);
    WriteText(work / "empty.png", "");
    const std::string coordinates = lines.front().substr(lines.front().find(' '));
    const auto enrol = [&](const std::string& points) {
        return RunCli("enrol '" + work / "dict" + "' --id 1 --name ann --points '" + points +
                      "' --copies 3 --jitter 1");
    };
    ExpectOneLineFailure(enrol(work / "pipe.txt"), "pipe.txt: not a regular file");
    ExpectOneLineFailure(enrol("/dev/zero"), "/dev/zero: not a regular file");
    for (const std::string& picture : {std::string("pipe.pgm"), std::string("empty.png")}) {
        WriteText(work / "one.txt", clitest::Join(lines) + picture + coordinates + "\n");
        const CliRun r = enrol(work / "one.txt");
        ExpectOneLineFailure(r, picture == "empty.png" ? "empty.png: empty file; expected a picture"
                                                       : "pipe.pgm: not a regular file");
        EXPECT_THAT(r.err, Not(HasSubstr("buf")));  // no decoder's internals
    }
    EXPECT_FALSE(Exists(work / "dict/persons.txt"));

    // A byte order mark before the first name is no part of it.
    WriteText(work / "marked.txt", "\xEF\xBB\xBF" + clitest::Join(lines));
    const CliRun r = enrol(work / "marked.txt");
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST(ProgramInputs, APictureIsDecodedOnlyWhenItsHeaderStatesASizeWithinTheLimits) {
    Scratch work;
    const std::vector<std::string> lines = clitest::WriteTake(work.path(), "a", 0, 5, 25);
    const std::string coordinates = lines.front().substr(lines.front().find(' '));
    // A TIFF that claims 17000 x 100 pixels (wider than any frame) and holds none: refused by
    // its header, not by what the decoder makes of it.
    std::string tiff("II*\0\x08\0\0\0\x02\0", 10);
    tiff += std::string("\x00\x01\x03\0\x01\0\0\0\x68\x42\0\0", 12);  // ImageWidth 17000
    tiff += std::string("\x01\x01\x03\0\x01\0\0\0\x64\0\0\0", 12);    // ImageLength 100
    tiff += std::string(4, '\0');
    WriteText(work / "wide.tif", tiff);
    // A picture OpenCV decodes but whose kind does not state its size where it is read: refused.
    std::vector<unsigned char> raster;
    ASSERT_TRUE(cv::imencode(".ras", cv::Mat(240, 320, CV_8UC1, cv::Scalar(90)), raster));
    WriteText(work / "frame.ras", std::string(raster.begin(), raster.end()));
    const std::pair<std::string, std::string> cases[] = {
        {"wide.tif", "wide.tif: 17000 x 100 pixels is outside what a camera frame can be"},
        {"frame.ras", "frame.ras: not a picture of a known kind"},
    };
    for (const auto& [picture, what] : cases) {
        WriteText(work / "one.txt", clitest::Join(lines) + picture + coordinates + "\n");
        ExpectOneLineFailure(RunCli("enrol '" + work / "dict" + "' --id 1 --name ann --points '" +
                                    work / "one.txt" + "'"),
                             what);
    }
    // TIFF and WebP frames whose size is stated are read as before.
    std::string list;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string name = "a_" + std::to_string(i) + (i % 2 == 0 ? ".tif" : ".webp");
        const cv::Mat frame =
            cv::imread(work / ("a_" + std::to_string(i) + ".pgm"), cv::IMREAD_GRAYSCALE);
        ASSERT_TRUE(cv::imwrite(work / name, frame, {cv::IMWRITE_WEBP_QUALITY, 101}));
        list += name + lines[i].substr(lines[i].find(' ')) + "\n";
    }
    WriteText(work / "formats.txt", list);
    const CliRun r = RunCli("enrol '" + work / "dict" + "' --id 1 --name ann --points '" +
                            work / "formats.txt" + "' --copies 3 --jitter 1");
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST(ProgramFlags, CountsOutsideTheirRangeAreRefusedNamingTheFlag) {
    Scratch work;
    WriteText(work / "a.txt", clitest::Join(clitest::WriteTake(work.path(), "a", 0, 5, 25)));
    CliRun r = RunCli("enrol '" + work / "dict" + "' --id 1 --name ann --points '" +
                      work / "a.txt" + "' --copies 3 --jitter 1");
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string probe = " --points '" + work / "a.txt" + "'";
    for (const std::string top : {"-1", "0"})
        ExpectOneLineFailure(RunCli("recognise '" + work / "dict" + "'" + probe + " --top " + top),
                             "--top " + top + ": expected 1 or more");
    ExpectOneLineFailure(
        RunCli("watch '" + work / "dict" + "' --video '" + work / "v.avi" + "' --frames -3"),
        "--frames -3: expected 1 or more (or 0: the whole video)");
    r = RunCli("recognise '" + work / "dict" + "'" + probe + " --top 1000000");
    EXPECT_EQ(r.status, 0) << r.err;
}

// The check behind every output option: an output is refused when it is an input under any name,
// or lies in a folder whose files are all inputs (a dictionary directory), also when it is not
// written yet and its folder is reached through a link.
TEST(ProgramOutputs, AnInputIsRecognisedUnderEveryName) {
    Scratch work;
    WriteText(work / "in.avi", "video");
    ASSERT_EQ(::mkdir((work / "dict").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("in.avi", (work / "soft.avi").c_str()), 0);
    ASSERT_EQ(::link((work / "in.avi").c_str(), (work / "hard.avi").c_str()), 0);
    ASSERT_EQ(::symlink(work.path().c_str(), (work / "here").c_str()), 0);
    msmcli::InputFiles inputs;
    inputs.add(work / "in.avi");
    inputs.addFolder(work / "dict");
    inputs.add(work / "missing-model.dat");  // named, not there: never written over either
    for (const std::string& same : {work / "in.avi", work / "soft.avi", work / "hard.avi",
                                    work / "here/in.avi", work / "./dict/../in.avi"})
        EXPECT_THAT(inputs.refuseOverwrite("--out", same),
                    StartsWith("--out " + same + ": is the input " + work / "in.avi"));
    for (const std::string& inside : {work / "dict/new.avi", work / "here/dict/new.avi"})
        EXPECT_THAT(inputs.refuseOverwrite("--annotate", inside),
                    StartsWith("--annotate " + inside + ": is inside " + work / "dict"));
    EXPECT_THAT(inputs.refuseOverwrite("--out", work / "here/missing-model.dat"),
                HasSubstr("is the input " + work / "missing-model.dat"));
    for (const std::string& other : {work / "out.avi", work / "here/out.avi", work / "dictionary"})
        EXPECT_EQ(inputs.refuseOverwrite("--out", other), "") << other;
}

}  // namespace
