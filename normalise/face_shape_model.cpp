#include "normalise/face_shape_model.h"

#include <cmath>
#include <cstdio>

#include <msmface/numeric.h>

#include "data/face_model.h"

namespace {

constexpr int kMaxPoints = kFacePointCount;

// Entry k names the model coordinate that receives host coordinate k: the host lists the inner
// eye corners before the outer right one and the nose and mouth after the eyebrows.
constexpr int kHostToModel[28] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13,
                                  16, 17, 18, 19, 14, 15, 24, 25, 26, 27, 20, 21, 22, 23};

// Small row-pointer matrices on the stack, for the toolkit's matmult and matinv.
template <int Rows, int Cols>
struct StackMatrix {
    float cells[Rows][Cols] = {};
    float* rows[Rows + 1];
    StackMatrix() {
        for (int i = 0; i < Rows; ++i) rows[i] = cells[i];
        rows[Rows] = nullptr;
    }
    float** get() { return rows; }
};

// The present points, centred: model points in A (3 x n), image points in B (2 x n).
struct CentredPairs {
    int n = 0;
    StackMatrix<3, kMaxPoints> a;
    StackMatrix<2, kMaxPoints> b;
};

int CollectCentredPairs(FaceShapeModel* model, const int32_t points[28], CentredPairs& pairs) {
    float image[2][kMaxPoints];
    float world[3][kMaxPoints];
    int n = 0;
    for (int k = 0; k < kMaxPoints; ++k) {
        if (!msm::IsPointPresent(points[2 * k], points[2 * k + 1])) continue;
        image[0][n] = static_cast<float>(points[2 * k]);
        image[1][n] = static_cast<float>(points[2 * k + 1]);
        float xyz[3];
        msm::ModelPoint(k, xyz);
        for (int d = 0; d < 3; ++d) world[d][n] = xyz[d];
        ++n;
    }
    pairs.n = n;
    if (n <= 3) return n;
    const float count = static_cast<float>(n);
    for (int d = 0; d < 2; ++d) {
        float sum = 0.0f;
        for (int i = 0; i < n; ++i) sum += image[d][i];
        model->imageCentroid[d] = sum / count;
        for (int i = 0; i < n; ++i) pairs.b.cells[d][i] = image[d][i] - model->imageCentroid[d];
    }
    for (int d = 0; d < 3; ++d) {
        float sum = 0.0f;
        for (int i = 0; i < n; ++i) sum += world[d][i];
        model->modelCentroid[d] = sum / count;
        for (int i = 0; i < n; ++i) pairs.a.cells[d][i] = world[d][i] - model->modelCentroid[d];
    }
    return n;
}

// out (Rows x OutCols) = X (Rows x n) . Yt (n x Cols) . (Y . Yt)^-1; false, out zeroed, when
// Y . Yt is singular.
template <int Rows, int Cols, int XR, int YR>
bool LeastSquaresMap(StackMatrix<XR, kMaxPoints>& x, StackMatrix<YR, kMaxPoints>& y, int n,
                     float** out) {
    static_assert(XR == Rows && YR == Cols, "shapes");
    StackMatrix<kMaxPoints, Cols> yt;
    for (int i = 0; i < n; ++i)
        for (int d = 0; d < Cols; ++d) yt.cells[i][d] = y.cells[d][i];
    StackMatrix<Cols, Cols> yyt;
    StackMatrix<Cols, Cols> inverse;
    StackMatrix<Rows, Cols> xyt;
    matmult(y.get(), Cols, n, yt.get(), n, Cols, yyt.get());
    matmult(x.get(), Rows, n, yt.get(), n, Cols, xyt.get());
    const bool solvable = matinv(Cols, yyt.get(), inverse.get()) != 0.0f;
    // A singular system leaves the inverse zero, so the map is zero rather than stale.
    matmult(xyt.get(), Rows, Cols, inverse.get(), Cols, Cols, out);
    return solvable;
}

}  // namespace

FaceShapeModel::FaceShapeModel()
    : projection(new_matrix(2, 3)),
      backProjection(new_matrix(3, 2)),
      imageCentroid{0.0f, 0.0f},
      modelCentroid{0.0f, 0.0f, 0.0f},
      robustFit(false),
      computeBackProjection(false),
      supersampleWarp(false) {
    if (projection)
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 3; ++j) projection[i][j] = 0.0f;
    if (backProjection)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 2; ++j) backProjection[i][j] = 0.0f;
}

FaceShapeModel::~FaceShapeModel() {
    if (projection) free_matrix(projection);
    if (backProjection) free_matrix(backProjection);
}

namespace msm {

void ToModelOrder(const int32_t hostPoints[28], int32_t modelPoints[28]) {
    for (int k = 0; k < 28; ++k) modelPoints[kHostToModel[k]] = hostPoints[k];
}

void ModelPoint(int k, float xyz[3]) {
    const int32_t column = FaceReferencePoints[k][0];
    const int32_t row = FaceReferencePoints[k][1];
    xyz[0] = (static_cast<float>(column) * 0.00390625f - 0.5f) * 2.0f;
    xyz[1] = (static_cast<float>(row) * 0.00390625f - 0.5f) * 2.0f;
    xyz[2] = FaceDepthMap[row * kFaceGridSize + column];
}

bool RobustWeights(const float* residuals, int count, float* weights) {
    float sum = 0.0f;
    for (int i = 0; i < count; ++i) sum += residuals[i];
    const float mean = sum / static_cast<float>(count);
    float squares = 0.0f;
    for (int i = 0; i < count; ++i) {
        const float d = residuals[i] - mean;
        squares += d * d;
    }
    const float spread = std::sqrt(squares / static_cast<float>(count));
    if (spread == 0.0f) return false;
    for (int i = 0; i < count; ++i) {
        const float t = residuals[i] / spread;
        // Kept in this single-power form with the cut at 6: fits were tuned with it.
        weights[i] = (std::fabs(t) < 6.0f) ? 1.0f - (t * t) / 36.0f : 0.0f;
    }
    return true;
}

}  // namespace msm

namespace {

bool FitPlain(FaceShapeModel* model, const int32_t points[28], CentredPairs& pairs) {
    if (!model || !points || !model->projection) return false;
    if (CollectCentredPairs(model, points, pairs) <= 3) return false;
    const bool solved = LeastSquaresMap<2, 3>(pairs.b, pairs.a, pairs.n, model->projection);
    if (model->computeBackProjection && model->backProjection)
        LeastSquaresMap<3, 2>(pairs.a, pairs.b, pairs.n, model->backProjection);
    return solved;
}

// Weighted least squares for both rows of the projection through one 6 x 6 normal system
// (x residuals constrain row 0, y residuals row 1). False, projection unchanged, when singular.
bool SolveWeighted(const CentredPairs& pairs, const float* weights, float** projection) {
    StackMatrix<6, 6> normal;
    StackMatrix<6, 6> inverse;
    float rhs[6] = {};
    for (int i = 0; i < pairs.n; ++i) {
        for (int row = 0; row < 2; ++row) {
            const float w = weights[2 * i + row];
            const int base = 3 * row;
            for (int p = 0; p < 3; ++p) {
                const float wa = w * pairs.a.cells[p][i];
                for (int q = 0; q < 3; ++q)
                    normal.cells[base + p][base + q] += wa * pairs.a.cells[q][i];
                rhs[base + p] += wa * pairs.b.cells[row][i];
            }
        }
    }
    if (matinv(6, normal.get(), inverse.get()) == 0.0f) return false;
    for (int e = 0; e < 6; ++e) {
        float v = 0.0f;
        for (int j = 0; j < 6; ++j) v += inverse.cells[e][j] * rhs[j];
        projection[e / 3][e % 3] = v;
    }
    return true;
}

}  // namespace

bool FitPose(FaceShapeModel* model, const int32_t pointsInModelOrder[28]) {
    CentredPairs pairs;
    return FitPlain(model, pointsInModelOrder, pairs);
}

bool FitPoseRobust(FaceShapeModel* model, const int32_t pointsInModelOrder[28]) {
    CentredPairs pairs;
    if (!FitPlain(model, pointsInModelOrder, pairs)) return false;
    float** p = model->projection;
    float residuals[2 * kMaxPoints];
    float weights[2 * kMaxPoints];
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < pairs.n; ++i) {
            const float x = pairs.a.cells[0][i], y = pairs.a.cells[1][i], z = pairs.a.cells[2][i];
            for (int row = 0; row < 2; ++row) {
                const float predicted = p[row][0] * x + p[row][1] * y + p[row][2] * z;
                residuals[2 * i + row] = std::fabs(pairs.b.cells[row][i] - predicted);
            }
        }
        if (!msm::RobustWeights(residuals, 2 * pairs.n, weights)) break;
        if (!SolveWeighted(pairs, weights, p)) break;
    }
    return true;
}
