// msmface watch: continuous recognition of a video or a camera, the way a camera host runs the
// engine: every face is followed as a track of its own and recognised with its own input (the
// library's Watcher), and each track's start, identification and end is reported as it happens,
// on the terminal and, with --events, as JSON Lines.
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <msmface/gallery.h>
#ifdef MSMFACE_HAVE_DETECT
#include <msmface/watcher.h>
#endif
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "commands/commands.h"
#include "evaluation/eval_summary.h"
#include "input/face_finder.h"
#include "input/picture_source.h"
#include "input/program_files.h"
#include "io/atomic_file.h"

namespace msmcli {
namespace {

std::atomic<bool> interrupted{false};

void onInterrupt(int) {
    interrupted = true;
}

std::string clock(double seconds) {
    char text[32];
    const int minutes = static_cast<int>(seconds / 60);
    std::snprintf(text, sizeof text, "%02d:%06.3f", minutes, seconds - 60.0 * minutes);
    return text;
}

// The annotated video's codec follows its name; both are written by Debian's OpenCV and FFmpeg.
int fourccFor(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::string ext = dot == std::string::npos ? "" : path.substr(dot + 1);
    if (ext == "mp4" || ext == "mov" || ext == "m4v")
        return cv::VideoWriter::fourcc('m', 'p', '4', 'v');
    if (ext == "avi" || ext == "mkv") return cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
    return 0;
}

// One line naming the flag and the values it takes, or empty. The annotated video and the events
// are never written over the video being read, the models, a file of the directory or each other.
std::string checkWatchOptions(const WatchOptions& o) {
    if (o.method != 0 && o.method != 1 && o.method != 2 && o.method != 4)
        return "--method " + std::to_string(o.method) +
               ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)";
    if (o.threshold < -1 || o.threshold > 1000)
        return "--threshold: expected 0 to 1000 (or -1: the directory's stored one)";
    if (o.frames < 0)
        return "--frames " + std::to_string(o.frames) +
               ": expected 1 or more (or 0: the whole video)";
    if (o.faces < 1 || o.faces > 64)
        return "--faces " + std::to_string(o.faces) + ": expected 1 to 64 faces per frame";
    if (o.confirm < 1 || o.confirm > 1000)
        return "--confirm " + std::to_string(o.confirm) + ": expected 1 to 1000 frames";
    if (o.video.empty() == (o.camera < 0) && o.camera >= -1)
        return "watch: expected --video FILE or --camera INDEX (one of the two)";
    if (!o.annotate.empty() && fourccFor(o.annotate) == 0)
        return "--annotate " + o.annotate + ": expected a video name ending in .mp4 or .avi";
    if (!o.events.empty() && o.events == o.annotate)
        return "--events " + o.events + ": is also the annotated video (--annotate)";
    InputFiles inputs;
    inputs.add(o.video);
    inputs.add(o.model);
    inputs.add(o.descriptorModel);
    inputs.addFolder(o.dir);
    if (!o.annotate.empty()) {
        const std::string refused = inputs.refuseOverwrite("--annotate", o.annotate);
        if (!refused.empty()) return refused;
    }
    if (!o.events.empty()) return inputs.refuseOverwrite("--events", o.events);
    return {};
}

std::string openSource(const WatchOptions& o, std::unique_ptr<PictureSource>& source) {
    PictureSourceOptions sourceOptions;
    sourceOptions.video = o.video;
    sourceOptions.camera = o.camera;
    // A camera runs until interrupted unless told otherwise.
    sourceOptions.frames = o.frames > 0 ? o.frames : o.camera >= 0 ? INT_MAX : 0;
    return openPictureSource(sourceOptions, source);
}

// Persons left out are said once each, also those whose files go bad while the video runs.
class LeftOutWarnings {
  public:
    void sayNew(const msmface::Gallery& g) {
        for (const msmface::LeftOut& left : g.leftOut())
            if (warned_.insert(left.reason).second)
                std::fprintf(stderr, "msmface: warning: %s\n", left.reason.c_str());
    }

  private:
    std::set<std::string> warned_;
};

#ifdef MSMFACE_HAVE_DETECT

// Every track of the frame: its box and points, its number, and its name and score or "unknown".
void annotate(cv::Mat& bgr, const std::vector<msmface::WatchedFace>& faces) {
    const double scale = std::max(0.5, bgr.cols / 800.0);
    for (const msmface::WatchedFace& w : faces) {
        const bool identified = w.person != 0;
        const cv::Scalar colour = identified ? cv::Scalar(40, 200, 40) : cv::Scalar(0, 160, 255);
        FoundFace face;
        face.box = cv::Rect(w.box.left, w.box.top, w.box.width, w.box.height);
        for (int k = 0; k < 28; ++k) face.points[k] = w.points.xy[k];
        drawFace(bgr, face, colour);
        const std::string label = "#" + std::to_string(w.track) + " " +
                                  (identified ? w.name + " " + std::to_string(w.score) : "unknown");
        const cv::Point at(w.box.left, std::max(static_cast<int>(20 * scale), w.box.top - 6));
        cv::putText(bgr, label, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 0),
                    static_cast<int>(3 * scale) + 2, cv::LINE_AA);
        cv::putText(bgr, label, at, cv::FONT_HERSHEY_SIMPLEX, scale, colour,
                    static_cast<int>(scale) + 1, cv::LINE_AA);
    }
}

// The annotated video, written aside and renamed over its target by commit(); it is opened at the
// first frame, whose size it takes (a frame of another size is scaled to it). Dropped
// uncommitted, nothing is left of it.
class AnnotatedVideo {
  public:
    explicit AnnotatedVideo(std::string path) : path_(std::move(path)) {}

    std::string write(const cv::Mat& frame, const std::vector<msmface::WatchedFace>& faces,
                      double rate) {
        cv::Mat bgr = colourCopy(frame);
        annotate(bgr, faces);
        if (!writer_.isOpened()) {
            msm::clearWriteFailure();
            file_ =
                std::make_unique<msm::AtomicFile>(path_.c_str(), msm::AtomicFile::NamedWriter{});
            if (file_->temporaryPath().empty()) return msm::lastWriteFailure();
            size_ = bgr.size();
            writer_.open(file_->temporaryPath(), cv::CAP_FFMPEG, fourccFor(path_), rate, size_);
            if (!writer_.isOpened()) return path_ + ": cannot be written as a video";
        }
        if (bgr.size() != size_) cv::resize(bgr, bgr, size_);
        writer_.write(bgr);
        return {};
    }

    std::string commit() {
        writer_.release();
        if (!file_ || file_->Commit()) return {};
        return msm::lastWriteFailure();
    }

  private:
    std::string path_;
    std::unique_ptr<msm::AtomicFile> file_;  // released after the writer that fills it
    cv::VideoWriter writer_;
    cv::Size size_;
};

// The events as JSON Lines, one object per event, written aside and renamed over the target at
// the end: an interrupted or failed run leaves the previous file as it was.
class EventsFile {
  public:
    explicit EventsFile(std::string path) : path_(std::move(path)) {}

    std::string open() {
        msm::clearWriteFailure();
        file_ = std::make_unique<msm::AtomicFile>(path_.c_str());
        if (file_->stream() != nullptr) return {};
        const std::string why = msm::lastWriteFailure();
        return why.empty() ? path_ + ": cannot be written" : why;
    }
    void write(const msmface::WatchEvent& e) {
        static const char* const kinds[] = {"started", "identified", "ended"};
        char time[32];
        std::snprintf(time, sizeof time, "%.6f", e.time);
        std::string line = "{\"event\": \"" + std::string(kinds[static_cast<int>(e.kind)]) +
                           "\", \"track\": " + std::to_string(e.track) +
                           ", \"frame\": " + std::to_string(e.frame) + ", \"time\": " + time +
                           ", \"box\": [" + std::to_string(e.box.left) + ", " +
                           std::to_string(e.box.top) + ", " + std::to_string(e.box.width) + ", " +
                           std::to_string(e.box.height) + "]";
        if (e.kind != msmface::WatchEventKind::Started)
            line += ", \"person\": " + std::to_string(e.person) +
                    ", \"name\": " + jsonString(e.name) + ", \"score\": " + std::to_string(e.score);
        if (e.kind == msmface::WatchEventKind::Ended)
            line += ", \"frames_seen\": " + std::to_string(e.framesSeen) +
                    ", \"faces_used\": " + std::to_string(e.facesUsed);
        line += "}\n";
        std::fputs(line.c_str(), file_->stream());
    }
    std::string commit() {
        msm::clearWriteFailure();
        return file_->Commit() ? std::string() : msm::lastWriteFailure();
    }

  private:
    std::string path_;
    std::unique_ptr<msm::AtomicFile> file_;
};

// What the summary says of a person: the tracks it was identified on and the frames they saw.
struct Tally {
    std::vector<int64_t> tracks;
    int64_t framesSeen = 0;
    int best = 0;
    double first = 0;
    std::string name;
};

// The frame cycle of an opened source and watcher until the source ends or the program is
// interrupted: the events said as they happen, and counted for the summary.
class WatchLoop {
  public:
    WatchLoop(const WatchOptions& o, PictureSource& source, const msmface::Gallery& g,
              msmface::Watcher& watcher, LeftOutWarnings& leftOut)
        : source_(source), g_(g), watcher_(watcher), leftOut_(leftOut) {
        if (!o.annotate.empty()) annotated_ = std::make_unique<AnnotatedVideo>(o.annotate);
        if (!o.events.empty()) events_ = std::make_unique<EventsFile>(o.events);
    }

    std::string run();
    void printSummary(int threshold) const;

  private:
    std::string take(const cv::Mat& frame);
    void say(const msmface::WatchEvent& e);

    PictureSource& source_;
    const msmface::Gallery& g_;
    msmface::Watcher& watcher_;
    LeftOutWarnings& leftOut_;
    std::unique_ptr<AnnotatedVideo> annotated_;
    std::unique_ptr<EventsFile> events_;
    std::map<int, Tally> tallies_;  // by ID
    int64_t faces_ = 0, tracks_ = 0;
    double seconds_ = 0;
};

std::string WatchLoop::run() {
    if (events_) {
        const std::string error = events_->open();
        if (!error.empty()) return error;
    }
    const auto start = std::chrono::steady_clock::now();
    cv::Mat frame;
    while (!interrupted && source_.next(frame)) {
        const std::string error = take(frame);
        if (!error.empty()) return error;
    }
    if (!source_.error().empty()) return source_.error();
    for (const msmface::WatchEvent& e : watcher_.finish()) say(e);
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (annotated_) {
        const std::string error = annotated_->commit();
        if (!error.empty()) return error;
    }
    if (events_) return events_->commit();
    return {};
}

std::string WatchLoop::take(const cv::Mat& frame) {
    msmface::Result<msmface::WatchedFrame> watched =
        watcher_.update(viewOf(frame), source_.seconds());
    if (!watched) return source_.frameName() + ": " + watched.message();
    leftOut_.sayNew(g_);
    faces_ += static_cast<int64_t>(watched->faces.size());
    for (const msmface::WatchEvent& e : watched->events) say(e);
    if (!annotated_) return {};
    return annotated_->write(frame, watched->faces, source_.rate());
}

void WatchLoop::say(const msmface::WatchEvent& e) {
    if (events_) events_->write(e);
    const std::string at = clock(e.time);
    switch (e.kind) {
        case msmface::WatchEventKind::Started:
            ++tracks_;
            std::printf("%s  track %lld started at frame %lld, box %d,%d %dx%d\n", at.c_str(),
                        static_cast<long long>(e.track), static_cast<long long>(e.frame),
                        e.box.left, e.box.top, e.box.width, e.box.height);
            break;
        case msmface::WatchEventKind::Identified: {
            Tally& t = tallies_[e.person];
            if (t.tracks.empty()) t.first = e.time;
            t.tracks.push_back(e.track);
            t.name = e.name;
            std::printf("%s  track %lld identified %s (ID %d), score %d\n", at.c_str(),
                        static_cast<long long>(e.track), e.name.c_str(), e.person, e.score);
            break;
        }
        case msmface::WatchEventKind::Ended:
            if (e.person != 0) {
                Tally& t = tallies_[e.person];
                t.framesSeen += e.framesSeen;
                t.best = std::max(t.best, e.score);
            }
            std::printf("%s  track %lld ended after %lld frames: %s, best score %d\n", at.c_str(),
                        static_cast<long long>(e.track), static_cast<long long>(e.framesSeen),
                        e.person != 0 ? (e.name + " (ID " + std::to_string(e.person) + ")").c_str()
                                      : "unknown",
                        e.score);
            break;
    }
    std::fflush(stdout);
}

void WatchLoop::printSummary(int threshold) const {
    const double rate = std::max(1.0, source_.rate());
    std::printf(
        "\nsummary: %d frames (%s of video), %lld faces on %lld tracks; %.1f frames per "
        "second\n",
        source_.taken(), clock(source_.taken() / rate).c_str(), static_cast<long long>(faces_),
        static_cast<long long>(tracks_), seconds_ > 0 ? source_.taken() / seconds_ : 0.0);
    if (tallies_.empty()) std::printf("no one identified (threshold %d)\n", threshold);
    for (const auto& [id, t] : tallies_) {
        std::string tracks;
        for (int64_t n : t.tracks) tracks += (tracks.empty() ? "" : ", ") + std::to_string(n);
        std::printf(
            "identified %s (ID %d) on track%s %s: %.1f s seen, first at %s, best score "
            "%d\n",
            t.name.c_str(), id, t.tracks.size() == 1 ? "" : "s", tracks.c_str(),
            t.framesSeen / rate, clock(t.first).c_str(), t.best);
    }
}

msmface::Method methodOf(int method) {
    return method == 0   ? msmface::Method::SinglePattern
           : method == 1 ? msmface::Method::Msm
                         : msmface::Method::Cmsm;
}

#endif  // MSMFACE_HAVE_DETECT

}  // namespace

int runWatch(const WatchOptions& o) {
    std::string error = checkWatchOptions(o);
    if (!error.empty()) return fail(error);
#ifndef MSMFACE_HAVE_DETECT
    std::unique_ptr<FaceFinder> finder;
    return fail(makeFaceFinder(o.model, true, o.video.empty() ? "--camera" : "--video", finder));
#else
    std::unique_ptr<PictureSource> source;
    error = openSource(o, source);
    if (!error.empty()) return fail(error);
    msmface::Result<msmface::Gallery> gallery = msmface::Gallery::open(o.dir);
    if (!gallery) return fail(gallery.message());
    LeftOutWarnings leftOut;
    leftOut.sayNew(*gallery);
    if (gallery->persons().empty())
        return fail(o.dir + ": no person enrolled; expected one or more");
    msmface::DetectorOptions detectorOptions;
    detectorOptions.modelPath = o.model;
    msmface::Result<msmface::Detector> detector = msmface::Detector::create(detectorOptions);
    if (!detector) return fail(detector.message());
    msmface::WatcherOptions watcherOptions;
    watcherOptions.tracker.maxFaces = o.faces;
    watcherOptions.recognition.method = methodOf(o.method);
    watcherOptions.recognition.threshold = o.threshold;
    watcherOptions.recognition.confirmFrames = o.confirm;
    watcherOptions.descriptorModel = o.descriptorModel;
    msmface::Result<msmface::Watcher> watcher =
        msmface::Watcher::create(*detector, *gallery, watcherOptions);
    if (!watcher) return fail(watcher.message());
    const int threshold = o.threshold >= 0 ? o.threshold : gallery->threshold();

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    std::printf(
        "watching %s against %zu persons of %s; method %d, threshold %d, up to %d faces "
        "a frame, %d frames to confirm\n",
        source->name().c_str(), gallery->persons().size(), o.dir.c_str(), o.method, threshold,
        o.faces, o.confirm);
    std::fflush(stdout);
    WatchLoop loop(o, *source, *gallery, *watcher, leftOut);
    error = loop.run();
    if (!error.empty()) return fail(error);
    loop.printSummary(threshold);
    if (!o.annotate.empty()) std::printf("annotated video: %s\n", o.annotate.c_str());
    if (!o.events.empty()) std::printf("events: %s\n", o.events.c_str());
    return 0;
#endif
}

}  // namespace msmcli
