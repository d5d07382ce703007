#include <algorithm>
#include <cmath>
#include <cstring>

#include "normalise/face_cropping.h"

namespace {

// The crop's height in half eye distances and the divisor of its column step; they match the
// default free cropping range, which the crop deliberately does not consult.
constexpr float kRangeHeight = 3.0f;
constexpr float kRangeWidth = 9.0f;

struct Placement {
    float top, rowStep, centreX, columnStep, halfSize;

    Placement(float eye1x, float eye1y, float eye2x, float eye2y, float scaleX, float scaleY,
              int size) {
        const float cx = (eye1x + eye2x) * 0.5f;
        const float cy = (eye1y + eye2y) * 0.5f;
        const float dx = eye2x - eye1x, dy = eye2y - eye1y;
        const float d = 0.5f * std::sqrt(dx * dx + dy * dy);
        top = cy - d * scaleY;
        rowStep = kRangeHeight * (d * scaleY) / static_cast<float>(size);
        centreX = cx;
        columnStep = (d * scaleX) / kRangeWidth * 0.5f;
        halfSize = static_cast<float>(size / 2);
    }
    float Row(int r) const { return top + static_cast<float>(r) * rowStep; }
    float Column(int c) const { return centreX + (static_cast<float>(c) - halfSize) * columnStep; }
};

}  // namespace

bool CropEyeWindow(const unsigned char* source, int sourceWidth, int sourceHeight,
                   unsigned char* target, float eye1x, float eye1y, float eye2x, float eye2y,
                   float scaleX, float scaleY, int size) {
    if (!target || size < 1) return true;
    if (!source || sourceWidth < 2 || sourceHeight < 2) {
        std::memset(target, 0, static_cast<size_t>(size) * size);
        return true;
    }
    const Placement place(eye1x, eye1y, eye2x, eye2y, scaleX, scaleY, size);
    for (int r = 0; r < size; ++r) {
        int y0;
        float fy;
        msm::ClampedCell(place.Row(r), sourceHeight - 2, y0, fy);
        const unsigned char* top = source + static_cast<size_t>(y0) * sourceWidth;
        const unsigned char* bottom = top + sourceWidth;
        const float gy = 1.0f - fy;
        unsigned char* out = target + static_cast<size_t>(r) * size;
        for (int c = 0; c < size; ++c) {
            int x0;
            float fx;
            msm::ClampedCell(place.Column(c), sourceWidth - 2, x0, fx);
            const float gx = 1.0f - fx;
            const float value = gx * gy * top[x0] + fx * gy * top[x0 + 1] + gx * fy * bottom[x0] +
                                fx * fy * bottom[x0 + 1];
            out[c] = static_cast<unsigned char>(static_cast<int>(value));
        }
    }
    return true;
}

namespace msm {

ViewWindow CropFootprint(int sourceWidth, int sourceHeight, float eye1x, float eye1y, float eye2x,
                         float eye2y, float scaleX, float scaleY, int size) {
    if (sourceWidth < 2 || sourceHeight < 2 || size < 1) return ViewWindow{0, 0, 0, 0};
    const Placement place(eye1x, eye1y, eye2x, eye2y, scaleX, scaleY, size);
    auto span = [](float first, float last, int limit, int& begin, int& end) {
        int a, b;
        float f;
        ClampedCell(std::min(first, last), limit, a, f);
        ClampedCell(std::max(first, last), limit, b, f);
        begin = a;
        end = b + 2;  // the sample's second neighbour, one past it
    };
    ViewWindow w{};
    span(place.Row(0), place.Row(size - 1), sourceHeight - 2, w.rowBegin, w.rowEnd);
    span(place.Column(0), place.Column(size - 1), sourceWidth - 2, w.colBegin, w.colEnd);
    return w;
}

}  // namespace msm
