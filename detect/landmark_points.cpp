// The engine's fourteen points from the 68 landmarks (table in detect/README.md).
#include <msmface/detect.h>

#include <cmath>
#include <initializer_list>
#include <string>

namespace msmface {

namespace {

// Each point is the mean of these landmarks, in the engine's order.
const std::initializer_list<int> kSources[kFacePointCount] = {
    {36, 37, 38, 39, 40, 41},  // 0 eye centre, image left: the whole contour
    {42, 43, 44, 45, 46, 47},  // 1 eye centre, image right
    {31, 32},                  // 2 nostril, image left
    {34, 35},                  // 3 nostril, image right
    {48},                      // 4 mouth corner, image left
    {54},                      // 5 mouth corner, image right
    {36},                      // 6 outer corner of the image-left eye
    {39},                      // 7 inner corner of the image-left eye
    {42},                      // 8 inner corner of the image-right eye
    {45},                      // 9 outer corner of the image-right eye
    {20, 21},                  // 10 inner eyebrow end, image left
    {22, 23},                  // 11 inner eyebrow end, image right
    {30, 33},                  // 12 nose tip
    {51, 57, 62, 66},          // 13 mouth centre
};

}  // namespace

FacePoints pointsFromLandmarks(const std::array<float, 136>& landmarks) {
    FacePoints out;
    for (int k = 0; k < kFacePointCount; ++k) {
        double x = 0, y = 0;
        for (int i : kSources[k]) {
            x += landmarks[2 * i];
            y += landmarks[2 * i + 1];
        }
        const double n = static_cast<double>(kSources[k].size());
        out.xy[2 * k] = static_cast<float>(x / n);
        out.xy[2 * k + 1] = static_cast<float>(y / n);
    }
    return out;
}

Result<FaceBox> boxFromPoints(const FacePoints& points) {
    const auto& p = points.xy;
    for (int k : {0, 1, 13}) {
        const float x = p[2 * k], y = p[2 * k + 1];
        // Beyond any frame side the detector takes: no position, and no integer box either.
        constexpr float kFar = 1 << 20;
        if (!std::isfinite(x) || !std::isfinite(y) || x < 0 || y < 0 || x > kFar || y > kFar)
            return Status::failure(ErrorKind::Argument,
                                   "points: point " + std::to_string(k) +
                                       " is absent; expected the eye centres (0, 1) and the "
                                       "mouth centre (13)");
    }
    const double mx = (p[0] + p[2]) / 2.0, my = (p[1] + p[3]) / 2.0;
    const double dx = p[26] - mx, dy = p[27] - my;
    const double reach = std::hypot(dx, dy);
    if (!(reach >= 1))
        return Status::failure(ErrorKind::Argument,
                               "points: the mouth centre lies within a pixel of the eyes' "
                               "midpoint; expected a face");
    // Across the eye line, towards the mouth: the face's own down, whatever its roll.
    double ex = p[2] - p[0], ey = p[3] - p[1];
    const double eyes = std::hypot(ex, ey);
    double downX = dx / reach, downY = dy / reach;
    if (eyes >= 1) {
        downX = -ey / eyes;
        downY = ex / eyes;
        if (downX * dx + downY * dy < 0) downX = -downX, downY = -downY;
    }
    constexpr double kSide = 2.27, kBelow = 0.42;
    const double side = kSide * reach;
    const double cx = mx + kBelow * reach * downX, cy = my + kBelow * reach * downY;
    FaceBox box;
    box.width = box.height = static_cast<int>(std::lround(side));
    box.left = static_cast<int>(std::lround(cx - side / 2));
    box.top = static_cast<int>(std::lround(cy - side / 2));
    return box;
}

}  // namespace msmface
