// The msmface program on pictures without points: video files and cameras that do not open, a
// video without any face, a broken landmark model, each refused in one line with the dictionary
// left as it was; and, on real faces, a person enrolled from a video, found again by watch, a
// stranger's video not taken for that person, and detect's points file read back by --points.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>

#include <msmface/frame_lists.h>
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
using clitest::WriteText;
using clitest::WriteVideo;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

#ifdef MSMFACE_HAVE_DETECT
constexpr bool kDetector = true;
#else
constexpr bool kDetector = false;
#endif

const std::string kFaces = std::string(MSMFACE_SHARED_DIR) + "/faces";

// A dictionary of two synthetic persons enrolled from points files, to check that a refused
// command leaves it as it was.
class DictionaryAtRest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = work_ / "dict";
        for (int i = 0; i < 2; ++i) {
            const std::string name = i == 0 ? "ann" : "ben";
            WriteText(work_ / (name + ".txt"),
                      clitest::Join(clitest::WriteTake(work_.path(), name, i, 300 + i, 25)));
            const CliRun r =
                RunCli("enrol '" + dir_ + "' --id " + std::to_string(i + 1) + " --name " + name +
                       " --points '" + work_ / (name + ".txt") + "' --copies 3 --jitter 1");
            ASSERT_EQ(r.status, 0) << r.err;
        }
        registry_ = ReadText(dir_ + "/persons.txt");
        files_ = Entries(dir_);
    }
    void ExpectUnchanged() const {
        EXPECT_EQ(ReadText(dir_ + "/persons.txt"), registry_);
        EXPECT_EQ(Entries(dir_), files_);
    }
    CliRun Enrol(const std::string& source) const {
        return RunCli("enrol '" + dir_ + "' --id 7 --name newcomer " + source);
    }

    Scratch work_;
    std::string dir_;
    std::string registry_;
    std::vector<std::string> files_;
};

TEST_F(DictionaryAtRest, SourcesThatDoNotOpenAreRefusedInOneLine) {
    WriteText(work_ / "notes.avi", "these are notes, not a video");
    ExpectOneLineFailure(Enrol("--video '" + work_ / "notes.avi" + "'"),
                         "notes.avi: not a video that can be decoded");
    ExpectOneLineFailure(Enrol("--video '" + work_ / "gone.mp4" + "'"),
                         "gone.mp4: cannot open the video (No such file");
    ExpectOneLineFailure(Enrol("--video '" + work_.path() + "'"),
                         "cannot open the video (expected a file)");
    ExpectOneLineFailure(Enrol("--camera 63"), "--camera 63: no such camera (/dev/video63");
    ExpectOneLineFailure(Enrol("--camera -3"), "--camera -3: expected a camera index");
    ExpectOneLineFailure(Enrol("--camera 0 --frames -2"), "--frames -2: expected 1 or more");
    ExpectOneLineFailure(Enrol("--video a.mp4 --video b.mp4"), "--video: expected one video file");
    ExpectOneLineFailure(Enrol("--points '" + work_ / "ann.txt" + "' --images x.png"),
                         "expected one source");
    ExpectOneLineFailure(RunCli("recognise '" + dir_ + "' --video '" + work_ / "notes.avi" + "'"),
                         "notes.avi: not a video");
    ExpectOneLineFailure(RunCli("watch '" + dir_ + "' --video '" + work_ / "notes.avi" + "'"),
                         "notes.avi: not a video");
    ExpectOneLineFailure(RunCli("watch '" + dir_ + "' --camera 63"), "--camera 63: no such camera");
    ExpectOneLineFailure(RunCli("watch '" + dir_ + "'"), "expected --video FILE or --camera INDEX");
    ExpectOneLineFailure(RunCli("watch '" + dir_ + "' --video v.avi --annotate out.gif"),
                         "--annotate out.gif: expected a video name ending in .mp4 or .avi");
    ExpectOneLineFailure(
        RunCli("detect --video '" + work_ / "notes.avi" + "' --out '" + work_ / "p.txt" + "'"),
        "notes.avi: not a video");
    EXPECT_FALSE(Exists(work_ / "p.txt"));

    // A picture whose header claims 100000 x 100000 pixels is refused before it is decoded.
    std::string png("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\x01\x86\xa0\0\x01\x86\xa0\x08\0\0\0\0", 29);
    WriteText(work_ / "huge.png", png + std::string(4, '\0'));
    const std::string line = ReadText(work_ / "ann.txt");
    WriteText(work_ / "huge.txt",
              "huge.png" + line.substr(line.find(' '), line.find('\n') - line.find(' ')));
    ExpectOneLineFailure(Enrol("--points '" + work_ / "huge.txt" + "'"),
                         "huge.png: 100000 x 100000 pixels is outside what a camera frame can be");
    ExpectUnchanged();
}

TEST_F(DictionaryAtRest, PicturesWithoutAFaceOrWithoutADetectorEnrolNoOne) {
    // A video of plain grey frames with some noise: nothing in it is a face.
    std::vector<cv::Mat> blank;
    cv::RNG rng(5);
    for (int k = 0; k < 12; ++k) {
        cv::Mat f(120, 160, CV_8UC3, cv::Scalar(110, 120, 130));
        cv::Mat noise(f.size(), f.type());
        rng.fill(noise, cv::RNG::UNIFORM, 0, 20);
        blank.push_back(f + noise);
    }
    ASSERT_TRUE(WriteVideo(work_ / "blank.avi", blank));
    cv::imwrite(work_ / "wall.png", blank.front());
    const CliRun fromVideo = Enrol("--video '" + work_ / "blank.avi" + "'");
    const CliRun fromPicture = Enrol("--images '" + work_ / "wall.png" + "'");
    if (kDetector) {
        ExpectOneLineFailure(fromVideo, "blank.avi: no face found in any of the 12 frames");
        ExpectOneLineFailure(fromPicture, "--images: no face found in any of the 1 frames");
        ExpectOneLineFailure(
            Enrol("--video '" + work_ / "blank.avi" + "' --model '" + work_ / "none.dat" + "'"),
            "none.dat");
        WriteText(work_ / "broken.dat", std::string(4096, '\x07'));
        ExpectOneLineFailure(
            Enrol("--video '" + work_ / "blank.avi" + "' --model '" + work_ / "broken.dat" + "'"),
            "broken.dat");
    } else {
        ExpectOneLineFailure(fromVideo, "--video: finding faces is not available in this build");
        ExpectOneLineFailure(fromPicture, "--images: finding faces is not available in this build");
    }
    WriteText(work_ / "text.png", "no picture");
    ExpectOneLineFailure(Enrol("--images '" + work_ / "text.png" + "'"),
                         kDetector ? "text.png: not a picture" : "not available in this build");
    ExpectUnchanged();
}

// Frames of the shared real faces, by person, in the manifest's order of videos and frames.
class RealFaces : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (!Exists(kFaces + "/manifest.csv")) return;
        const auto list = msmface::readManifest(kFaces + "/manifest.csv");
        if (!list.ok()) return;
        for (const msmface::FrameRow& row : list.value()) rows_[row.identity].push_back(row);
    }
    void SetUp() override {
        if (!kDetector) GTEST_SKIP() << "built without the detector";
        if (rows_.empty()) GTEST_SKIP() << kFaces << " is absent";
    }

    // A video of the person's frames, all at the first frame's size, played `rounds` times, so
    // that the video is as long as a few seconds of camera.
    static std::string PersonVideo(const Scratch& work, const std::string& identity, int rounds) {
        std::vector<cv::Mat> frames;
        cv::Size size;
        for (int r = 0; r < rounds; ++r)
            for (const msmface::FrameRow& row : rows_.at(identity)) {
                cv::Mat f = cv::imread(kFaces + "/" + row.image, cv::IMREAD_COLOR);
                if (f.empty()) continue;
                if (size.area() == 0) size = f.size();
                if (f.size() != size) cv::resize(f, f, size);
                frames.push_back(f);
            }
        const std::string path = work / (identity + ".avi");
        return WriteVideo(path, frames) ? path : std::string();
    }

    static std::map<std::string, std::vector<msmface::FrameRow>> rows_;
};

std::map<std::string, std::vector<msmface::FrameRow>> RealFaces::rows_;

constexpr const char* kPerson = "Amy_Brenneman";
constexpr const char* kStranger = "Angela_Bassett";
constexpr const char* kOther = "Agnes_Bruckner";

TEST_F(RealFaces, APersonEnrolledFromAVideoIsWatchedAndAStrangerIsNot) {
    Scratch work;
    const std::string dir = work / "dict";
    const std::string person = PersonVideo(work, kPerson, 5);
    const std::string stranger = PersonVideo(work, kStranger, 3);
    const std::string other = PersonVideo(work, kOther, 5);
    ASSERT_FALSE(person.empty() || stranger.empty() || other.empty()) << "video writer failed";

    CliRun r = RunCli("enrol '" + dir + "' --id 1 --name amy --video '" + person +
                      "' --copies 2 --jitter 1");
    ASSERT_EQ(r.status, 0) << r.err;
    r = RunCli("enrol '" + dir + "' --id 2 --name agnes --video '" + other +
               "' --copies 2 --jitter 1");
    ASSERT_EQ(r.status, 0) << r.err;

    // Scores of real faces stay below the default of 850: a calibrated threshold is given.
    const std::string annotated = work / "watched.avi";
    r = RunCli("watch '" + dir + "' --video '" + person + "' --threshold 700 --annotate '" +
               annotated + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, AllOf(HasSubstr("identified amy (ID 1), score"), HasSubstr("summary: "),
                             Not(HasSubstr("identified agnes"))))
        << r.out;
    cv::VideoCapture written(annotated, cv::CAP_FFMPEG);
    ASSERT_TRUE(written.isOpened());
    cv::Mat first;
    EXPECT_TRUE(written.read(first));

    r = RunCli("watch '" + dir + "' --video '" + stranger + "' --threshold 700");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, AllOf(HasSubstr("summary: "), Not(HasSubstr("identified amy")))) << r.out;

    // recognise on the same video ranks the person first.
    r = RunCli("recognise '" + dir + "' --video '" + person + "' --frames 20");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("   1    1  amy ")) << r.out;
}

TEST_F(RealFaces, DetectWritesPointsThatPointsReadsBack) {
    Scratch work;
    std::string images;
    for (const msmface::FrameRow& row : rows_.at(kPerson))
        images += " '" + kFaces + "/" + row.image + "'";
    const std::string points = work / "found/points.txt";
    CliRun r =
        RunCli("detect" + images + " --out '" + points + "' --overlay '" + work / "drawn" + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto list = msmface::parsePointsFile(ReadText(points));
    ASSERT_TRUE(list.ok()) << list.message();
    EXPECT_GE(list->size(), rows_.at(kPerson).size() - 2);
    EXPECT_EQ(Entries(work / "drawn").size(), rows_.at(kPerson).size());
    r = RunCli("enrol '" + work / "dict" + "' --id 1 --name amy --points '" + points +
               "' --copies 5 --jitter 1");
    ASSERT_EQ(r.status, 0) << r.err;

    // A video's frames become pictures beside the points file, named relative to it.
    const std::string video = PersonVideo(work, kPerson, 1);
    r = RunCli("detect --video '" + video + "' --out '" + work / "clip.txt" + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto clip = msmface::parsePointsFile(ReadText(work / "clip.txt"));
    ASSERT_TRUE(clip.ok()) << clip.message();
    ASSERT_FALSE(clip->empty());
    EXPECT_THAT(clip->front().image, StartsWith("clip-frames/"));
    r = RunCli("recognise '" + work / "dict" + "' --points '" + work / "clip.txt" + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("   1    1  amy ")) << r.out;
}

// An output named like one of the inputs, directly or through a link, is refused before anything
// is written: the video being read is never replaced by the points file or the annotated video.
TEST_F(RealFaces, AnOutputThatIsAnInputIsRefusedAndTheInputKept) {
    Scratch work;
    const std::string video = PersonVideo(work, kPerson, 3);
    ASSERT_FALSE(video.empty()) << "video writer failed";
    const std::string bytes = ReadText(video);
    ASSERT_EQ(::symlink(video.c_str(), (work / "soft.avi").c_str()), 0);
    ASSERT_EQ(::link(video.c_str(), (work / "hard.avi").c_str()), 0);
    CliRun r = RunCli("enrol '" + work / "dict" + "' --id 1 --name amy --video '" + video +
                      "' --copies 2 --jitter 1");
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string registry = ReadText(work / "dict/persons.txt");
    for (const std::string& same : {video, work / "soft.avi", work / "hard.avi"}) {
        ExpectOneLineFailure(RunCli("detect --video '" + video + "' --out '" + same + "'"),
                             "--out " + same + ": is the input " + video);
        ExpectOneLineFailure(RunCli("watch '" + work / "dict" + "' --video '" + video +
                                    "' --annotate '" + same + "'"),
                             "--annotate " + same + ": is the input " + video);
        EXPECT_EQ(ReadText(video), bytes) << same;
    }
    ExpectOneLineFailure(RunCli("watch '" + work / "dict" + "' --video '" + video +
                                "' --annotate '" + work / "dict/amy.avi" + "'"),
                         "--annotate " + work / "dict/amy.avi" + ": is inside");
    EXPECT_EQ(ReadText(work / "dict/persons.txt"), registry);
    EXPECT_FALSE(Exists(work / "dict/amy.avi"));
    // A picture is not drawn over by its own overlay either: the drawn frame's name is a hard
    // link to the picture.
    const std::string picture = work / "pic.png";
    ASSERT_TRUE(cv::imwrite(picture, cv::imread(kFaces + "/" + rows_.at(kPerson).front().image)));
    const std::string drawn = ReadText(picture);
    ASSERT_EQ(::mkdir((work / "drawn").c_str(), 0755), 0);
    ASSERT_EQ(::link(picture.c_str(), (work / "drawn/0001-pic.png").c_str()), 0);
    ExpectOneLineFailure(RunCli("detect '" + picture + "' --overlay '" + work / "drawn" + "'"),
                         "--overlay " + work / "drawn" + "/0001-pic.png: is the input " + picture);
    EXPECT_EQ(ReadText(picture), drawn);
}

// Picture names with blanks, quotes, backslashes, a leading '#' or a newline are written so that
// --points reads them back as the same names, and no name makes a row of its own.
TEST_F(RealFaces, DetectWritesHostileNamesThatPointsReadsBack) {
    Scratch work;
    const std::vector<std::string> names = {
        "two words.png", "new\nline.png", "quote\".png", "back\\slash.png",
        "#hash.png",     "comma,.png",    "image"};
    const std::vector<msmface::FrameRow>& rows = rows_.at(kPerson);
    std::string arguments;
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < names.size() && i < rows.size(); ++i) {
        const std::string path = work / names[i];
        WriteText(path, ReadText(kFaces + "/" + rows[i].image));
        paths.push_back(path);
        std::string quoted;  // for the shell: ' ends the quote, so it is written '\''
        for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        arguments += " '" + quoted + "'";
    }
    ASSERT_EQ(paths.size(), names.size());
    const std::string points = work / "points.txt";
    CliRun r = RunCli("detect" + arguments + " --out '" + points + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto list = msmface::parsePointsFile(ReadText(points));
    ASSERT_TRUE(list.ok()) << list.message();
    std::vector<std::string> read;
    for (const msmface::FrameRow& row : *list) read.push_back(row.image);
    // Every row names one of the pictures; a face is found in most of them.
    for (const std::string& name : read)
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    EXPECT_GE(read.size(), names.size() - 2);
    r = RunCli("enrol '" + work / "dict" + "' --id 1 --name amy --points '" + points +
               "' --copies 8 --jitter 1");
    EXPECT_EQ(r.status, 0) << r.err;
}

}  // namespace
