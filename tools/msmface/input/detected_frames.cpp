#include "input/detected_frames.h"

#include <memory>

#include "input/frame_descriptors.h"
#include "input/face_finder.h"
#include "input/image_io.h"

namespace msmcli {
namespace {

std::string sourceArgument(const PictureSourceOptions& s) {
    if (!s.images.empty()) return "--images";
    if (!s.video.empty()) return "--video";
    return "--camera";
}

}  // namespace

std::string gatherDetectedFrames(const PictureSourceOptions& source, const std::string& modelPath,
                                 std::vector<Frame>& out, FrameDescriber* describer) {
    std::unique_ptr<PictureSource> pictures;
    std::string error = openPictureSource(source, pictures);
    if (!error.empty()) return error;
    std::unique_ptr<FaceFinder> finder;
    error = makeFaceFinder(modelPath, source.images.empty(), sourceArgument(source), finder);
    if (!error.empty()) return error;
    cv::Mat picture;
    int found = 0;
    while (pictures->next(picture)) {
        FoundFace face;
        if (!finder->find(picture, face)) continue;
        ++found;
        Frame frame;
        if (describer != nullptr) {
            frame.descriptor = describer->describeLandmarks(viewOf(picture), face.landmarks);
            if (!frame.descriptor) continue;
        }
        frame.image = std::make_shared<GreyImage>(greyOf(picture));
        frame.points = face.points;
        out.push_back(std::move(frame));
    }
    if (!pictures->error().empty()) return pictures->error();
    if (out.empty()) {
        const std::string what = source.images.empty() ? pictures->name() : "--images";
        const std::string taken = std::to_string(pictures->taken());
        if (found > 0)
            return what + ": the faces found in " + std::to_string(found) + " of the " + taken +
                   " frames are too small or too close to the border for a descriptor; expected "
                   "larger faces, well inside the frame";
        return what + ": no face found in any of the " + taken +
               " frames; expected frames showing a face";
    }
    return {};
}

int replaceWithFoundPoints(FaceFinder& finder, std::vector<Frame>& frames) {
    std::vector<Frame> kept;
    for (Frame& frame : frames) {
        if (!frame.image) continue;
        const GreyImage& image = *frame.image;
        const cv::Mat grey(image.height, image.width, CV_8UC1,
                           const_cast<unsigned char*>(image.pixels.data()));
        FoundFace face;
        if (!finder.find(grey, face)) continue;
        frame.points = face.points;
        kept.push_back(std::move(frame));
    }
    frames = std::move(kept);
    return static_cast<int>(frames.size());
}

}  // namespace msmcli
