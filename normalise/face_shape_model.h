// The pose fit: an affine camera that maps the 3-D mean face onto a frame's feature points.
#ifndef MSMFACE_NORMALISE_FACE_SHAPE_MODEL_H
#define MSMFACE_NORMALISE_FACE_SHAPE_MODEL_H

#include <cstdint>

#include <msmface/PartsPosition.h>
#include <msmface/frame.h>

// The fitted pose of one engine. Holds the last fit; one thread at a time.
class FaceShapeModel {
  public:
    float** projection;          // 2 x 3: centred model point -> centred image offset
    float** backProjection;      // 3 x 2: centred image offset -> centred model point (optional)
    float imageCentroid[2];      // mean x, y of the points used
    float modelCentroid[3];      // mean X, Y, Z of their model points
    bool robustFit;              // reweight against outlying points (off by default)
    bool computeBackProjection;  // also fit backProjection (off by default)
    bool supersampleWarp;        // render with 2 x 2 samples per pixel (off by default)

    // ensures: zero projections and centroids, all three flags false. When a matrix cannot be
    // allocated "cannot malloc." goes to standard error and every later fit fails.
    FaceShapeModel();
    virtual ~FaceShapeModel();

    FaceShapeModel(const FaceShapeModel&) = delete;
    FaceShapeModel& operator=(const FaceShapeModel&) = delete;
};

namespace msm {

inline constexpr int32_t kAbsentCoordinate = msmface::kAbsentCoordinate;

// True when neither coordinate, read as unsigned, exceeds 9998 (negatives are absent).
inline bool IsPointPresent(int32_t x, int32_t y) {
    return static_cast<uint32_t>(x) <= 9998u && static_cast<uint32_t>(y) <= 9998u;
}

// Rearranges the host's 28 coordinates into the face model's point order.
void ToModelOrder(const int32_t hostPoints[28], int32_t modelPoints[28]);

// Model point k of the reference table as the 3-D point (X, Y, Z): grid position mapped to
// [-1, 1) and the depth at that grid position.
void ModelPoint(int k, float xyz[3]);

}  // namespace msm

// Least-squares affine camera through the present points (coordinates in model order, 28
// values). Sets the centroids and projection, and backProjection when asked for. Returns false
// and leaves the model untouched with fewer than four present points; returns false with a zero
// projection when the model points are coplanar (no unique camera).
bool FitPose(FaceShapeModel* model, const int32_t pointsInModelOrder[28]);

// FitPose, then at most ten rounds of reweighted least squares: each residual gets the weight
// 1 - (r/s)^2 / 36 (0 from |r/s| >= 6), s being the spread of the absolute residuals; the rounds
// stop early when s is exactly 0 or the weighted system has no solution (the last projection
// stays). Returns what FitPose returned.
bool FitPoseRobust(FaceShapeModel* model, const int32_t pointsInModelOrder[28]);

namespace msm {

// One reweighting step's weights from 2N absolute residuals. Returns false, writing nothing,
// when all residuals are equal (spread exactly 0).
bool RobustWeights(const float* residuals, int count, float* weights);

}  // namespace msm

#endif  // MSMFACE_NORMALISE_FACE_SHAPE_MODEL_H
