// The per-frame input subspace: start-up, the autocorrelation it builds, convergence onto the
// subspace its patterns come from, and the settings that resize it.
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "data/initial_basis.h"
#include "recognition/MSMRecognition.h"
#include "subspaces.h"

namespace {

using msmtest::Basis;

// Patterns from a known 7-dimensional subspace with decreasing spread per direction.
class PatternSource {
  public:
    explicit PatternSource(unsigned seed) : truth(msmtest::RandomBasis(7, 256, seed)), gen_(seed) {}
    std::vector<float> Next() {
        std::vector<float> x(256, 0.0f);
        for (int i = 0; i < 7; ++i) {
            double c = normal_(gen_) * (1.0 - 0.1 * i) * 0.5;
            for (int k = 0; k < 256; ++k) x[k] += static_cast<float>(c * truth[i][k]);
        }
        return x;
    }
    Basis truth;

  private:
    std::mt19937 gen_;
    std::normal_distribution<double> normal_;
};

// Mean squared length of the basis vectors' projections onto the truth: 1 when they lie in it.
double Captured(const InputSubspace& in, const Basis& truth) {
    double sum = 0;
    for (int i = 0; i < in.basisCount; ++i) {
        std::vector<double> b(in.basis[i], in.basis[i] + 256);
        for (const auto& t : truth) sum += std::pow(msmtest::Dot(b, t), 2);
    }
    return sum / in.basisCount;
}

float InitialValue(int vector, int k) {
    return static_cast<float>(msm::kInitialBasisTable[vector * msm::kInitialBasisStride + k]);
}

TEST(InputSubspace, ConvergesToTheSubspaceOfItsPatterns) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(7, 256), 1);
    PatternSource src(3);
    for (int f = 0; f < 300; ++f) {
        auto x = src.Next();
        in.Update(x.data());
    }
    EXPECT_EQ(in.state, 1);
    EXPECT_GT(Captured(in, src.truth), 0.98);
    // And the basis is orthonormal.
    for (int i = 0; i < 7; ++i)
        for (int j = 0; j < 7; ++j) {
            double d = 0;
            for (int k = 0; k < 256; ++k) d += double(in.basis[i][k]) * in.basis[j][k];
            EXPECT_NEAR(d, i == j ? 1.0 : 0.0, 1e-4);
        }
}

TEST(InputSubspace, StartUpBuffersThenBuildsTheMeanAutocorrelation) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(7, 256), 1);
    PatternSource src(4);
    std::vector<std::vector<float>> xs;
    for (int f = 0; f < 7; ++f) {
        xs.push_back(src.Next());
        in.Update(xs.back().data());
        EXPECT_EQ(in.frameCount, f + 1);
        EXPECT_EQ(in.state, f == 0 ? 0 : 2) << "frame " << f;
        EXPECT_EQ(in.basis[6][255], InitialValue(6, 255));  // reads into the next row
    }
    for (auto [i, j] : {std::pair{0, 0}, {3, 200}, {255, 17}}) {
        float sum = 0.0f;
        for (int k = 0; k < 7; ++k) sum += xs[k][std::min(i, j)] * xs[k][std::max(i, j)];
        EXPECT_EQ(in.autocorrelation[i][j], static_cast<short>(16384.0 * sum / 7));
        EXPECT_EQ(in.autocorrelation[i][j], in.autocorrelation[j][i]);
    }
    auto x = src.Next();
    in.Update(x.data());
    EXPECT_EQ(in.state, 1);
}

TEST(InputSubspace, BufferSmallerThanTheBasisKeepsTheInitialBasis) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(7, 256), 1);
    ASSERT_EQ(in.ChangeMaxSegments(5), 1);
    PatternSource src(5);
    for (int f = 0; f < 40; ++f) {
        auto x = src.Next();
        in.Update(x.data());
    }
    EXPECT_EQ(in.frameCount, 5);
    EXPECT_EQ(in.state, 2);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(in.basis[i][100], InitialValue(i, 100));
}

TEST(InputSubspace, FullBufferOverwritesItsLastRow) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(7, 256), 1);
    PatternSource src(6);
    std::vector<float> first;
    for (int f = 0; f < 30; ++f) {
        auto x = src.Next();
        if (f == 0) first = x;
        in.Update(x.data());
        if (f == 29) {
            EXPECT_EQ(in.frames[24][9], x[9]);
        }
    }
    EXPECT_EQ(in.frameCount, 25);
    EXPECT_EQ(in.frames[0][9], first[9]);
    in.KeepFrames();
    EXPECT_EQ(in.keptCount, 25);
    EXPECT_EQ(in.keptFrames[24][9], in.frames[24][9]);
    in.Refresh();
    EXPECT_EQ(in.frameCount, 0);
    EXPECT_EQ(in.state, 0);
}

TEST(InputSubspace, ZeroPatternsAndAZeroMatrixStayFinite) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(7, 256), 1);
    std::vector<float> zero(256, 0.0f);
    for (int f = 0; f < 12; ++f) in.Update(zero.data());
    // C is zero: every iterated vector is zero, the orthonormalisation fails and the zero vectors
    // are kept instead of NaNs.
    EXPECT_EQ(in.state, 1);
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(in.inverseNorms[i], 0.0f);
        for (int k = 0; k < 256; ++k) ASSERT_EQ(in.basis[i][k], 0.0f);
    }
    // A zero pattern after real ones only decays the autocorrelation.
    InputSubspace live;
    ASSERT_EQ(live.Allocate(7, 256), 1);
    PatternSource src(8);
    for (int f = 0; f < 20; ++f) {
        auto x = src.Next();
        live.Update(x.data());
    }
    short before = live.autocorrelation[0][0];
    live.Update(zero.data());
    EXPECT_EQ(live.autocorrelation[0][0], static_cast<short>(before * 0.875f));
    EXPECT_GT(Captured(live, src.truth), 0.9);
}

TEST(InputSubspace, TwentyVectorsReadTheZeroTail) {
    InputSubspace in;
    ASSERT_EQ(in.Allocate(20, 256), 1);
    std::vector<float> x(256, 0.5f);
    in.Update(x.data());
    EXPECT_EQ(in.basis[19][0], InitialValue(19, 0));
    EXPECT_EQ(in.basis[19][255], 0.0f);  // past the table, in the tail
    EXPECT_EQ(in.basis[18][255], InitialValue(19, 30));
}

TEST(RecogniserSettings, BasisCountAndDistNumClamping) {
    MSMRecognition rec(256, 5);
    EXPECT_EQ(rec.Change_need_eigen_num(2), 0);
    EXPECT_EQ(rec.Change_need_eigen_num(21), 0);
    EXPECT_EQ(rec.Get_need_eigen_num(), 7);
    EXPECT_EQ(rec.Change_need_eigen_num(20), 1);
    EXPECT_EQ(rec.inputs[4].basisCount, 20);
    EXPECT_EQ(rec.inputBases.prims[4].count, 20);
    EXPECT_EQ(rec.Change_need_eigen_num(3), 1);
    EXPECT_EQ(rec.Get_need_eigen_num(), 3);
    rec.Change_SubspaceDistNum(0);
    EXPECT_EQ(rec.Get_SubspaceDistNum(), 0);
    rec.Change_SubspaceDistNum(-3);
    EXPECT_EQ(rec.Get_SubspaceDistNum(), 1);
    rec.Change_SubspaceDistNum(50);
    EXPECT_EQ(rec.Get_SubspaceDistNum(), 3);
}

TEST(RecogniserSettings, FrameBuffersWeightsAndKeptInput) {
    MSMRecognition rec(999, 5);
    EXPECT_EQ(rec.dimension, 256);
    rec.Change_InputSS_MAXSEGNUM(0);
    EXPECT_EQ(rec.inputs[0].maxSegments, 25);
    rec.Change_InputSS_MAXSEGNUM(40);
    EXPECT_EQ(rec.inputs[4].maxSegments, 40);
    rec.Set_EVPsi(0.25f);
    EXPECT_EQ(rec.inputs[3].updateWeight, 0.25f);
    EXPECT_EQ(rec.Get_EVPsi(), 0.25f);
    std::vector<std::vector<float>> pats(5, std::vector<float>(256, 0.1f));
    float* ptr[5];
    for (int c = 0; c < 5; ++c) ptr[c] = pats[c].data();
    for (int f = 0; f < 3; ++f) rec.UpdateInputSubspaces(ptr, false);
    EXPECT_EQ(rec.GetMulCount(), 3);
    EXPECT_EQ(rec.GetBufferCount(), 0);
    rec.NoticeCompleteRecognition();
    EXPECT_EQ(rec.GetBufferCount(), 3);
    EXPECT_EQ(rec.inputs[2].keptValid, 1);
    rec.Refresh_input();
    EXPECT_EQ(rec.GetMulCount(), 0);
    EXPECT_EQ(rec.GetBufferCount(), 3);
}

}  // namespace
