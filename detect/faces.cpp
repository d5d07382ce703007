// From a caller's frame to faces and landmarks.
#include "detect/detect_internal.h"

#include <dlib/image_transforms.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace msmface::detail {

Status checkFrame(const FrameView& frame) {
    if (frame.format != PixelFormat::Grey && frame.format != PixelFormat::BGR &&
        frame.format != PixelFormat::RGB)
        return Status::failure(ErrorKind::Argument,
                               "frame: pixel format " +
                                   std::to_string(static_cast<int>(frame.format)) +
                                   " is none of Grey (1), BGR (3) or RGB (4)");
    if (frame.data == nullptr)
        return Status::failure(ErrorKind::Argument, "frame: no pixel data (null pointer)");
    if (frame.width < 1 || frame.height < 1 || frame.width > kMaxFrameSide ||
        frame.height > kMaxFrameSide)
        return Status::failure(ErrorKind::Argument,
                               "frame: " + std::to_string(frame.width) + " x " +
                                   std::to_string(frame.height) + " pixels, expected 1 to " +
                                   std::to_string(kMaxFrameSide) + " on each side");
    const long minimum = static_cast<long>(frame.width) * bytesPerPixel(frame.format);
    if (frame.stride < 0 || (frame.stride > 0 && frame.stride < minimum))
        return Status::failure(ErrorKind::Argument,
                               "frame: stride " + std::to_string(frame.stride) +
                                   " bytes, expected 0 or at least " + std::to_string(minimum) +
                                   " (width times bytes per pixel)");
    return {};
}

void toGrey(const FrameView& frame, GreyImage& grey) {
    grey.set_size(frame.height, frame.width);
    const long stride = frame.rowBytes();
    for (long y = 0; y < frame.height; ++y) {
        const unsigned char* in = frame.data + y * stride;
        unsigned char* out = &grey[y][0];
        if (frame.format == PixelFormat::Grey) {
            std::memcpy(out, in, static_cast<size_t>(frame.width));
            continue;
        }
        const int r = frame.format == PixelFormat::RGB ? 0 : 2;
        const int b = 2 - r;
        for (long x = 0; x < frame.width; ++x, in += 3)
            out[x] = static_cast<unsigned char>((in[r] * 299 + in[1] * 587 + in[b] * 114) / 1000);
    }
}

namespace {

long boxArea(const dlib::rectangle& r) {
    return static_cast<long>(r.width()) * r.height();
}

void largestFirst(std::vector<dlib::rect_detection>& found) {
    std::stable_sort(found.begin(), found.end(),
                     [](const dlib::rect_detection& a, const dlib::rect_detection& b) {
                         return boxArea(a.rect) > boxArea(b.rect);
                     });
}

// Boxes found in a resized copy of region, back in frame pixels. resize_image maps the corner
// pixels' centres onto each other.
void mapBack(std::vector<dlib::rect_detection>& found, const dlib::rectangle& region,
             const GreyImage& resized) {
    const double sx = (region.width() - 1) / std::max(1.0, resized.nc() - 1.0);
    const double sy = (region.height() - 1) / std::max(1.0, resized.nr() - 1.0);
    for (auto& d : found) {
        const dlib::rectangle r = d.rect;
        d.rect = dlib::rectangle(region.left() + std::lround(r.left() * sx),
                                 region.top() + std::lround(r.top() * sy),
                                 region.left() + std::lround(r.right() * sx),
                                 region.top() + std::lround(r.bottom() * sy));
    }
}

// The detector's window is 80 pixels and its pyramid shrinks by 5/6 a level: a face resized to
// this width is found on one of the first levels even if it grew or shrank by a quarter.
constexpr double kNearFaceWidth = 100;
constexpr unsigned long kNearLevels = 3;

}  // namespace

std::vector<dlib::rect_detection> findFacesDoubled(dlib::frontal_face_detector& detector,
                                                   const GreyImage& grey) {
    std::vector<dlib::rect_detection> found;
    GreyImage big(2 * grey.nr(), 2 * grey.nc());
    dlib::resize_image(grey, big);
    detector(big, found);
    mapBack(found, dlib::get_rect(grey), big);
    largestFirst(found);
    return found;
}

std::vector<dlib::rect_detection> findFaces(dlib::frontal_face_detector& detector,
                                            const GreyImage& grey, int upsampleBelowWidth) {
    std::vector<dlib::rect_detection> found;
    detector(grey, found);
    // The detector's window is 80 pixels: smaller faces, common in ordinary footage, are found
    // only in a larger copy.
    // A frame taller than the limit is no camera frame of small faces either: doubling it would
    // only make a huge search out of a large one.
    if (found.empty() && grey.nc() <= upsampleBelowWidth && grey.nr() <= upsampleBelowWidth)
        return findFacesDoubled(detector, grey);
    largestFirst(found);
    return found;
}

std::vector<dlib::rect_detection> findFaces(const Detector::Impl& impl,
                                            dlib::frontal_face_detector& hog, const GreyImage& grey,
                                            int upsampleBelowWidth) {
    if (impl.network) return impl.network->find(grey);
    return findFaces(hog, grey, upsampleBelowWidth);
}

dlib::frontal_face_detector nearSearch(const dlib::frontal_face_detector& detector) {
    dlib::frontal_face_detector::image_scanner_type scanner;
    scanner.copy_configuration(detector.get_scanner());
    scanner.set_max_pyramid_levels(kNearLevels);
    std::vector<dlib::frontal_face_detector::feature_vector_type> weights;
    for (unsigned long i = 0; i < detector.num_detectors(); ++i)
        weights.push_back(detector.get_w(i));
    return dlib::frontal_face_detector(scanner, detector.get_overlap_tester(), weights);
}

std::vector<dlib::rect_detection> findFacesNear(dlib::frontal_face_detector& near,
                                                const GreyImage& grey,
                                                const dlib::rectangle& region, double faceWidth,
                                                double adjustThreshold) {
    std::vector<dlib::rect_detection> found;
    const dlib::rectangle inside = region.intersect(dlib::get_rect(grey));
    if (inside.width() < 8 || inside.height() < 8 || !(faceWidth >= 1)) return found;
    const double scale = kNearFaceWidth / faceWidth;
    GreyImage chip(std::max(1L, std::lround(inside.height() * scale)),
                   std::max(1L, std::lround(inside.width() * scale)));
    dlib::resize_image(dlib::sub_image(grey, inside), chip);
    near(chip, found, adjustThreshold);
    mapBack(found, inside, chip);
    largestFirst(found);
    return found;
}

DetectedFace fitFace(const dlib::shape_predictor& model, const GreyImage& grey,
                     const dlib::rectangle& box, double score) {
    const dlib::full_object_detection shape = model(grey, box);
    DetectedFace face;
    face.box = {static_cast<int>(box.left()), static_cast<int>(box.top()),
                static_cast<int>(box.width()), static_cast<int>(box.height())};
    face.score = score;
    face.landmarks.fill(-1.0f);
    for (unsigned long i = 0; i < shape.num_parts() && i < kLandmarkCount; ++i) {
        face.landmarks[2 * i] = static_cast<float>(shape.part(i).x());
        face.landmarks[2 * i + 1] = static_cast<float>(shape.part(i).y());
    }
    face.points = pointsFromLandmarks(face.landmarks);
    return face;
}

}  // namespace msmface::detail
