#include <msmface/face_input.h>

#include <cmath>
#include <memory>
#include <new>

#include "gallery/frame_input.h"
#include "normalise/face_patterns.h"

namespace msmface {
namespace {

// The engine reads every whole pixel above this as absent.
constexpr float kLargestPixel = 9998.0f;
static_assert(kNormalisedFaceSide == kNormalisedFaceSize, "one face side for host and engine");

}  // namespace

FacePoints toFacePoints(const std::array<double, 2 * kFacePointCount>& xy) {
    FacePoints points;
    for (int k = 0; k < 2 * kFacePointCount; ++k) points.xy[k] = static_cast<float>(xy[k]);
    return points;
}

int32_t toEnginePixel(float v) {
    // Halves round away from zero, so anything from 9998.5 on would round past the engine's
    // largest pixel: absent either way, and said so here.
    if (!(v >= 0.0f && v < kLargestPixel + 0.5f)) return kAbsentCoordinate;
    return static_cast<int32_t>(std::lround(v));
}

PartsPosition toPartsPosition(const FacePoints& points) {
    PartsPosition parts{};
    for (int k = 0; k < 2 * kFacePointCount; ++k) parts.points[k] = toEnginePixel(points.xy[k]);
    return parts;
}

bool anyPointPresent(const PartsPosition& parts) {
    for (int k = 0; k < kFacePointCount; ++k)
        if (parts.points[2 * k] != kAbsentCoordinate &&
            parts.points[2 * k + 1] != kAbsentCoordinate)
            return true;
    return false;
}

Result<std::vector<unsigned char>> normalisedFace(const FrameView& frame,
                                                  const FacePoints& points) {
    const std::string bad = detail::checkFrame(frame);
    if (!bad.empty()) return Status::failure(ErrorKind::Argument, "frame: " + bad);
    const PartsPosition parts = toPartsPosition(points);
    if (!anyPointPresent(parts))
        return Status::failure(ErrorKind::Argument,
                               "points: expected at least one point with both coordinates, "
                               "found every point absent");
    try {
        // The face model is set up once per thread: it holds the pose fit of its last face.
        thread_local std::unique_ptr<msm::FacePatterns> model;
        if (!model) model = std::make_unique<msm::FacePatterns>();
        BasicImageFile grey;
        if (!detail::toGrey(frame, grey))
            return Status::failure(ErrorKind::Internal, "frame: no memory for a grey copy");
        std::vector<unsigned char> face(kNormalisedFaceSide * kNormalisedFaceSide);
        if (!model->normalise(grey, parts, face.data()))
            return Status::failure(ErrorKind::Internal, "frame: the face could not be normalised");
        return face;
    } catch (const std::bad_alloc&) {
        return Status::failure(ErrorKind::Internal, "frame: no memory for the face model");
    }
}

}  // namespace msmface
