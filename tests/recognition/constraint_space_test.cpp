// The list file, the load statuses, the whitened projection and the constraint-space path.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/IDDatabase.h>

#include "dictionary/MtrxChunk.h"
#include "dictionary/scratch.h"
#include "recognition/MWMSMRecognition.h"
#include "subspaces.h"

namespace {

// Five channels of n unit vectors e_0 .. e_{n-1} of dimension d (the coordinate basis), and the
// eigenvalues 1/(j+1) beside them.
void WriteSpace(const std::string& stem, int n, int d, bool withValues = true,
                float firstValue = 1.0f) {
    DictChunk v, e;
    v.Allocate(5);
    e.Allocate(5);
    for (int c = 0; c < 5; ++c) {
        v.prims[c].Allocate(d, n, kDicPrimFloat);
        e.prims[c].Allocate(1, n, kDicPrimFloat);
        for (int j = 0; j < n; ++j) {
            if (j < d) v.prims[c].frows[j][j] = 1.0f;
            e.prims[c].frows[j][0] = j == 0 ? firstValue : 1.0f / (j + 1);
        }
    }
    ASSERT_EQ(v.Write((stem + ".dck").c_str(), 0, kDicPrimFloat), 1);
    if (withValues) {
        ASSERT_EQ(e.Write((stem + ".dckev").c_str(), 0, kDicPrimFloat), 1);
    }
}

void WriteMatrices(const std::string& stem, float diagonal) {
    MtrxChunk m;
    m.Allocate(5);
    for (int c = 0; c < 5; ++c) {
        m.prims[c].Allocate(256);
        m.prims[c].number = 12;
        float* e = m.prims[c].elements;
        for (int i = 0; i < 256; ++i)
            for (int j = i; j < 256; ++j) *e++ = i == j ? diagonal : 0.0f;
    }
    ASSERT_EQ(m.Write((stem + ".mck").c_str()), 1);
}

class ConstraintSpaces : public ::testing::Test {
  protected:
    std::string List(const std::string& text) {
        std::string path = dir.File("list" + std::to_string(lists++) + ".txt");
        std::ofstream(path) << text;
        return path;
    }
    std::string Stem(const std::string& name) { return dir.File(name); }
    int Init(const std::string& text) { return rec.InitConstraintMSM(List(text).c_str()); }

    msmtest::ScratchDir dir;
    MWMSMRecognition rec{256, 5};
    int lists = 0;
};

TEST_F(ConstraintSpaces, ListFileCases) {
    WriteSpace(Stem("a"), 256, 256);
    EXPECT_EQ(Init("3 9 MSM CMSMF " + Stem("a") + " 200 MSM"), 1);
    EXPECT_EQ(rec.spaceCount, 3);
    EXPECT_EQ(rec.selectedSpace, 0);  // 9 is beyond the count
    EXPECT_EQ(rec.spaces[1].loadStatus, 1);
    // 101 spaces: refused before anything changes.
    EXPECT_EQ(Init("101 1 MSM"), 0);
    EXPECT_EQ(rec.spaceCount, 3);
    EXPECT_EQ(rec.spaces[1].kind, msm::kKindFile);
    // Two learned spaces, an unknown keyword, a missing file: refused.
    EXPECT_EQ(Init("2 1 CMSML x 10 y CMSML z 10 w"), 0);
    EXPECT_EQ(rec.spaceCount, 0);
    EXPECT_EQ(Init("2 0 MSM msm"), 0);
    EXPECT_EQ(Init("2 0 MSM"), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(rec.InitConstraintMSM(dir.File("absent.txt").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Can't file open " + dir.File("absent.txt") + "\nInitialize C failed");
    EXPECT_EQ(Init("2 2 MSM MSM"), 1);
    EXPECT_EQ(rec.selectedSpace, 1);
    EXPECT_EQ(Init("2 0 MSM MSM"), 1);
    EXPECT_EQ(rec.selectedSpace, 0);
    EXPECT_EQ(Init("0"), 1);
    EXPECT_EQ(rec.spaceCount, 0);
}

TEST_F(ConstraintSpaces, LoadStatuses) {
    WriteSpace(Stem("small"), 229, 256);
    WriteSpace(Stem("mid"), 240, 256);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Init("1 1 CMSMF " + Stem("small") + " 200"), -11);
    EXPECT_EQ(Init("1 1 CMSMF " + Stem("mid") + " 250"), -10);
    EXPECT_EQ(Init("1 1 CMSMF " + Stem("absent") + " 200"), -10);
    EXPECT_EQ(Init("1 1 CMSMF " + Stem("mid") + " -1"), -10);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("Initialize C failed"), 0u);
    // A learned space: its own files (status of the matrix load), then the second set.
    WriteSpace(Stem("learned"), 256, 256);
    WriteMatrices(Stem("learned"), 2.0f);
    EXPECT_EQ(Init("2 1 MSM CMSML " + Stem("learned") + " 200 " + Stem("mid")), 1);
    EXPECT_EQ(rec.learnedSpace, 1);
    EXPECT_EQ(rec.classData[3][7][7], 2.0f);
    EXPECT_EQ(rec.loadedClassCount, 12);
    WriteMatrices(Stem("mid"), 3.0f);
    EXPECT_EQ(Init("1 1 CMSML " + Stem("mid") + " 250 " + Stem("learned")), 2);
    EXPECT_EQ(rec.classData[0][0][0], 2.0f);
    EXPECT_EQ(Init("1 1 CMSML " + Stem("small") + " 200 " + Stem("learned")), 3);
    EXPECT_EQ(Init("1 1 CMSML " + Stem("small") + " 200 " + Stem("mid")), 3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Init("1 1 CMSML " + Stem("small") + " 245 " + Stem("mid")), -1);
    WriteSpace(Stem("nomatrix"), 256, 256);
    EXPECT_EQ(Init("1 1 CMSML " + Stem("a") + " 245 " + Stem("nomatrix")), -2);  // no "a" files
    EXPECT_EQ(Init("1 1 CMSML " + Stem("nomatrix") + " 245 " + Stem("absent")), -5);
    testing::internal::GetCapturedStderr();
    char header[64] = "junk";
    EXPECT_EQ(rec.Get_CMSML_FileHeader(header), 1);
    EXPECT_EQ(std::string(header), Stem("nomatrix"));
    EXPECT_EQ(rec.Get_CMSML_defaultFileHeader(header), 1);
    EXPECT_EQ(std::string(header), Stem("absent"));
    EXPECT_EQ(Init("1 1 MSM"), 1);
    EXPECT_EQ(rec.Get_CMSML_FileHeader(header), 0);
    EXPECT_EQ(header[0], '\0');
}

TEST(Projection, SmallEigenvalueRemovesItsDirection) {
    // Constraint directions e0 (eigenvalue below 1e-7), e1 and e2 (eigenvalues 1 and 4).
    std::vector<std::vector<float>> psi(3, std::vector<float>(256, 0.0f));
    for (int j = 0; j < 3; ++j) psi[j][j] = 1.0f;
    float* rows[3] = {psi[0].data(), psi[1].data(), psi[2].data()};
    float lambda[3] = {0.9e-7f, 1.0f, 4.0f};
    std::vector<float> u0(256, 0.0f), u1(256, 0.0f);
    u0[0] = u0[1] = u0[2] = 1.0f / std::sqrt(3.0f);
    u1[5] = 1.0f;  // outside the space: projects to zero and stays so
    float* u[2] = {u0.data(), u1.data()};
    short** out = msm::allocateRows<short>(2, 256, 32);
    msm::ProjectionWork work;
    msm::projectWhitened(u, 2, 256, rows, lambda, 3, out, 256, work);
    // c = (0, 1, 1/2) / sqrt(3), normalised: (0, 2, 1) / sqrt(5).
    EXPECT_EQ(out[0][0], 0);
    EXPECT_NEAR(out[0][1], 16384 * 2 / std::sqrt(5.0), 2);
    EXPECT_NEAR(out[0][2], 16384 / std::sqrt(5.0), 2);
    for (int k = 3; k < 256; ++k) ASSERT_EQ(out[0][k], 0);
    for (int k = 0; k < 256; ++k) ASSERT_EQ(out[1][k], 0);
    msm::freeRows(out);
}

TEST_F(ConstraintSpaces, RecognitionInOneAndInAllSpaces) {
    // Space 0 keeps the first 200 coordinates, space 1 is plain.
    WriteSpace(Stem("s"), 256, 256);
    ASSERT_EQ(Init("2 1 CMSMF " + Stem("s") + " 200 MSM"), 1);
    IDDatabase db;
    msmtest::Basis truth = msmtest::RandomBasis(14, 256, 51);
    ASSERT_EQ(db.InitIdDictionary(2), 1);
    for (int p = 0; p < 2; ++p) {
        msmtest::Basis b(truth.begin() + 7 * p, truth.begin() + 7 * p + 7);
        msmtest::FillDictionary(db.dictionaries[p], std::vector<msmtest::Basis>(5, b));
    }
    EXPECT_EQ(rec.DicConvertID(db, 2), 0);
    EXPECT_EQ(rec.DicConvertID(db, -1), 0);
    ASSERT_EQ(rec.DicConvert(db), 1);
    ASSERT_EQ(db.numCS, 2);
    ASSERT_NE(db.projected[1], nullptr);
    EXPECT_EQ(db.projected[1][0].prims[4].mode, kDicPrimShort);
    std::mt19937 gen(9);
    std::normal_distribution<double> normal;
    std::vector<std::vector<float>> pats(5, std::vector<float>(256));
    float* ptr[5];
    int best = 0, one = -2, all = -2;
    MWMSMRecognition plain(256, 5);
    for (int f = 0; f < 150; ++f) {
        for (auto& x : pats) {
            std::fill(x.begin(), x.end(), 0.0f);
            for (int i = 0; i < 7; ++i) {
                double c = normal(gen) * (1.0 - 0.1 * i);
                for (int k = 0; k < 256; ++k) x[k] += static_cast<float>(c * truth[7 + i][k]);
            }
        }
        for (int c = 0; c < 5; ++c) ptr[c] = pats[c].data();
        one = rec.RecognizeInConstraintSpaces(ptr, db.projected, 2, db.numCS, 1, &best);
    }
    EXPECT_EQ(one, 1);
    int oneBest = best;
    EXPECT_GT(oneBest, 850);
    // The second space has no constraint: its score is the subspace method's; the mean of both
    // lies between.
    all = rec.RecognizeInConstraintSpaces(ptr, db.projected, 2, db.numCS, 2, &best);
    EXPECT_EQ(all, 1);
    EXPECT_GT(best, 900);
    // Masked out, the person is not ranked; a cleared ready flag refuses before any update.
    unsigned char mask[2] = {1, 0};
    rec.RecognizeInConstraintSpaces(ptr, db.projected, 2, db.numCS, 2, &best, mask);
    EXPECT_EQ(rec.results.candidates[0].id, 0);
    rec.Set_SimCalcControl(false);
    int frames = rec.inputs[0].frameCount;
    EXPECT_EQ(rec.RecognizeInConstraintSpaces(ptr, db.projected, 2, db.numCS, 2, &best), -1);
    EXPECT_EQ(rec.inputs[0].frameCount, frames);
}

}  // namespace
