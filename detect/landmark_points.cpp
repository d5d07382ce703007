// The engine's fourteen points from the 68 landmarks (table in detect/README.md).
#include <msmface/detect.h>

#include <initializer_list>

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

}  // namespace msmface
