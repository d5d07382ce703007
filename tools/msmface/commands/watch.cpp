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
#include "input/picture_source.h"
#include "input/program_files.h"

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

}  // namespace

int runWatch(const WatchOptions& o) {
    if (o.method != 0 && o.method != 1 && o.method != 2 && o.method != 4)
        return fail("--method " + std::to_string(o.method) +
                    ": expected 0 (single pattern), 1 (MSM), 2 or 4 (CMSM)");
    if (o.threshold < -1 || o.threshold > 1000)
        return fail("--threshold: expected 0 to 1000 (or -1: the directory's stored one)");
    if (o.frames < 0)
        return fail("--frames " + std::to_string(o.frames) +
                    ": expected 1 or more (or 0: the whole video)");
    if (o.video.empty() == (o.camera < 0) && o.camera >= -1)
        return fail("watch: expected --video FILE or --camera INDEX (one of the two)");
    if (!o.annotate.empty() && fourccFor(o.annotate) == 0)
        return fail("--annotate " + o.annotate + ": expected a video name ending in .mp4 or .avi");

    // The annotated video is written aside and renamed at the end: never over the video being
    // read, the model or a file of the directory, and never left half-written in place.
    std::unique_ptr<OutputBeside> annotated;
    if (!o.annotate.empty()) {
        InputFiles inputs;
        inputs.add(o.video);
        inputs.add(o.model);
        inputs.addFolder(o.dir);
        const std::string refused = inputs.refuseOverwrite("--annotate", o.annotate);
        if (!refused.empty()) return fail(refused);
    }
    PictureSourceOptions sourceOptions;
    sourceOptions.video = o.video;
    sourceOptions.camera = o.camera;
    // A camera runs until interrupted unless told otherwise.
    sourceOptions.frames = o.frames > 0 ? o.frames : o.camera >= 0 ? INT_MAX : 0;
    std::unique_ptr<PictureSource> source;
    std::string error = openPictureSource(sourceOptions, source);
    if (!error.empty()) return fail(error);
    msmface::Result<msmface::Gallery> gallery = msmface::Gallery::open(o.dir);
    if (!gallery) return fail(gallery.message());
    // Persons left out are said once each, also those whose files go bad while the video runs.
    std::set<std::string> warned;
    auto warnAboutLeftOut = [&] {
        for (const msmface::LeftOut& left : gallery->leftOut())
            if (warned.insert(left.reason).second)
                std::fprintf(stderr, "msmface: warning: %s\n", left.reason.c_str());
    };
    warnAboutLeftOut();
    if (gallery->persons().empty())
        return fail(o.dir + ": no person enrolled; expected one or more");
    std::unique_ptr<FaceFinder> finder;
    error = makeFaceFinder(o.model, true, o.video.empty() ? "--camera" : "--video", finder);
    if (!error.empty()) return fail(error);

    msmface::StreamOptions streamOptions;
    streamOptions.method = o.method == 0   ? msmface::Method::SinglePattern
                           : o.method == 1 ? msmface::Method::Msm
                                           : msmface::Method::Cmsm;
    streamOptions.threshold = o.threshold;
    streamOptions.finder = finder->pointFinder();
    msmface::Result<msmface::Stream> stream = msmface::Stream::create(*gallery, streamOptions);
    if (!stream) return fail(stream.message());
    const int threshold = o.threshold >= 0 ? o.threshold : gallery->threshold();

    cv::VideoWriter writer;
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    std::printf("watching %s against %zu persons of %s; method %d, threshold %d\n",
                source->name().c_str(), gallery->persons().size(), o.dir.c_str(), o.method,
                threshold);
    std::fflush(stdout);

    std::map<int, Tally> tallies;  // by ID
    std::map<int, std::string> names;
    int faces = 0;
    int current = 0;  // the ID identified in the current input, 0: none
    const auto start = std::chrono::steady_clock::now();
    cv::Mat frame;
    while (!interrupted && source->next(frame)) {
        msmface::Result<msmface::StreamState> state = stream->push(viewOf(frame));
        if (!state) return fail(state.message());
        warnAboutLeftOut();
        FoundFace face;
        const bool hasFace = finder->lastFace(face) && state->face;
        faces += hasFace ? 1 : 0;
        if (state->frames == 0) current = 0;  // the input was cleared: a new recognition
        const auto& identified = state->ranking.identified;
        if (identified && identified->id != current) {
            current = identified->id;
            Tally& t = tallies[current];
            if (t.events++ == 0) t.first = source->seconds();
            names[current] = identified->name;
            std::printf("%s  identified %s (ID %d), score %d\n", clock(source->seconds()).c_str(),
                        identified->name.c_str(), identified->id, identified->score);
            std::fflush(stdout);
        }
        if (identified && identified->id == current)
            tallies[current].best = std::max(tallies[current].best, identified->score);
        if (!o.annotate.empty()) {
            cv::Mat bgr = colourCopy(frame);
            annotate(bgr, hasFace ? &face : nullptr, *state);
            if (!writer.isOpened()) {
                annotated = std::make_unique<OutputBeside>(o.annotate);
                if (annotated->temporary().empty()) return fail(annotated->error());
                writer.open(annotated->temporary(), cv::CAP_FFMPEG, fourccFor(o.annotate),
                            source->rate(), bgr.size());
                if (!writer.isOpened()) return fail(o.annotate + ": cannot be written as a video");
            }
            writer.write(bgr);
        }
    }
    if (!source->error().empty()) return fail(source->error());
    writer.release();
    if (annotated) {
        error = annotated->commit();
        if (!error.empty()) return fail(error);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("\nsummary: %d frames (%s of video), a face in %d; %.1f frames per second\n",
                source->taken(), clock(source->taken() / std::max(1.0, source->rate())).c_str(),
                faces, seconds > 0 ? source->taken() / seconds : 0.0);
    if (tallies.empty()) std::printf("no one identified (threshold %d)\n", threshold);
    for (const auto& [id, t] : tallies)
        std::printf("identified %s (ID %d): %d time%s, first at %s, best score %d\n",
                    names[id].c_str(), id, t.events, t.events == 1 ? "" : "s",
                    clock(t.first).c_str(), t.best);
    if (!o.annotate.empty()) std::printf("annotated video: %s\n", o.annotate.c_str());
    return 0;
}

}  // namespace msmcli
