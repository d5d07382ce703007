// The msmface program on pictures without points: video files and cameras that do not open, a
// video without any face, a broken landmark model, each refused in one line with the dictionary
// left as it was; and, on real faces, a person enrolled from a video, found again by watch, a
// stranger's video not taken for that person, and detect's points file read back by --points.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include <msmface/frame_lists.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "cli_support.h"
#include "json_flat.h"

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

// One event of watch, as a printed line or a line of the events file says it.
struct PrintedEvent {
    std::string kind;
    long long track = 0, frame = -1, framesSeen = -1;
    double time = 0;
    int left = 0, top = 0, width = 0, height = 0;  // started only: the printed box
    int person = 0, score = 0;
    std::string name;
};

// The printed event lines ("mm:ss.sss  track N ..."), in order; other lines are skipped.
std::vector<PrintedEvent> PrintedEvents(const std::string& out) {
    std::vector<PrintedEvent> events;
    std::size_t at = 0;
    while (at < out.size()) {
        const std::size_t end = std::min(out.find('\n', at), out.size());
        const std::string line = out.substr(at, end - at);
        at = end + 1;
        int minutes = 0;
        double seconds = 0;
        long long track = 0;
        int used = 0;
        if (std::sscanf(line.c_str(), "%d:%lf  track %lld %n", &minutes, &seconds, &track, &used) !=
                3 ||
            used == 0)
            continue;
        PrintedEvent e;
        e.track = track;
        e.time = minutes * 60 + seconds;
        const std::string rest = line.substr(static_cast<std::size_t>(used));
        if (rest.rfind("started at frame ", 0) == 0) {
            e.kind = "started";
            EXPECT_EQ(std::sscanf(rest.c_str(), "started at frame %lld, box %d,%d %dx%d", &e.frame,
                                  &e.left, &e.top, &e.width, &e.height),
                      5)
                << line;
        } else if (rest.rfind("identified ", 0) == 0) {
            e.kind = "identified";
            const std::size_t id = rest.rfind(" (ID ");
            EXPECT_NE(id, std::string::npos) << line;
            e.name = rest.substr(11, id - 11);
            EXPECT_EQ(std::sscanf(rest.c_str() + id, " (ID %d), score %d", &e.person, &e.score), 2)
                << line;
        } else if (rest.rfind("ended after ", 0) == 0) {
            e.kind = "ended";
            int read = 0;
            EXPECT_EQ(
                std::sscanf(rest.c_str(), "ended after %lld frames: %n", &e.framesSeen, &read), 1)
                << line;
            const std::string who = rest.substr(static_cast<std::size_t>(read));
            const std::size_t best = who.rfind(", best score ");
            EXPECT_NE(best, std::string::npos) << line;
            e.score = std::atoi(who.c_str() + best + 13);
            const std::string named = who.substr(0, best);
            const std::size_t id = named.rfind(" (ID ");
            if (named != "unknown") {
                EXPECT_NE(id, std::string::npos) << line;
                e.name = named.substr(0, id);
                e.person = std::atoi(named.c_str() + id + 5);
            }
        } else {
            ADD_FAILURE() << "not an event line: " << line;
            continue;
        }
        events.push_back(e);
    }
    return events;
}

// The events file, line by line; every line must be one JSON object with the documented fields.
std::vector<PrintedEvent> FileEvents(const std::string& text) {
    std::vector<PrintedEvent> events;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = text.find('\n', at);
        EXPECT_NE(end, std::string::npos) << "the last line ends with a newline";
        const std::string line = text.substr(at, end == std::string::npos ? end : end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        clitest::JsonFlat json;
        if (!json.parse(line)) {
            ADD_FAILURE() << "not JSON: " << line;
            continue;
        }
        PrintedEvent e;
        e.kind = json.values["event"];
        e.track = static_cast<long long>(json.number("track"));
        e.frame = static_cast<long long>(json.number("frame"));
        e.time = json.number("time");
        e.left = static_cast<int>(json.number("box[0]"));
        e.top = static_cast<int>(json.number("box[1]"));
        e.width = static_cast<int>(json.number("box[2]"));
        e.height = static_cast<int>(json.number("box[3]"));
        EXPECT_GT(e.width, 0) << line;
        EXPECT_GE(e.frame, 0) << line;
        if (e.kind != "started") {
            EXPECT_EQ(json.values.count("person"), 1u) << line;
            e.person = static_cast<int>(json.number("person"));
            e.name = json.values["name"];
            e.score = static_cast<int>(json.number("score"));
        }
        if (e.kind == "ended") e.framesSeen = static_cast<long long>(json.number("frames_seen"));
        events.push_back(e);
    }
    return events;
}

// Two enrolled persons side by side (the second entering later), then a cut to a stranger alone
// on another backdrop: watch prints one line per event, the events file says the same events in
// the same order, names land only on their own side of the picture, and the annotated video has
// every frame.
TEST_F(RealFaces, WatchEventsFileAgreesWithThePrintedLines) {
    Scratch work;
    const std::string dir = work / "dict";
    for (const auto& [name, identity] :
         std::vector<std::pair<std::string, std::string>>{{"amy", kPerson}, {"agnes", kOther}}) {
        const std::string video = PersonVideo(work, identity, 5);
        ASSERT_FALSE(video.empty()) << "video writer failed";
        const CliRun r =
            RunCli("enrol '" + dir + "' --id " + (name == "amy" ? "1" : "2") + " --name " + name +
                   " --video '" + video + "' --copies 2 --jitter 1");
        ASSERT_EQ(r.status, 0) << r.err;
    }
    // Each person's frames, in a 240 x 260 tile, each shown for three frames.
    auto tile = [&](const std::string& identity, int k) {
        const auto& rows = rows_.at(identity);
        cv::Mat f = cv::imread(kFaces + "/" + rows[(k / 3) % rows.size()].image, cv::IMREAD_COLOR);
        cv::resize(f, f, cv::Size(240, 260));
        return f;
    };
    constexpr int kCut = 60, kFrames = 84;
    std::vector<cv::Mat> frames;
    for (int t = 0; t < kFrames; ++t) {
        cv::Mat f(480, 640, CV_8UC3, cv::Scalar::all(t < kCut ? 90 : 180));
        if (t < kCut) {
            tile(kPerson, t).copyTo(f(cv::Rect(40, 110, 240, 260)));
            if (t >= 15) tile(kOther, t).copyTo(f(cv::Rect(360, 110, 240, 260)));
        } else {
            tile(kStranger, t).copyTo(f(cv::Rect(200, 110, 240, 260)));
        }
        frames.push_back(f);
    }
    const std::string video = work / "three.avi";
    ASSERT_TRUE(WriteVideo(video, frames));
    const std::string events = work / "events.jsonl", annotated = work / "drawn.avi";
    const CliRun r =
        RunCli("watch '" + dir + "' --video '" + video + "' --threshold 700 --events '" + events +
               "' --annotate '" + annotated + "'");
    ASSERT_EQ(r.status, 0) << r.err;

    const std::vector<PrintedEvent> printed = PrintedEvents(r.out);
    const std::vector<PrintedEvent> written = FileEvents(ReadText(events));
    ASSERT_EQ(printed.size(), written.size()) << r.out;
    std::map<long long, int> started, ended;
    std::set<long long> tracksBeforeCut;
    std::map<std::string, int> identified;
    for (std::size_t i = 0; i < printed.size(); ++i) {
        const PrintedEvent& p = printed[i];
        const PrintedEvent& w = written[i];
        SCOPED_TRACE("event " + std::to_string(i) + ": " + w.kind + " of track " +
                     std::to_string(w.track));
        EXPECT_EQ(p.kind, w.kind);
        EXPECT_EQ(p.track, w.track);
        EXPECT_NEAR(p.time, w.time, 0.0006);  // printed to the millisecond
        EXPECT_EQ(p.person, w.person);
        EXPECT_EQ(p.name, w.name);
        EXPECT_EQ(p.score, w.score);
        if (w.kind == "started") {
            EXPECT_EQ(p.frame, w.frame);
            EXPECT_EQ(p.left, w.left);
            EXPECT_EQ(p.top, w.top);
            EXPECT_EQ(p.width, w.width);
            EXPECT_EQ(p.height, w.height);
            EXPECT_EQ(started[w.track]++, 0) << "started twice";
            if (w.frame < kCut) tracksBeforeCut.insert(w.track);
        }
        if (w.kind == "ended") {
            EXPECT_EQ(p.framesSeen, w.framesSeen);
            EXPECT_GT(w.framesSeen, 0);
            EXPECT_EQ(ended[w.track]++, 0) << "ended twice";
            EXPECT_EQ(started.count(w.track), 1u) << "ended before it started";
            if (tracksBeforeCut.count(w.track) != 0) {
                EXPECT_LT(w.frame, kCut) << "a track of the first shot lived past the cut";
            }
        }
        if (w.kind == "identified") {
            ++identified[w.name];
            // The name belongs to the person on that side of the picture; the stranger has none.
            EXPECT_LT(w.frame, kCut) << "the stranger was named " << w.name;
            const int centre = w.left + w.width / 2;
            EXPECT_EQ(w.name, centre < 320 ? "amy" : "agnes") << "box at " << w.left;
            EXPECT_EQ(w.person, w.name == "amy" ? 1 : 2);
        }
    }
    EXPECT_EQ(started.size(), ended.size()) << "every track ends";
    EXPECT_GE(started.size(), 3u) << r.out;
    EXPECT_GE(identified["amy"], 1) << r.out;
    EXPECT_THAT(r.out, HasSubstr("identified amy (ID 1) on track")) << r.out;

    cv::VideoCapture drawn(annotated, cv::CAP_FFMPEG);
    ASSERT_TRUE(drawn.isOpened());
    int count = 0;
    for (cv::Mat f; drawn.read(f);) ++count;
    EXPECT_EQ(count, kFrames);
}

// The events file is an output like the annotated video: never the video, the model, a file of
// the directory, or the annotated video itself.
TEST_F(RealFaces, WatchEventsNeverReplaceAnInput) {
    Scratch work;
    const std::string video = PersonVideo(work, kPerson, 1);
    ASSERT_FALSE(video.empty()) << "video writer failed";
    const std::string bytes = ReadText(video);
    const std::string dir = work / "dict";
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    const std::string watch = "watch '" + dir + "' --video '" + video + "' ";
    ExpectOneLineFailure(RunCli(watch + "--events '" + video + "'"),
                         "--events " + video + ": is the input " + video);
    ExpectOneLineFailure(RunCli(watch + "--events '" + dir + "/events.jsonl'"),
                         "--events " + dir + "/events.jsonl: is inside");
    ExpectOneLineFailure(
        RunCli(watch + "--events '" + work / "a.avi" + "' --annotate '" + work / "a.avi" + "'"),
        "--events " + work / "a.avi" + ": is also the annotated video");
    ExpectOneLineFailure(RunCli(watch + "--faces 0"), "--faces 0: expected 1 to 64");
    ExpectOneLineFailure(RunCli(watch + "--confirm 0"), "--confirm 0: expected 1 to 1000");
    EXPECT_EQ(ReadText(video), bytes);
    EXPECT_FALSE(Exists(dir + "/events.jsonl"));
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
