#include <cmath>

#include <gtest/gtest.h>

#include "normalise/face_shape_model.h"
#include "normalise_test_support.h"

namespace {

void ModelOrderReference(int32_t points[28]) {
    for (int k = 0; k < kFacePointCount; ++k) {
        points[2 * k] = FaceReferencePoints[k][0];
        points[2 * k + 1] = FaceReferencePoints[k][1];
    }
}

// Largest entry-wise distance from the camera u = 128 X + 128, v = 128 Y + 128.
float DistanceFromGridCamera(const FaceShapeModel& m) {
    const float ideal[2][3] = {{128, 0, 0}, {0, 128, 0}};
    float worst = 0;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 3; ++j)
            worst = std::fmax(worst, std::fabs(m.projection[i][j] - ideal[i][j]));
    return worst;
}

TEST(PointOrder, HostPointsLandOnTheirModelPoints) {
    int32_t host[28], model[28];
    for (int k = 0; k < 28; ++k) host[k] = 100 + k;
    msm::ToModelOrder(host, model);
    // host 7 -> model 8, host 9 -> model 7, host 12 -> model 10, host 13 -> model 11
    EXPECT_EQ(model[16], 114);
    EXPECT_EQ(model[17], 115);
    EXPECT_EQ(model[14], 118);
    EXPECT_EQ(model[20], 124);
    EXPECT_EQ(model[22], 126);
    EXPECT_EQ(model[24], 120);  // host 10 -> model 12
    for (int k = 0; k < 14; ++k) EXPECT_EQ(model[k], 100 + k);
}

TEST(PointOrder, AbsenceIsAnyCoordinateAbove9998AsUnsigned) {
    EXPECT_TRUE(msm::IsPointPresent(0, 0));
    EXPECT_TRUE(msm::IsPointPresent(9998, 9998));
    EXPECT_FALSE(msm::IsPointPresent(9999, 5));
    EXPECT_FALSE(msm::IsPointPresent(5, -1));
    EXPECT_FALSE(msm::IsPointPresent(-1000000000, 5));
    EXPECT_FALSE(msm::IsPointPresent(1000000000, 5));
}

TEST(FitPose, ReferencePointsGiveTheGridCameraWithNoDepthTerm) {
    FaceShapeModel model;
    model.computeBackProjection = true;
    int32_t points[28];
    ModelOrderReference(points);
    ASSERT_TRUE(FitPose(&model, points));
    EXPECT_LT(DistanceFromGridCamera(model), 1e-3f);
    // The back projection inverts the camera on the image plane.
    for (int i = 0; i < 2; ++i) {
        for (int j = 0; j < 2; ++j) {
            float s = 0;
            for (int k = 0; k < 3; ++k) s += model.projection[i][k] * model.backProjection[k][j];
            EXPECT_NEAR(s, i == j ? 1.0f : 0.0f, 1e-4f);
        }
    }
}

TEST(FitPose, NeedsFourPresentPointsAndLeavesTheModelAloneWithout) {
    FaceShapeModel model;
    model.projection[0][0] = 7;
    model.imageCentroid[0] = 3;
    int32_t points[28];
    for (int32_t& p : points) p = 9999;
    EXPECT_FALSE(FitPose(&model, points));
    points[0] = 10, points[1] = 20, points[2] = 30, points[3] = 20, points[4] = 20, points[5] = 40;
    EXPECT_FALSE(FitPose(&model, points));  // three points
    EXPECT_EQ(model.projection[0][0], 7);
    EXPECT_EQ(model.imageCentroid[0], 3);

    points[20] = 25, points[21] = 30;  // a fourth (model point 10)
    EXPECT_TRUE(FitPose(&model, points));
    EXPECT_EQ(model.imageCentroid[0], (10.0f + 30 + 20 + 25) / 4);
    // Four points, three degrees of freedom per row: the camera passes through all of them.
    for (int k : {0, 1, 2, 10}) {
        float xyz[3];
        msm::ModelPoint(k, xyz);
        for (int row = 0; row < 2; ++row) {
            float v = model.imageCentroid[row];
            for (int d = 0; d < 3; ++d)
                v += model.projection[row][d] * (xyz[d] - model.modelCentroid[d]);
            EXPECT_NEAR(v, points[2 * k + row], 1e-2f) << "point " << k;
        }
    }
}

TEST(FitPose, RecoversAKnownCameraFromRoundedPoints) {
    const float truth[2][3] = {{96, 8, 25}, {-5, 104, -18}};
    int32_t points[28];
    for (int k = 0; k < 14; ++k) {
        float xyz[3];
        msm::ModelPoint(k, xyz);
        for (int row = 0; row < 2; ++row) {
            const float v = (row ? 240.0f : 320.0f) + truth[row][0] * xyz[0] +
                            truth[row][1] * xyz[1] + truth[row][2] * xyz[2];
            points[2 * k + row] = static_cast<int32_t>(std::lround(v));
        }
    }
    FaceShapeModel model;
    ASSERT_TRUE(FitPose(&model, points));
    for (int k = 0; k < 14; ++k) {
        float xyz[3];
        msm::ModelPoint(k, xyz);
        for (int row = 0; row < 2; ++row) {
            float v = model.imageCentroid[row];
            for (int d = 0; d < 3; ++d)
                v += model.projection[row][d] * (xyz[d] - model.modelCentroid[d]);
            EXPECT_NEAR(v, points[2 * k + row], 1.0f);
        }
    }
    EXPECT_NEAR(model.projection[0][0], 96, 2);
    EXPECT_NEAR(model.projection[1][1], 104, 2);
}

TEST(FitPoseRobust, PullsTheCameraBackTowardTheInliers) {
    int32_t points[28];
    ModelOrderReference(points);
    points[2 * 5] += 30;  // one mouth corner far off
    points[2 * 5 + 1] -= 25;
    FaceShapeModel plain, robust;
    ASSERT_TRUE(FitPose(&plain, points));
    ASSERT_TRUE(FitPoseRobust(&robust, points));
    EXPECT_LT(DistanceFromGridCamera(robust), 0.7f * DistanceFromGridCamera(plain));
    // The inliers are matched better once the outlier weighs less.
    auto inlierError = [&](const FaceShapeModel& m) {
        float sum = 0;
        for (int k = 0; k < 14; ++k) {
            if (k == 5) continue;
            float xyz[3];
            msm::ModelPoint(k, xyz);
            for (int row = 0; row < 2; ++row) {
                float v = m.imageCentroid[row];
                for (int d = 0; d < 3; ++d)
                    v += m.projection[row][d] * (xyz[d] - m.modelCentroid[d]);
                sum += (v - points[2 * k + row]) * (v - points[2 * k + row]);
            }
        }
        return sum;
    };
    EXPECT_LT(inlierError(robust), 0.7f * inlierError(plain));
}

TEST(FitPoseRobust, ExactPointsKeepThePlainFit) {
    int32_t points[28];
    ModelOrderReference(points);
    FaceShapeModel plain, robust;
    ASSERT_TRUE(FitPose(&plain, points));
    ASSERT_TRUE(FitPoseRobust(&robust, points));
    EXPECT_LT(DistanceFromGridCamera(robust), 1e-3f);
}

TEST(RobustWeights, StopWhenAllResidualsAreEqual) {
    const float equal[4] = {1.5f, 1.5f, 1.5f, 1.5f};
    float weights[4] = {-1, -1, -1, -1};
    EXPECT_FALSE(msm::RobustWeights(equal, 4, weights));
    EXPECT_EQ(weights[0], -1);  // nothing written
}

TEST(RobustWeights, SinglePowerWeightWithTheCutAtSix) {
    const float pair[2] = {0.0f, 2.0f};  // mean 1, spread 1
    float w[2];
    ASSERT_TRUE(msm::RobustWeights(pair, 2, w));
    EXPECT_EQ(w[0], 1.0f);  // the residual itself over the spread, not its deviation
    EXPECT_FLOAT_EQ(w[1], 1.0f - 4.0f / 36.0f);

    // One outlier among n-1 zeros stands n / sqrt(n - 1) spreads away: 6.0025 for n = 35,
    // 5.9186 for n = 34.
    for (int n : {34, 35}) {
        std::vector<float> r(static_cast<size_t>(n), 0.0f), weights(static_cast<size_t>(n));
        r.back() = 10.0f;
        ASSERT_TRUE(msm::RobustWeights(r.data(), n, weights.data()));
        const double t = n / std::sqrt(n - 1.0);
        const double expected = (t < 6) ? 1 - t * t / 36 : 0;  // not squared
        EXPECT_NEAR(weights.back(), expected, 1e-4) << "n = " << n;
    }
}

}  // namespace
