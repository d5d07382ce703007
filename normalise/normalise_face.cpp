#include <cstring>
#include <vector>

#include "normalise/face_cropping.h"

namespace {

// The model's eye centres: the normalised face is cut around them at unit scale.
constexpr float kEye1X = 85.0f, kEye1Y = 109.0f, kEye2X = 171.0f, kEye2Y = 109.0f;

}  // namespace

int NormaliseFace(FaceShapeModel* model, int frameWidth, int frameHeight,
                  const unsigned char* framePixels, const PartsPosition* parts,
                  unsigned char* out64x64) {
    if (!model || !framePixels || !parts || !out64x64 || frameWidth < 2 || frameHeight < 2)
        return 0;
    int32_t points[28];
    msm::ToModelOrder(parts->points, points);
    const bool fitted = model->robustFit ? FitPoseRobust(model, points) : FitPose(model, points);

    // Only the part of the view that the crop reads is rendered: the face comes out the same
    // for a third of the work. The rest stays 0.
    std::vector<unsigned char> view(static_cast<size_t>(kWarpSize) * kWarpSize, 0);
    if (fitted) {
        const msm::ViewWindow window = msm::CropFootprint(
            kWarpSize, kWarpSize, kEye1X, kEye1Y, kEye2X, kEye2Y, 1.0f, 1.0f, kNormalisedFaceSize);
        msm::RenderWarp(*model, framePixels, frameWidth, frameHeight, view.data(), 1, window);
    }
    unsigned char face[kNormalisedFaceSize * kNormalisedFaceSize];
    CropEyeWindow(view.data(), kWarpSize, kWarpSize, face, kEye1X, kEye1Y, kEye2X, kEye2Y, 1.0f,
                  1.0f, kNormalisedFaceSize);
    std::memcpy(out64x64, face, sizeof face);
    return 1;
}
