// Constraint-subspace generation: the class data, its files, and the dictionary expansion that
// feeds it from autocorrelation records.
#include <cmath>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dictionary/MtrxChunk.h"
#include "dictionary/scratch.h"
#include "recognition/MWMSMRecognition.h"
#include "recognition/kl_expansion.h"
#include "subspaces.h"

namespace {

// A person's ".dck": five channels of `vectors` orthonormal vectors.
void WritePerson(const std::string& path, int vectors, unsigned seed) {
    DictChunk d;
    std::vector<msmtest::Basis> channels;
    for (int c = 0; c < 5; ++c) channels.push_back(msmtest::RandomBasis(vectors, 256, seed + c));
    msmtest::FillDictionary(d, channels);
    ASSERT_EQ(d.Write(path.c_str(), 0, kDicPrimFloat), 1);
}

double StoreDifference(const MWMSMRecognition& a, const std::vector<std::vector<float>>& b) {
    double worst = 0;
    for (int c = 0; c < 5; ++c)
        for (int i = 0; i < 256; ++i)
            for (int j = 0; j < 256; ++j)
                worst =
                    std::max(worst, std::fabs(double(a.classData[c][i][j]) - b[c][i * 256 + j]));
    return worst;
}

std::vector<std::vector<float>> Snapshot(const MWMSMRecognition& r) {
    std::vector<std::vector<float>> s(5, std::vector<float>(256 * 256));
    for (int c = 0; c < 5; ++c)
        for (int i = 0; i < 256; ++i)
            for (int j = 0; j < 256; ++j) s[c][i * 256 + j] = r.classData[c][i][j];
    return s;
}

class Generation : public ::testing::Test {
  protected:
    void SetUp() override {
        std::ofstream(dir.File("list.txt"))
            << "1 1 CMSML " << dir.File("space") << " 200 " << dir.File("default") << "\n";
        testing::internal::CaptureStderr();
        rec.InitConstraintMSM(dir.File("list.txt").c_str());  // no files yet: the list stays
        testing::internal::GetCapturedStderr();
        ASSERT_EQ(rec.learnedSpace, 0);
    }
    msmtest::ScratchDir dir;
    MWMSMRecognition rec{256, 5};
};

TEST_F(Generation, AddThenRemoveRestoresTheStore) {
    DictChunk base, person;
    std::vector<msmtest::Basis> b, p;
    for (int c = 0; c < 5; ++c) {
        b.push_back(msmtest::RandomBasis(30, 256, 10 + c));
        p.push_back(msmtest::RandomBasis(30, 256, 20 + c));
    }
    msmtest::FillDictionary(base, b);
    msmtest::FillDictionary(person, p);
    rec.AddClassData(base);
    auto before = Snapshot(rec);
    // The projector of 30 orthonormal vectors has trace 30.
    double trace = 0;
    for (int i = 0; i < 256; ++i) trace += before[2][i * 257];
    EXPECT_NEAR(trace, 30.0, 1e-3);
    rec.AddClassData(person);
    EXPECT_GT(StoreDifference(rec, before), 0.01);
    rec.RemoveClassData(person);
    EXPECT_LT(StoreDifference(rec, before), 1e-5);
}

TEST_F(Generation, RegenerateWithNoPersonsWritesZeroMatrices) {
    rec.classData[0][3][3] = 5.0f;
    ASSERT_EQ(rec.RegenerateFromScratch(0, nullptr, 0), 1);
    MtrxChunk m;
    ASSERT_EQ(m.ReadAll(dir.File("space.mck").c_str()), 1);
    ASSERT_EQ(m.count, 5);
    EXPECT_EQ(m.prims[0].number, 0);
    for (int k = 0; k < m.prims[0].elementCount; ++k) ASSERT_EQ(m.prims[0].elements[k], 0.0f);
    DictChunk v, e;
    ASSERT_EQ(v.ReadAll(dir.File("space.dck").c_str()), 1);
    ASSERT_EQ(e.ReadAll(dir.File("space.dckev").c_str()), 1);
    EXPECT_EQ(v.prims[4].count, 256);
    EXPECT_EQ(e.prims[4].dim, 1);
    // Without an eigenvalue stem a class count of 0 writes nothing.
    EXPECT_EQ(rec.RecomputeAndWrite(0, dir.File("other").c_str(), nullptr), 0);
    EXPECT_EQ(rec.RecomputeAndWrite(3, dir.File("other").c_str(), nullptr), 1);
    DictChunk other;
    EXPECT_EQ(other.ReadAll(dir.File("other.dckev").c_str()), 0);
    EXPECT_EQ(other.ReadAll(dir.File("other.dck").c_str()), 1);
}

TEST_F(Generation, RebuildCountsSmallDictionariesButAddsNothingForThem) {
    std::vector<std::string> paths = {dir.File("p0.dck"), dir.File("p1.dck"), dir.File("p2.dck"),
                                      dir.File("missing.dck")};
    WritePerson(paths[0], 30, 100);
    WritePerson(paths[1], 29, 200);  // one short of the generation basis count
    WritePerson(paths[2], 40, 300);
    std::vector<const char*> raw;
    for (auto& p : paths) raw.push_back(p.c_str());
    ASSERT_EQ(rec.RegenerateFromScratch(4, raw.data(), 0), 1);
    MtrxChunk m;
    ASSERT_EQ(m.ReadAll(dir.File("space.mck").c_str()), 1);
    EXPECT_EQ(m.prims[1].number, 4);
    // Two persons of 30 leading vectors each: trace 60.
    double trace = 0;
    const float* e = m.prims[1].elements;
    for (int i = 0; i < 256; ++i) {
        trace += *e;
        e += 256 - i;
    }
    EXPECT_NEAR(trace, 60.0, 1e-2);
    // The written eigenvalues sum to the trace and, for a sum of two projectors, lie in [0, 2].
    DictChunk ev;
    ev.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(ev.ReadAll(dir.File("space.dckev").c_str()), 1);
    double sum = 0;
    for (int r = 0; r < 256; ++r) sum += ev.prims[1].frows[r][0];
    EXPECT_NEAR(sum, 60.0, 1e-2);
    EXPECT_GT(ev.prims[1].frows[0][0], 1.0f);
    EXPECT_LT(ev.prims[1].frows[0][0], 2.0f);
    EXPECT_GT(ev.prims[1].frows[255][0], -1e-4f);
    // The written vectors are the eigenvectors of that sum, orthonormal, each with the
    // eigenvalue written beside it.
    std::vector<double> sum2(256 * 256);
    e = m.prims[1].elements;
    for (int i = 0; i < 256; ++i)
        for (int j = i; j < 256; ++j) sum2[i * 256 + j] = sum2[j * 256 + i] = *e++;
    DictChunk space;
    space.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(space.ReadAll(dir.File("space.dck").c_str()), 1);
    const DicPrim& vectors = space.prims[1];
    ASSERT_EQ(vectors.count, 256);
    ASSERT_EQ(vectors.dim, 256);
    for (int r = 0; r < 256; ++r) {
        const float* v = vectors.frows[r];
        const double lambda = ev.prims[1].frows[r][0];
        double residual = 0;
        for (int i = 0; i < 256; ++i) {
            double gv = 0;
            for (int j = 0; j < 256; ++j) gv += sum2[i * 256 + j] * v[j];
            residual += (gv - lambda * v[i]) * (gv - lambda * v[i]);
        }
        EXPECT_LT(std::sqrt(residual), 1e-3) << "vector " << r;
        for (int q = 0; q <= r; ++q) {
            double dot = 0;
            for (int k = 0; k < 256; ++k) dot += double(v[k]) * vectors.frows[q][k];
            EXPECT_NEAR(dot, r == q ? 1.0 : 0.0, 1e-4) << r << "," << q;
        }
    }
    // The space loads back from what was written.
    EXPECT_EQ(rec.ReloadConstraintMSM(), 1);
    // On stored data: the file's sums plus the persons again.
    ASSERT_EQ(rec.RegenerateOnStoredData(1, raw.data(), 0), 1);
    ASSERT_EQ(m.ReadAll(dir.File("space.mck").c_str()), 1);
    EXPECT_EQ(m.prims[1].elements[0], rec.classData[1][0][0]);
    double trace2 = 0;
    for (int i = 0; i < 256; ++i) trace2 += rec.classData[1][i][i];
    EXPECT_NEAR(trace2, 90.0, 2e-2);
}

TEST(KLExpansion, DictionaryOfFiftyPatterns) {
    std::mt19937 gen(4);
    std::normal_distribution<float> normal;
    std::vector<std::vector<float>> xs(50, std::vector<float>(256));
    std::vector<float*> ptr;
    for (auto& x : xs) {
        for (float& v : x) v = normal(gen);
        ptr.push_back(x.data());
    }
    MrxPrim record;
    ASSERT_EQ(msm::buildAutocorrelationRecord(ptr.data(), 50, 256, record), 0);
    EXPECT_EQ(record.number, 50);
    EXPECT_EQ(record.elementCount, 32896);
    float s01 = 0;
    for (auto& x : xs) s01 += x[0] * x[1];
    EXPECT_EQ(record.elements[1], s01);
    DicPrim dict;
    std::vector<float> spectrum(256);
    ASSERT_EQ(msm::expandAutocorrelation(record, dict, spectrum.data()), 0);
    EXPECT_EQ(dict.count, 50);
    EXPECT_EQ(dict.dim, 256);
    double total = 0;
    for (float v : spectrum) total += v;
    EXPECT_NEAR(total, 1.0, 1e-5);
    for (int i = 1; i < 256; ++i) EXPECT_LE(spectrum[i], spectrum[i - 1]) << i;

    // Every vector is the eigenvector of R = S / 50 whose eigenvalue is its share of the spectrum
    // times the trace of R, every pair is orthogonal and every norm is 1.
    const auto dot = [](const float* a, const float* b) {
        double s = 0;
        for (int k = 0; k < 256; ++k) s += double(a[k]) * b[k];
        return s;
    };
    double traceR = 0;
    for (auto& x : xs) traceR += dot(x.data(), x.data()) / 50;
    const double largest = spectrum[0] * traceR;
    for (int i = 0; i < dict.count; ++i) {
        const float* v = dict.frows[i];
        std::vector<double> rv(256, 0.0);
        for (auto& x : xs) {
            const double proj = dot(x.data(), v);
            for (int k = 0; k < 256; ++k) rv[k] += proj * x[k] / 50;
        }
        const double lambda = spectrum[i] * traceR;
        double residual = 0;
        for (int k = 0; k < 256; ++k) residual += (rv[k] - lambda * v[k]) * (rv[k] - lambda * v[k]);
        EXPECT_LT(std::sqrt(residual), 1e-4 * largest) << "vector " << i;
        for (int j = 0; j <= i; ++j)
            EXPECT_NEAR(dot(v, dict.frows[j]), i == j ? 1.0 : 0.0, 1e-5) << i << "," << j;
    }
    // Fifty vectors of fifty independent patterns span them: each pattern is its own expansion.
    for (std::size_t p = 0; p < xs.size(); ++p) {
        std::vector<double> back(256, 0.0);
        for (int i = 0; i < dict.count; ++i) {
            const double c = dot(xs[p].data(), dict.frows[i]);
            for (int k = 0; k < 256; ++k) back[k] += c * dict.frows[i][k];
        }
        double miss = 0, size = 0;
        for (int k = 0; k < 256; ++k) {
            miss += (back[k] - xs[p][k]) * (back[k] - xs[p][k]);
            size += double(xs[p][k]) * xs[p][k];
        }
        EXPECT_LT(std::sqrt(miss / size), 1e-4) << "pattern " << p;
    }
}

TEST(KLExpansion, ZeroPatternsAndBadRecords) {
    std::vector<float> zero(256, 0.0f);
    std::vector<float*> ptr(10, zero.data());
    MrxPrim record;
    ASSERT_EQ(msm::buildAutocorrelationRecord(ptr.data(), 10, 256, record), 0);
    DicPrim dict;
    EXPECT_EQ(msm::expandAutocorrelation(record, dict, nullptr), 0);
    EXPECT_EQ(dict.count, 0);
    record.number = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(msm::expandAutocorrelation(record, dict, nullptr), 1);
    float spectrum[256];
    EXPECT_EQ(msm::expandAutocorrelation(record, dict, spectrum), 1);
    MrxPrim big;
    big.Allocate(300);
    big.number = 5;
    EXPECT_EQ(msm::expandAutocorrelation(big, dict, nullptr), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KL expansion error(2).KL Expansion error(3).KL expansion error(2).");
}

TEST_F(Generation, SourceKindOneExpandsTheRecords) {
    std::mt19937 gen(6);
    std::normal_distribution<float> normal;
    std::vector<std::vector<float>> xs(40, std::vector<float>(256));
    std::vector<float*> ptr;
    for (auto& x : xs) {
        for (float& v : x) v = normal(gen);
        ptr.push_back(x.data());
    }
    MtrxChunk records;
    records.Allocate(5);
    for (int c = 0; c < 5; ++c)
        msm::buildAutocorrelationRecord(ptr.data(), 40, 256, records.prims[c]);
    ASSERT_EQ(records.Write(dir.File("p.mck").c_str()), 1);
    ASSERT_EQ(rec.ReadRemovedSet(dir.File("p.mck").c_str(), 1), 1);
    ASSERT_EQ(rec.removedSet.count, 5);
    EXPECT_EQ(rec.removedSet.prims[3].count, 40);
    std::string keep = dir.File("p.mck");
    const char* path = keep.c_str();
    ASSERT_EQ(rec.RegenerateFromScratch(1, &path, 1), 1);
    double trace = 0;
    for (int i = 0; i < 256; ++i) trace += rec.classData[4][i][i];
    EXPECT_NEAR(trace, 30.0, 1e-2);
    EXPECT_EQ(rec.ReadPendingSet(dir.File("absent.mck").c_str(), 1), 0);
}

}  // namespace
