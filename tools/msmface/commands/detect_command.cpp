// msmface detect: the face and its fourteen points in pictures or a video, written as a points
// file that --points reads back (so that a user can look at the points and correct them), and
// optionally every frame drawn with its box and points.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <msmface/frame_lists.h>
#include <opencv2/imgproc.hpp>

#include "commands/commands.h"
#include "input/face_finder.h"
#include "input/image_io.h"
#include "input/picture_source.h"
#include "input/program_files.h"
#include "io/folders.h"

namespace msmcli {
namespace {

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string stemOf(const std::string& path) {
    const std::string base = baseName(path);
    const std::size_t dot = base.rfind('.');
    return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

std::string absolutePath(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) != nullptr ? std::string(buf) : path;
}

// How the points file names a picture: relative to the points file's folder when the picture is
// inside it (the file and its pictures can move together), else by its absolute path.
std::string nameInList(const std::string& picture, const std::string& listFolder) {
    const std::string full = absolutePath(picture);
    if (listFolder.empty()) return full;
    const std::string folder = absolutePath(listFolder);
    if (full.size() > folder.size() + 1 && full.compare(0, folder.size(), folder) == 0 &&
        full[folder.size()] == '/')
        return full.substr(folder.size() + 1);
    return full;
}

std::string drawOverlay(const cv::Mat& picture, const FoundFace* face, const std::string& path) {
    cv::Mat bgr = colourCopy(picture);
    if (face != nullptr)
        drawFace(bgr, *face, cv::Scalar(40, 200, 40));
    else
        cv::putText(bgr, "no face", cv::Point(8, 24), cv::FONT_HERSHEY_SIMPLEX, 0.7,
                    cv::Scalar(40, 40, 220), 2, cv::LINE_AA);
    return writePicture(path, bgr);
}

InputFiles inputsOf(const DetectOptions& o) {
    InputFiles inputs;
    for (const std::string& picture : o.images) inputs.add(picture);
    inputs.add(o.video);
    inputs.add(o.model);
    return inputs;
}

// One line naming the argument, or empty. Nothing this command writes may replace what it reads:
// a points file over the video, a drawn frame over a picture.
std::string checkDetectOptions(const DetectOptions& o, const InputFiles& inputs) {
    if (o.images.empty() == o.video.empty())
        return "detect: expected picture files or --video FILE (one of the two)";
    if (!o.video.empty() && o.out.empty())
        return "--out: expected a points file; a video's frames are written beside it";
    if (o.out.empty()) return {};
    return inputs.refuseOverwrite("--out", o.out);
}

std::string openSource(const DetectOptions& o, std::unique_ptr<PictureSource>& source) {
    PictureSourceOptions sourceOptions;
    sourceOptions.images = o.images;
    sourceOptions.video = o.video;
    sourceOptions.frames = o.frames;
    return openPictureSource(sourceOptions, source);
}

// The folder a video's frames are written into as pictures of their own, so that the points file
// can name them; empty for pictures.
std::string framesFolderOf(const DetectOptions& o) {
    return o.video.empty() ? std::string() : folderOf(o.out) + "/" + stemOf(o.out) + "-frames";
}

// The source, the folders written into and the finder, in the order their errors are said.
std::string prepareDetect(const DetectOptions& o, std::unique_ptr<PictureSource>& source,
                          std::unique_ptr<FaceFinder>& finder) {
    std::string error = openSource(o, source);
    if (error.empty() && !o.out.empty()) error = msm::makeDirectories(folderOf(o.out));
    if (!error.empty()) return error;
    error =
        makeFaceFinder(o.model, !o.video.empty(), o.video.empty() ? "detect" : "--video", finder);
    if (error.empty() && !o.overlay.empty()) error = msm::makeDirectories(o.overlay);
    const std::string framesFolder = framesFolderOf(o);
    if (error.empty() && !framesFolder.empty()) error = msm::makeDirectories(framesFolder);
    return error;
}

// Every frame of the source through the finder: a points file row for each frame with a face,
// the frame drawn when asked, a video's frame written as a picture.
class DetectLoop {
  public:
    DetectLoop(const DetectOptions& o, const InputFiles& inputs, PictureSource& source,
               FaceFinder& finder)
        : o_(o),
          inputs_(inputs),
          source_(source),
          finder_(finder),
          framesFolder_(framesFolderOf(o)) {}

    std::string run();
    // The points file (or standard output) and what was found. An empty string or one line.
    std::string finish() const;

  private:
    std::string take(const cv::Mat& picture);
    std::string drawFrame(const cv::Mat& picture, const FoundFace* face, const char* number);
    std::string writeVideoFrame(const cv::Mat& picture, const char* number, std::string& path);

    const DetectOptions& o_;
    const InputFiles& inputs_;
    PictureSource& source_;
    FaceFinder& finder_;
    const std::string framesFolder_;
    std::string points_ = "# image x0 y0 ... x13 y13, written by msmface detect\n";
    int found_ = 0;
};

std::string DetectLoop::run() {
    cv::Mat picture;
    while (source_.next(picture)) {
        const std::string error = take(picture);
        if (!error.empty()) return error;
    }
    if (!source_.error().empty()) return source_.error();
    if (found_ == 0)
        return (o_.video.empty() ? std::string("detect") : o_.video) +
               ": no face found in any of the " + std::to_string(source_.taken()) +
               " frames; expected frames showing a face";
    return {};
}

std::string DetectLoop::take(const cv::Mat& picture) {
    FoundFace face;
    const bool has = finder_.find(picture, face);
    char number[16];
    std::snprintf(number, sizeof number, "%06d", source_.taken());
    std::string error;
    if (!o_.overlay.empty()) error = drawFrame(picture, has ? &face : nullptr, number);
    if (!error.empty() || !has) return error;
    ++found_;
    std::string picturePath = source_.frameName();
    if (!o_.video.empty()) error = writeVideoFrame(picture, number, picturePath);
    if (!error.empty()) return error;
    points_ +=
        msmface::pointsFileRow(nameInList(picturePath, o_.out.empty() ? "" : folderOf(o_.out)), face.points);
    return {};
}

std::string DetectLoop::drawFrame(const cv::Mat& picture, const FoundFace* face,
                                  const char* number) {
    const std::string name = o_.video.empty()
                                 ? std::string(number + 2) + "-" + stemOf(source_.frameName())
                                 : std::string("frame") + number;
    const std::string path = o_.overlay + "/" + name + ".png";
    const std::string error = inputs_.refuseOverwrite("--overlay", path);
    return error.empty() ? drawOverlay(picture, face, path) : error;
}

std::string DetectLoop::writeVideoFrame(const cv::Mat& picture, const char* number,
                                        std::string& path) {
    path = framesFolder_ + "/" + number + ".png";
    const std::string error = inputs_.refuseOverwrite("--out", path);
    return error.empty() ? writePicture(path, picture) : error;
}

std::string DetectLoop::finish() const {
    if (o_.out.empty()) {
        std::fputs(points_.c_str(), stdout);
        return {};
    }
    // Checked again: the folders made meanwhile may have turned a name into an input's.
    std::string error = inputs_.refuseOverwrite("--out", o_.out);
    if (error.empty()) error = writeOutputFile(o_.out, points_);
    if (!error.empty()) return error;
    std::printf("found a face in %d of %d frames; points: %s\n", found_, source_.taken(),
                o_.out.c_str());
    if (!o_.overlay.empty()) std::printf("drawn frames: %s\n", o_.overlay.c_str());
    return {};
}

}  // namespace

int runDetect(const DetectOptions& o) {
    const InputFiles inputs = inputsOf(o);
    std::string error = checkDetectOptions(o, inputs);
    if (!error.empty()) return fail(error);
    std::unique_ptr<PictureSource> source;
    std::unique_ptr<FaceFinder> finder;
    error = prepareDetect(o, source, finder);
    if (!error.empty()) return fail(error);
    DetectLoop loop(o, inputs, *source, *finder);
    error = loop.run();
    if (error.empty()) error = loop.finish();
    if (!error.empty()) return fail(error);
    return 0;
}

}  // namespace msmcli
