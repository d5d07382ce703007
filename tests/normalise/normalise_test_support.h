// Frames and feature points for the normaliser's tests.
#ifndef MSMFACE_TESTS_NORMALISE_SUPPORT_H
#define MSMFACE_TESTS_NORMALISE_SUPPORT_H

#include <cstdint>
#include <random>
#include <vector>

#include <msmface/PartsPosition.h>

#include "data/face_model.h"
#include "normalise/face_shape_model.h"

namespace testsupport {

// Host-order coordinates whose model-order rearrangement is modelPoints.
inline PartsPosition FromModelOrder(const int32_t modelPoints[28]) {
    PartsPosition parts{};
    int32_t probe[28], where[28];
    for (int k = 0; k < 28; ++k) probe[k] = k;
    msm::ToModelOrder(probe, where);  // where[m] = host coordinate that lands on model m
    for (int m = 0; m < 28; ++m) parts.points[where[m]] = modelPoints[m];
    return parts;
}

// Every point at its reference grid position.
inline PartsPosition ReferencePoints() {
    int32_t model[28];
    for (int k = 0; k < kFacePointCount; ++k) {
        model[2 * k] = FaceReferencePoints[k][0];
        model[2 * k + 1] = FaceReferencePoints[k][1];
    }
    return FromModelOrder(model);
}

// A smooth, non-uniform texture: values vary by at most one grey level per pixel step would be
// too flat to tell pixels apart, so use a broad gradient plus a gentle ripple.
inline std::vector<unsigned char> SmoothFrame(int width, int height) {
    std::vector<unsigned char> frame(static_cast<size_t>(width) * height);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            frame[static_cast<size_t>(r) * width + c] =
                static_cast<unsigned char>(40 + (c * 150) / width + (r * 60) / height);
    return frame;
}

inline std::vector<unsigned char> NoiseFrame(int width, int height, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> grey(20, 235);
    std::vector<unsigned char> frame(static_cast<size_t>(width) * height);
    for (auto& p : frame) p = static_cast<unsigned char>(grey(gen));
    return frame;
}

}  // namespace testsupport

#endif  // MSMFACE_TESTS_NORMALISE_SUPPORT_H
