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

}  // namespace

int runDetect(const DetectOptions& o) {
    if (o.images.empty() == o.video.empty())
        return fail("detect: expected picture files or --video FILE (one of the two)");
    if (!o.video.empty() && o.out.empty())
        return fail("--out: expected a points file; a video's frames are written beside it");
    // Nothing this command writes may replace what it reads: a points file over the video, a
    // drawn frame over a picture.
    InputFiles inputs;
    for (const std::string& picture : o.images) inputs.add(picture);
    inputs.add(o.video);
    inputs.add(o.model);
    if (!o.out.empty()) {
        const std::string refused = inputs.refuseOverwrite("--out", o.out);
        if (!refused.empty()) return fail(refused);
    }
    PictureSourceOptions sourceOptions;
    sourceOptions.images = o.images;
    sourceOptions.video = o.video;
    sourceOptions.frames = o.frames;
    std::unique_ptr<PictureSource> source;
    std::string error = openPictureSource(sourceOptions, source);
    if (error.empty() && !o.out.empty()) error = msm::makeDirectories(folderOf(o.out));
    if (!error.empty()) return fail(error);
    std::unique_ptr<FaceFinder> finder;
    error =
        makeFaceFinder(o.model, !o.video.empty(), o.video.empty() ? "detect" : "--video", finder);
    if (error.empty() && !o.overlay.empty()) error = msm::makeDirectories(o.overlay);
    // A video's frames become pictures of their own, so that the points file can name them.
    const std::string framesFolder =
        o.video.empty() ? std::string() : folderOf(o.out) + "/" + stemOf(o.out) + "-frames";
    if (error.empty() && !framesFolder.empty()) error = msm::makeDirectories(framesFolder);
    if (!error.empty()) return fail(error);

    std::string points = "# image x0 y0 ... x13 y13, written by msmface detect\n";
    int found = 0;
    cv::Mat picture;
    while (source->next(picture)) {
        FoundFace face;
        const bool has = finder->find(picture, face);
        const int index = source->taken();
        char number[16];
        std::snprintf(number, sizeof number, "%06d", index);
        if (!o.overlay.empty()) {
            const std::string name =
                o.video.empty() ? std::string(number + 2) + "-" + stemOf(source->frameName())
                                : std::string("frame") + number;
            const std::string path = o.overlay + "/" + name + ".png";
            error = inputs.refuseOverwrite("--overlay", path);
            if (error.empty()) error = drawOverlay(picture, has ? &face : nullptr, path);
            if (!error.empty()) return fail(error);
        }
        if (!has) continue;
        ++found;
        std::string picturePath = source->frameName();
        if (!o.video.empty()) {
            picturePath = framesFolder + "/" + number + ".png";
            error = inputs.refuseOverwrite("--out", picturePath);
            if (error.empty()) error = writePicture(picturePath, picture);
            if (!error.empty()) return fail(error);
        }
        points += msmface::pointsFileRow(
            nameInList(picturePath, o.out.empty() ? "" : folderOf(o.out)), face.points);
    }
    if (!source->error().empty()) return fail(source->error());
    if (found == 0)
        return fail((o.video.empty() ? std::string("detect") : o.video) +
                    ": no face found in any of the " + std::to_string(source->taken()) +
                    " frames; expected frames showing a face");
    if (o.out.empty()) {
        std::fputs(points.c_str(), stdout);
        return 0;
    }
    // Checked again: the folders made meanwhile may have turned a name into an input's.
    error = inputs.refuseOverwrite("--out", o.out);
    if (error.empty()) error = writeOutputFile(o.out, points);
    if (!error.empty()) return fail(error);
    std::printf("found a face in %d of %d frames; points: %s\n", found, source->taken(),
                o.out.c_str());
    if (!o.overlay.empty()) std::printf("drawn frames: %s\n", o.overlay.c_str());
    return 0;
}

}  // namespace msmcli
