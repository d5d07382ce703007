#include <cstring>

#include "data/face_model.h"
#include "normalise/face_cropping.h"

namespace {

constexpr float kGridStep = 0.00390625f;  // 1 / 256, exact

float GridCoordinate(float position) {
    return (position * kGridStep - 0.5f) * 2.0f;
}

struct FrameView {
    const unsigned char* pixels;
    int width;
    int height;

    // Bilinear sample at (u, v), truncated to 8 bits.
    int Sample(float u, float v) const {
        int x0, y0;
        float fx, fy;
        msm::ClampedCell(u, width - 2, x0, fx);
        msm::ClampedCell(v, height - 2, y0, fy);
        const unsigned char* top = pixels + static_cast<size_t>(y0) * width + x0;
        const unsigned char* bottom = top + width;
        const float gx = 1.0f - fx, gy = 1.0f - fy;
        const float value =
            gx * gy * top[0] + fx * gy * top[1] + gx * fy * bottom[0] + fx * fy * bottom[1];
        return static_cast<int>(value);
    }
};

void RenderPlain(const FaceShapeModel& model, const FrameView& frame, unsigned char* target,
                 int bytesPerPixel, msm::ViewWindow w) {
    // Everything the loop reads is copied into locals: the byte stores below may alias any
    // object, and would otherwise force the compiler to reload each of them per pixel.
    const float p02 = model.projection[0][2], p12 = model.projection[1][2];
    const float p01 = model.projection[0][1], p11 = model.projection[1][1];
    const float p00 = model.projection[0][0], p10 = model.projection[1][0];
    const float cx = model.imageCentroid[0], cy = model.imageCentroid[1];
    const float mz = model.modelCentroid[2];
    const unsigned char* const pixels = frame.pixels;
    const size_t stride = static_cast<size_t>(frame.width);
    const int limitX = frame.width - 2, limitY = frame.height - 2;
    float px[kWarpSize], qx[kWarpSize];
    for (int c = w.colBegin; c < w.colEnd; ++c) {
        const float x = GridCoordinate(static_cast<float>(c)) - model.modelCentroid[0];
        px[c] = p00 * x;
        qx[c] = p10 * x;
    }
    for (int r = w.rowBegin; r < w.rowEnd; ++r) {
        const float y = GridCoordinate(static_cast<float>(r)) - model.modelCentroid[1];
        const float py = p01 * y, qy = p11 * y;
        const float* depth = FaceDepthMap + r * kFaceGridSize;
        unsigned char* out = target + (static_cast<size_t>(r) * kWarpSize) * bytesPerPixel;
        // Coordinates for the whole row first (a loop the compiler vectorises), then the
        // bilinear reads, which are gathers and stay scalar.
        int cellX[kWarpSize], cellY[kWarpSize];
        float fracX[kWarpSize], fracY[kWarpSize];
        for (int c = w.colBegin; c < w.colEnd; ++c) {
            const float z = depth[c] - mz;
            const float u = px[c] + py + p02 * z + cx;
            const float v = qx[c] + qy + p12 * z + cy;
            msm::ClampedCell(u, limitX, cellX[c], fracX[c]);
            msm::ClampedCell(v, limitY, cellY[c], fracY[c]);
        }
        for (int c = w.colBegin; c < w.colEnd; ++c) {
            const unsigned char* top = pixels + static_cast<size_t>(cellY[c]) * stride + cellX[c];
            const unsigned char* bottom = top + stride;
            const float fx = fracX[c], fy = fracY[c];
            const float gx = 1.0f - fx, gy = 1.0f - fy;
            const float value =
                gx * gy * top[0] + fx * gy * top[1] + gx * fy * bottom[0] + fx * fy * bottom[1];
            const auto grey = static_cast<unsigned char>(static_cast<int>(value));
            for (int b = 0; b < bytesPerPixel; ++b) out[c * bytesPerPixel + b] = grey;
        }
    }
}

// Depth between grid cells; the last row and column repeat the table's edge.
float DepthAt(int r, int c, float fr, float fc) {
    const int r1 = (r + 1 < kFaceGridSize) ? r + 1 : r;
    const int c1 = (c + 1 < kFaceGridSize) ? c + 1 : c;
    const float* d = FaceDepthMap;
    return (1.0f - fc) * (1.0f - fr) * d[r * kFaceGridSize + c] +
           fc * (1.0f - fr) * d[r * kFaceGridSize + c1] +
           (1.0f - fc) * fr * d[r1 * kFaceGridSize + c] + fc * fr * d[r1 * kFaceGridSize + c1];
}

void RenderSupersampled(const FaceShapeModel& model, const FrameView& frame, unsigned char* target,
                        int bytesPerPixel, msm::ViewWindow w) {
    float* const* p = model.projection;
    static constexpr float kOffsets[4][2] = {
        {0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}, {0.5f, 0.5f}};
    for (int r = w.rowBegin; r < w.rowEnd; ++r) {
        unsigned char* out = target + (static_cast<size_t>(r) * kWarpSize) * bytesPerPixel;
        for (int c = w.colBegin; c < w.colEnd; ++c) {
            int sum = 0;
            for (const auto& o : kOffsets) {
                const float x =
                    GridCoordinate(static_cast<float>(c) + o[0]) - model.modelCentroid[0];
                const float y =
                    GridCoordinate(static_cast<float>(r) + o[1]) - model.modelCentroid[1];
                const float z = DepthAt(r, c, o[1], o[0]) - model.modelCentroid[2];
                const float u = p[0][0] * x + p[0][1] * y + p[0][2] * z + model.imageCentroid[0];
                const float v = p[1][0] * x + p[1][1] * y + p[1][2] * z + model.imageCentroid[1];
                sum += frame.Sample(u, v);
            }
            const int value = static_cast<int>(static_cast<float>(sum) * 0.25f);
            for (int b = 0; b < bytesPerPixel; ++b)
                out[c * bytesPerPixel + b] = static_cast<unsigned char>(value);
        }
    }
}

int TargetBytesPerPixel(const BasicImageData* target) {
    if (!target || !target->pixels || target->width != kWarpSize || target->height != kWarpSize)
        return 0;
    if (target->bitsPerPixel == 8) return 1;
    if (target->bitsPerPixel == 24) return 3;
    return 0;
}

void ReportReferencePositions(const int32_t* points, int32_t* referenceOut) {
    for (int k = 0; k < kFacePointCount; ++k) {
        const bool present = msm::IsPointPresent(points[2 * k], points[2 * k + 1]);
        referenceOut[2 * k] = present ? FaceReferencePoints[k][0] : msm::kAbsentCoordinate;
        referenceOut[2 * k + 1] = present ? FaceReferencePoints[k][1] : msm::kAbsentCoordinate;
    }
}

}  // namespace

namespace msm {

void RenderWarp(const FaceShapeModel& model, const unsigned char* frame, int frameWidth,
                int frameHeight, unsigned char* target, int bytesPerPixel, ViewWindow window) {
    const FrameView view{frame, frameWidth, frameHeight};
    if (model.supersampleWarp) {
        RenderSupersampled(model, view, target, bytesPerPixel, window);
    } else {
        RenderPlain(model, view, target, bytesPerPixel, window);
    }
}

}  // namespace msm

bool WarpFace(FaceShapeModel* model, const unsigned char* framePixels, int frameWidth,
              int frameHeight, BasicImageData* target256, const int32_t* pointsInModelOrder,
              int32_t* referenceOut) {
    if (!model || !pointsInModelOrder) return false;
    if (referenceOut) ReportReferencePositions(pointsInModelOrder, referenceOut);
    const bool fitted = model->robustFit ? FitPoseRobust(model, pointsInModelOrder)
                                         : FitPose(model, pointsInModelOrder);
    const int bytesPerPixel = TargetBytesPerPixel(target256);
    if (bytesPerPixel == 0) return false;
    const bool readable = framePixels && frameWidth >= 2 && frameHeight >= 2;
    if (!fitted || !readable) {
        // A view left as it was would pass the previous frame's face off as this one's.
        std::memset(target256->pixels, 0,
                    static_cast<size_t>(kWarpSize) * kWarpSize * bytesPerPixel);
        return false;
    }
    msm::RenderWarp(*model, framePixels, frameWidth, frameHeight, target256->pixels, bytesPerPixel,
                    msm::ViewWindow{0, kWarpSize, 0, kWarpSize});
    return true;
}
