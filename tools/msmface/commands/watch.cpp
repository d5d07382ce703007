// msmface watch: continuous recognition of a video or a camera, the way a camera host runs the
// engine: the face is followed from frame to frame, every frame goes through the stream's frame
// cycle (a frame without a face counts as face-less, so the input is cleared after the refresh
// time), and each identification is reported as it happens.
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
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "commands/commands.h"
#include "input/face_finder.h"
#include "input/frame_descriptors.h"
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

void annotate(cv::Mat& bgr, const FoundFace* face, const msmface::StreamState& state) {
    const bool identified = state.ranking.identified.has_value();
    const cv::Scalar colour = identified ? cv::Scalar(40, 200, 40) : cv::Scalar(0, 160, 255);
    if (face != nullptr) drawFace(bgr, *face, colour);
    if (state.ranking.matches.empty()) return;
    const msmface::Match& best = state.ranking.matches.front();
    const std::string label =
        (identified ? best.name : "? " + best.name) + " " + std::to_string(best.score);
    const double scale = std::max(0.5, bgr.cols / 800.0);
    cv::Point at(8, static_cast<int>(28 * scale));
    if (face != nullptr) at = cv::Point(face->box.x, std::max(at.y, face->box.y - 6));
    cv::putText(bgr, label, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 0),
                static_cast<int>(3 * scale) + 2, cv::LINE_AA);
    cv::putText(bgr, label, at, cv::FONT_HERSHEY_SIMPLEX, scale, colour,
                static_cast<int>(scale) + 1, cv::LINE_AA);
}

struct Tally {
    int events = 0;
    int best = 0;
    double first = 0;
};

// One line naming the flag and the values it takes, or empty. The annotated video is never
// written over the video being read, the model or a file of the directory.
std::string checkWatchOptions(const WatchOptions& o) {
    if (o.method != 0 && o.method != 1 && o.method != 2 && o.method != 4)
        return "--method " + std::to_string(o.method) +
               ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)";
    if (o.threshold < -1 || o.threshold > 1000)
        return "--threshold: expected 0 to 1000 (or -1: the directory's stored one)";
    if (o.frames < 0)
        return "--frames " + std::to_string(o.frames) +
               ": expected 1 or more (or 0: the whole video)";
    if (o.video.empty() == (o.camera < 0) && o.camera >= -1)
        return "watch: expected --video FILE or --camera INDEX (one of the two)";
    if (o.annotate.empty()) return {};
    if (fourccFor(o.annotate) == 0)
        return "--annotate " + o.annotate + ": expected a video name ending in .mp4 or .avi";
    InputFiles inputs;
    inputs.add(o.video);
    inputs.add(o.model);
    inputs.add(o.descriptorModel);
    inputs.addFolder(o.dir);
    return inputs.refuseOverwrite("--annotate", o.annotate);
}

std::string openSource(const WatchOptions& o, std::unique_ptr<PictureSource>& source) {
    PictureSourceOptions sourceOptions;
    sourceOptions.video = o.video;
    sourceOptions.camera = o.camera;
    // A camera runs until interrupted unless told otherwise.
    sourceOptions.frames = o.frames > 0 ? o.frames : o.camera >= 0 ? INT_MAX : 0;
    return openPictureSource(sourceOptions, source);
}

// A directory of descriptors is pushed the descriptors the loop computes itself (it keeps the
// face it found for drawing); one of seed patterns has the stream look through the finder.
msmface::StreamOptions streamOptionsOf(const WatchOptions& o, FaceFinder& finder, bool describing) {
    msmface::StreamOptions streamOptions;
    streamOptions.method = o.method == 0   ? msmface::Method::SinglePattern
                           : o.method == 1 ? msmface::Method::Msm
                                           : msmface::Method::Cmsm;
    streamOptions.threshold = o.threshold;
    if (!describing) streamOptions.finder = finder.pointFinder();
    return streamOptions;
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

// The annotated video, written aside and renamed over its target by commit(); it is opened at the
// first frame, whose size it takes. Dropped uncommitted, nothing is left of it.
class AnnotatedVideo {
  public:
    explicit AnnotatedVideo(std::string path) : path_(std::move(path)) {}

    std::string write(const cv::Mat& frame, const FoundFace* face,
                      const msmface::StreamState& state, double rate) {
        cv::Mat bgr = colourCopy(frame);
        annotate(bgr, face, state);
        if (!writer_.isOpened()) {
            msm::clearWriteFailure();
            file_ =
                std::make_unique<msm::AtomicFile>(path_.c_str(), msm::AtomicFile::NamedWriter{});
            if (file_->temporaryPath().empty()) return msm::lastWriteFailure();
            writer_.open(file_->temporaryPath(), cv::CAP_FFMPEG, fourccFor(path_), rate,
                         bgr.size());
            if (!writer_.isOpened()) return path_ + ": cannot be written as a video";
        }
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
};

// The frame cycle of an opened source and stream until the source ends or the program is
// interrupted: identifications said as they happen, and counted for the summary.
class WatchLoop {
  public:
    WatchLoop(const WatchOptions& o, PictureSource& source, const msmface::Gallery& g,
              FaceFinder& finder, FrameDescriber* describer, msmface::Stream& stream,
              LeftOutWarnings& leftOut)
        : source_(source),
          g_(g),
          finder_(finder),
          describer_(describer),
          stream_(stream),
          leftOut_(leftOut) {
        if (!o.annotate.empty()) annotated_ = std::make_unique<AnnotatedVideo>(o.annotate);
    }

    std::string run();
    void printSummary(int threshold) const;

  private:
    std::string take(const cv::Mat& frame);
    msmface::Result<msmface::StreamState> pushDescribed(const cv::Mat& frame, FoundFace& face,
                                                        bool& hasFace);
    void noteIdentification(const msmface::StreamState& state);

    PictureSource& source_;
    const msmface::Gallery& g_;
    FaceFinder& finder_;
    FrameDescriber* describer_;  // a directory of descriptors; else nullptr
    msmface::Stream& stream_;
    LeftOutWarnings& leftOut_;
    std::unique_ptr<AnnotatedVideo> annotated_;
    std::map<int, Tally> tallies_;  // by ID
    std::map<int, std::string> names_;
    int faces_ = 0;
    int current_ = 0;  // the ID identified in the current input, 0: none
    double seconds_ = 0;
};

std::string WatchLoop::run() {
    const auto start = std::chrono::steady_clock::now();
    cv::Mat frame;
    while (!interrupted && source_.next(frame)) {
        const std::string error = take(frame);
        if (!error.empty()) return error;
    }
    if (!source_.error().empty()) return source_.error();
    if (annotated_) {
        const std::string error = annotated_->commit();
        if (!error.empty()) return error;
    }
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {};
}

// A face that cannot be described (too small, at the border) is a frame without a face, as the
// stream counts one whose points give no face.
msmface::Result<msmface::StreamState> WatchLoop::pushDescribed(const cv::Mat& frame,
                                                               FoundFace& face, bool& hasFace) {
    std::optional<msmface::FaceDescriptor> d;
    if (finder_.find(frame, face)) d = describer_->describeLandmarks(viewOf(frame), face.landmarks);
    hasFace = d.has_value();
    return hasFace ? stream_.push(*d) : stream_.pushWithoutFace();
}

std::string WatchLoop::take(const cv::Mat& frame) {
    FoundFace face;
    bool hasFace = false;
    msmface::Result<msmface::StreamState> state =
        describer_ != nullptr ? pushDescribed(frame, face, hasFace) : stream_.push(viewOf(frame));
    if (!state) return state.message();
    leftOut_.sayNew(g_);
    if (describer_ == nullptr) hasFace = finder_.lastFace(face);
    hasFace = hasFace && state->face;
    faces_ += hasFace ? 1 : 0;
    noteIdentification(*state);
    if (!annotated_) return {};
    return annotated_->write(frame, hasFace ? &face : nullptr, *state, source_.rate());
}

void WatchLoop::noteIdentification(const msmface::StreamState& state) {
    if (state.frames == 0) current_ = 0;  // the input was cleared: a new recognition
    const auto& identified = state.ranking.identified;
    if (identified && identified->id != current_) {
        current_ = identified->id;
        Tally& t = tallies_[current_];
        if (t.events++ == 0) t.first = source_.seconds();
        names_[current_] = identified->name;
        std::printf("%s  identified %s (ID %d), score %d\n", clock(source_.seconds()).c_str(),
                    identified->name.c_str(), identified->id, identified->score);
        std::fflush(stdout);
    }
    if (identified && identified->id == current_)
        tallies_[current_].best = std::max(tallies_[current_].best, identified->score);
}

void WatchLoop::printSummary(int threshold) const {
    std::printf("\nsummary: %d frames (%s of video), a face in %d; %.1f frames per second\n",
                source_.taken(), clock(source_.taken() / std::max(1.0, source_.rate())).c_str(),
                faces_, seconds_ > 0 ? source_.taken() / seconds_ : 0.0);
    if (tallies_.empty()) std::printf("no one identified (threshold %d)\n", threshold);
    for (const auto& [id, t] : tallies_)
        std::printf("identified %s (ID %d): %d time%s, first at %s, best score %d\n",
                    names_.at(id).c_str(), id, t.events, t.events == 1 ? "" : "s",
                    clock(t.first).c_str(), t.best);
}

}  // namespace

int runWatch(const WatchOptions& o) {
    std::string error = checkWatchOptions(o);
    if (!error.empty()) return fail(error);
    std::unique_ptr<PictureSource> source;
    error = openSource(o, source);
    if (!error.empty()) return fail(error);
    msmface::Result<msmface::Gallery> gallery = msmface::Gallery::open(o.dir);
    if (!gallery) return fail(gallery.message());
    LeftOutWarnings leftOut;
    leftOut.sayNew(*gallery);
    if (gallery->persons().empty())
        return fail(o.dir + ": no person enrolled; expected one or more");
    std::unique_ptr<FaceFinder> finder;
    error = makeFaceFinder(o.model, true, o.video.empty() ? "--camera" : "--video", finder);
    if (!error.empty()) return fail(error);
    std::unique_ptr<FrameDescriber> describer;
    if (gallery->patterns() == msmface::PatternKind::Descriptor) {
        error = makeFrameDescriber({o.model, o.descriptorModel, false, o.dir}, describer);
        if (!error.empty()) return fail(error);
    }
    msmface::Result<msmface::Stream> stream =
        msmface::Stream::create(*gallery, streamOptionsOf(o, *finder, describer != nullptr));
    if (!stream) return fail(stream.message());
    const int threshold = o.threshold >= 0 ? o.threshold : gallery->threshold();

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    std::printf("watching %s against %zu persons of %s; method %d, threshold %d\n",
                source->name().c_str(), gallery->persons().size(), o.dir.c_str(), o.method,
                threshold);
    std::fflush(stdout);
    WatchLoop loop(o, *source, *gallery, *finder, describer.get(), *stream, leftOut);
    error = loop.run();
    if (!error.empty()) return fail(error);
    loop.printSummary(threshold);
    if (!o.annotate.empty()) std::printf("annotated video: %s\n", o.annotate.c_str());
    return 0;
}

}  // namespace msmcli
