// A person's dictionary from gathered patterns, and a constraint space generated from persons'
// files: what the legacy registration and the gallery's enrolment both make.
#include "recognition/person_dictionary.h"

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/scratch_dir.h"
#include "dictionary/person_files.h"
#include "io/atomic_file.h"
#include "recognition/class_data.h"
#include "subspaces.h"

namespace {

using ::testing::HasSubstr;

constexpr int kDim = 256;
constexpr int kChannels = 5;

// n faces whose every channel is a random combination of that channel's basis rows.
msm::GatheredPatterns PatternsIn(const std::vector<msmtest::Basis>& bases, int n, unsigned seed) {
    msm::GatheredPatterns gathered(kChannels, kDim, n);
    std::mt19937 rng(seed);
    std::normal_distribution<double> weight(0.0, 1.0);
    for (int k = 0; k < n; ++k) {
        float* const* out = gathered.next();
        for (int c = 0; c < kChannels; ++c) {
            const msmtest::Basis& basis = bases[static_cast<std::size_t>(c)];
            for (int i = 0; i < kDim; ++i) out[c][i] = 0.0f;
            for (const auto& row : basis) {
                const double w = weight(rng);
                for (int i = 0; i < kDim; ++i)
                    out[c][i] += static_cast<float>(w * row[static_cast<std::size_t>(i)]);
            }
        }
        gathered.add();
    }
    return gathered;
}

std::vector<msmtest::Basis> Bases(int k, unsigned seed) {
    std::vector<msmtest::Basis> bases;
    for (int c = 0; c < kChannels; ++c)
        bases.push_back(msmtest::RandomBasis(k, kDim, seed + static_cast<unsigned>(c)));
    return bases;
}

TEST(PersonDictionary, GatheredPatternsKeepEachFacesChannelsInOrder) {
    msm::GatheredPatterns gathered(kChannels, kDim, 3);
    for (int k = 0; k < 3; ++k) {
        EXPECT_FALSE(gathered.full());
        float* const* out = gathered.next();
        for (int c = 0; c < kChannels; ++c)
            for (int i = 0; i < kDim; ++i) out[c][i] = static_cast<float>(1000 * k + 10 * c + i);
        gathered.add();
    }
    EXPECT_TRUE(gathered.full());
    const auto rows = gathered.rows();
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(kChannels));
    for (int c = 0; c < kChannels; ++c) {
        ASSERT_EQ(rows[static_cast<std::size_t>(c)].size(), 3u);
        for (int k = 0; k < 3; ++k)
            for (int i : {0, 255})
                EXPECT_EQ(rows[static_cast<std::size_t>(c)][static_cast<std::size_t>(k)][i],
                          static_cast<float>(1000 * k + 10 * c + i));
    }
}

TEST(PersonDictionary, TheDictionaryIsAnOrthonormalBasisOfTheFacesSubspace) {
    const int k = 10;
    const std::vector<msmtest::Basis> bases = Bases(k, 7);
    const msm::GatheredPatterns gathered = PatternsIn(bases, 50, 11);
    MtrxChunk records;
    ASSERT_TRUE(msm::buildPersonRecords(gathered.rows(), kDim, records).ok());
    ASSERT_EQ(records.count, kChannels);
    EXPECT_EQ(records.prims[0].number, 50);
    DictChunk dictionaries;
    int spectra = 0;
    const msmface::Status expanded = msm::expandPersonRecords(
        records, kChannels, 7, [&spectra](const float*) { ++spectra; }, dictionaries);
    ASSERT_TRUE(expanded.ok()) << expanded.message();
    EXPECT_EQ(spectra, kChannels);
    for (int c = 0; c < kChannels; ++c) {
        const DicPrim& d = dictionaries.prims[c];
        ASSERT_GE(d.count, k) << "channel " << c;
        msmtest::Basis u;
        for (int r = 0; r < k; ++r) u.emplace_back(d.frows[r], d.frows[r] + kDim);
        for (int a = 0; a < k; ++a)
            for (int b = 0; b < k; ++b)
                EXPECT_NEAR(
                    msmtest::Dot(u[static_cast<std::size_t>(a)], u[static_cast<std::size_t>(b)]),
                    a == b ? 1.0 : 0.0, 1e-4);
        // Every direction the faces span lies in the leading k vectors.
        for (const auto& row : bases[static_cast<std::size_t>(c)]) {
            double inside = 0;
            for (const auto& v : u) inside += msmtest::Dot(row, v) * msmtest::Dot(row, v);
            EXPECT_NEAR(inside, 1.0, 1e-3);
        }
    }
}

TEST(PersonDictionary, FacesThatSpanTooFewDirectionsMakeNoDictionary) {
    const msm::GatheredPatterns gathered = PatternsIn(Bases(2, 3), 50, 5);
    MtrxChunk records;
    ASSERT_TRUE(msm::buildPersonRecords(gathered.rows(), kDim, records).ok());
    DictChunk dictionaries;
    const msmface::Status refused =
        msm::expandPersonRecords(records, kChannels, 7, nullptr, dictionaries);
    EXPECT_EQ(refused.kind(), msmface::ErrorKind::Argument);
    EXPECT_THAT(refused.message(), HasSubstr("channel 0: the faces span 2 directions; 7 needed"));
    // Records of another channel count are refused before any expansion.
    EXPECT_FALSE(msm::expandPersonRecords(records, 4, 7, nullptr, dictionaries).ok());
}

TEST(PersonDictionary, ThePersonsFilesReadBackAndAMissingFolderIsNamed) {
    msmtest::ScratchDir dir;
    const msm::GatheredPatterns gathered = PatternsIn(Bases(12, 21), 50, 23);
    MtrxChunk records;
    DictChunk dictionaries;
    ASSERT_TRUE(msm::buildPersonRecords(gathered.rows(), kDim, records).ok());
    ASSERT_TRUE(msm::expandPersonRecords(records, kChannels, 7, nullptr, dictionaries).ok());
    ASSERT_TRUE(msm::writePersonFiles(dir / "p", records, dictionaries, 256).ok());
    DictChunk read;
    read.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(read.ReadAll((dir / "p.dck").c_str()), 1);
    ASSERT_EQ(read.count, kChannels);
    EXPECT_EQ(read.prims[2].count, dictionaries.prims[2].count);
    EXPECT_EQ(read.prims[2].frows[0][17], dictionaries.prims[2].frows[0][17]);
    MtrxChunk stored;
    ASSERT_EQ(stored.ReadAll((dir / "p.mck").c_str()), 1);
    EXPECT_EQ(stored.prims[4].number, 50);

    msm::clearWriteFailure();
    const msmface::Status refused =
        msm::writePersonFiles(dir / "gone/p", records, dictionaries, 256);
    EXPECT_EQ(refused.kind(), msmface::ErrorKind::File);
    EXPECT_THAT(refused.message(), HasSubstr(dir / "gone/p.mck"));
}

// Element (i, j), i <= j, of a packed upper triangle of order n.
float Packed(const MrxPrim& m, int i, int j) {
    return m.elements[static_cast<std::size_t>(i) * m.order -
                      static_cast<std::size_t>(i) * (i - 1) / 2 + static_cast<std::size_t>(j - i)];
}

TEST(ConstraintGeneration, TheSpaceSumsThePersonsProjectionsAndAnUnwritableOneIsNamed) {
    msmtest::ScratchDir dir;
    std::vector<std::string> persons;
    std::vector<std::vector<msmtest::Basis>> bases;
    for (unsigned p = 0; p < 3; ++p) {
        // More vectors than enter the sums: only the leading ones count.
        bases.push_back(Bases(msm::kGenerationBasisCount + 4, 100 + 10 * p));
        DictChunk d;
        msmtest::FillDictionary(d, bases.back());
        persons.push_back(dir / ("p" + std::to_string(p) + ".dck"));
        ASSERT_EQ(d.Write(persons.back().c_str(), 0, kDicPrimFloat), 1);
    }
    ASSERT_TRUE(msm::generateConstraintSpace(persons, 0, kChannels, dir / "space").ok());
    MtrxChunk sums;
    ASSERT_EQ(sums.ReadAll((dir / "space.mck").c_str()), 1);
    ASSERT_EQ(sums.count, kChannels);
    for (int c : {0, 4}) {
        EXPECT_EQ(sums.prims[c].number, 3);
        for (const auto& [i, j] : {std::pair{0, 0}, std::pair{3, 7}, std::pair{100, 255}}) {
            double expected = 0;
            for (const auto& person : bases)
                for (int k = 0; k < msm::kGenerationBasisCount; ++k) {
                    const auto& row =
                        person[static_cast<std::size_t>(c)][static_cast<std::size_t>(k)];
                    expected += row[static_cast<std::size_t>(i)] * row[static_cast<std::size_t>(j)];
                }
            EXPECT_NEAR(Packed(sums.prims[c], i, j), expected, 1e-4) << c << " " << i << " " << j;
        }
    }
    // The basis: every channel's 256 eigenvectors, orthonormal.
    DictChunk basis;
    basis.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(basis.ReadAll((dir / "space.dck").c_str()), 1);
    ASSERT_EQ(basis.prims[2].count, kDim);
    const msmtest::Basis u = {{basis.prims[2].frows[0], basis.prims[2].frows[0] + kDim},
                              {basis.prims[2].frows[200], basis.prims[2].frows[200] + kDim}};
    EXPECT_NEAR(msmtest::Dot(u[0], u[0]), 1.0, 1e-4);
    EXPECT_NEAR(msmtest::Dot(u[0], u[1]), 0.0, 1e-4);

    const msmface::Status refused =
        msm::generateConstraintSpace(persons, 0, kChannels, dir / "gone/space");
    EXPECT_EQ(refused.kind(), msmface::ErrorKind::File);
    EXPECT_THAT(refused.message(), HasSubstr(dir / "gone/space"));
}

}  // namespace
