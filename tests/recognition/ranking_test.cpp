// The result modes' orderings, tie rules and start values, and method 1 end to end.
#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "recognition/MSMRecognition.h"
#include "subspaces.h"

namespace {

using msm::RankingPass;
using msm::RankingStyle;
using msm::ResultLists;

TEST(Ranking, RankedListKeepsEarlierOfEqualScoresAndStartValues) {
    ResultLists lists;
    ASSERT_EQ(lists.Reset(10), 1);
    RankingPass pass(lists, 1, 4, RankingStyle{});
    pass.Offer(0, 500, 0.5, 0.5);
    pass.Offer(1, 700, 0.7, 0.7);
    pass.Offer(2, 500, 0.5, 0.5);
    pass.Offer(3, 0, 0.0, 0.0);
    pass.Finish();
    std::vector<int> ids, scores;
    for (int i = 0; i < 6; ++i) {
        ids.push_back(lists.candidates[i].id);
        scores.push_back(lists.scores[i]);
        EXPECT_EQ(lists.indices[i], lists.candidates[i].id);
    }
    EXPECT_EQ(ids, (std::vector<int>{1, 0, 2, 3, -1, -1}));
    EXPECT_EQ(scores, (std::vector<int>{700, 500, 500, 0, -4, -5}));
}

TEST(Ranking, RankedListDropsTheLastWhenFull) {
    ResultLists lists;
    ASSERT_EQ(lists.Reset(10), 1);
    RankingPass pass(lists, 1, 12, RankingStyle{});
    for (int p = 0; p < 12; ++p) pass.Offer(p, 100 + p, 0, 0);
    pass.Finish();
    EXPECT_EQ(lists.candidates[0].id, 11);
    EXPECT_EQ(lists.candidates[9].id, 2);
}

TEST(Ranking, AllPersonsSortsAndPadsToTen) {
    ResultLists lists;
    ASSERT_EQ(lists.Reset(25), 1);
    RankingPass pass(lists, 2, 3, RankingStyle{});
    pass.Offer(0, 300, 0, 0);
    pass.Offer(1, 900, 0, 0);
    pass.Offer(2, 600, 0, 0);
    pass.Finish();
    ASSERT_EQ(lists.length, 10);
    EXPECT_EQ(lists.candidates[0].id, 1);
    EXPECT_EQ(lists.candidates[1].id, 2);
    EXPECT_EQ(lists.candidates[2].id, 0);
    for (int i = 3; i < 10; ++i) {
        EXPECT_EQ(lists.candidates[i].id, 0);
        EXPECT_EQ(lists.candidates[i].similarity, -999);
        EXPECT_EQ(lists.scores[i], -999);
    }
    EXPECT_EQ(lists.scores[0], 900);
    EXPECT_EQ(lists.indices[2], 0);
}

TEST(Ranking, TopThreeTestsTheLastChannelFirst) {
    ResultLists lists;
    ASSERT_EQ(lists.Reset(10), 1);
    lists.scores[5] = 1234;  // untouched by this mode
    {
        RankingPass pass(lists, 0, 2, RankingStyle{});
        pass.Offer(0, 900, 0.90, 0.90);
        // Weak on average, strong on the last channel: becomes best all the same.
        pass.Offer(1, 400, 0.40, 0.95);
        pass.Finish();
    }
    EXPECT_EQ(lists.indices[0], 1);
    EXPECT_EQ(lists.scores[0], 400);
    EXPECT_EQ(lists.indices[1], 0);
    EXPECT_EQ(lists.scores[1], 900);
    EXPECT_EQ(lists.indices[2], -1);
    EXPECT_EQ(lists.scores[2], 0);  // the start value 0 pushed down twice
    EXPECT_EQ(lists.scores[5], 1234);
    // The constraint-space path compares values only.
    RankingStyle byValue;
    byValue.topThreeTestsLastChannel = false;
    RankingPass pass(lists, 3, 2, byValue);
    pass.Offer(0, 900, 0.90, 0.90);
    pass.Offer(1, 400, 0.40, 0.40);
    pass.Finish();
    EXPECT_EQ(lists.indices[0], 0);
    EXPECT_EQ(lists.indices[1], 1);
}

TEST(Ranking, ResultModeSettings) {
    MSMRecognition rec(256, 5);
    rec.Set_RecognitionResultMode(1, 3);
    EXPECT_EQ(rec.results.length, 10);
    EXPECT_EQ(rec.Get_RecognitionResultMode(), 1);
    rec.Set_RecognitionResultMode(2, 40);
    EXPECT_EQ(rec.results.length, 40);
    EXPECT_EQ(rec.results.candidates[39].similarity, -999);
    rec.Set_RecognitionResultMode(7, 50);
    EXPECT_EQ(rec.results.length, 40);
    EXPECT_EQ(rec.Get_RecognitionResultMode(), 2);
    rec.Set_RecognitionResultMode(1, 1 << 30);
    EXPECT_EQ(rec.results.length, msm::kMaxRankingLength);
    rec.Set_RecognitionResultMode(0, 99);
    EXPECT_EQ(rec.results.length, 10);
}

// Persons whose dictionaries are subspaces near the stream the recogniser watches.
class MethodOne : public ::testing::Test {
  protected:
    void SetUp() override {
        truth = msmtest::RandomBasis(14, 256, 31);
        for (int p = 0; p < 3; ++p) {
            msmtest::Basis b(truth.begin() + p * 3, truth.begin() + p * 3 + 7);
            msmtest::FillDictionary(persons[p], std::vector<msmtest::Basis>(5, b));
        }
    }
    std::vector<float*> Frame(std::mt19937& gen) {
        std::normal_distribution<double> normal;
        for (auto& x : pats) {
            x.assign(256, 0.0f);
            for (int i = 0; i < 7; ++i) {
                double c = normal(gen) * (1.0 - 0.1 * i);
                for (int k = 0; k < 256; ++k) x[k] += static_cast<float>(c * truth[i][k]);
            }
        }
        std::vector<float*> ptr;
        for (auto& x : pats) ptr.push_back(x.data());
        return ptr;
    }
    msmtest::Basis truth;
    DictChunk persons[3];
    std::vector<std::vector<float>> pats{5};
};

TEST_F(MethodOne, IdentifiesThePersonWhoseSubspaceIsWatched) {
    MSMRecognition rec(256, 5);
    rec.Set_RecognitionResultMode(1, 10);
    std::mt19937 gen(2);
    int best = 0, id = -2;
    for (int f = 0; f < 200; ++f)
        id = rec.RecognizeByInputSubspaces(Frame(gen).data(), persons, 3, &best);
    EXPECT_EQ(id, 0);
    EXPECT_GT(best, 990);
    EXPECT_LE(best, 1000);
    EXPECT_EQ(rec.results.candidates[1].id, 1);  // shares four of seven directions
    EXPECT_LT(rec.results.scores[2], rec.results.scores[1]);
    // A best score equal to the threshold does not identify.
    rec.Set_Identify_thresvalue(best);
    std::mt19937 same(2);
    MSMRecognition again(256, 5);
    again.Set_RecognitionResultMode(1, 10);
    again.Set_Identify_thresvalue(best);
    for (int f = 0; f < 200; ++f)
        id = again.RecognizeByInputSubspaces(Frame(same).data(), persons, 3, &best);
    EXPECT_EQ(best, again.Get_Identify_thresvalue());
    EXPECT_EQ(id, -1);
    // A masked person takes no place.
    unsigned char mask[3] = {0, 1, 1};
    id = again.RecognizeByInputSubspaces(Frame(same).data(), persons, 3, &best, mask);
    EXPECT_EQ(again.results.candidates[0].id, 1);
    EXPECT_EQ(again.results.candidates[2].id, -1);
}

TEST_F(MethodOne, EveryPersonScoresItsOwnSimilarityWhateverTheBatchAndMask) {
    // More persons than one batch holds, some masked, each scored as the one-pair similarity
    // scores it.
    constexpr int count = 21;
    std::vector<DictChunk> many(count);
    for (int p = 0; p < count; ++p) {
        msmtest::Basis b(truth.begin() + p % 8, truth.begin() + p % 8 + 7);
        std::reverse(b.begin(), b.begin() + p % 5);
        msmtest::FillDictionary(many[p], std::vector<msmtest::Basis>(5, b));
    }
    unsigned char mask[count];
    for (int p = 0; p < count; ++p) mask[p] = p % 5 == 2 ? 0 : 1;
    MSMRecognition rec(256, 5);
    rec.Set_RecognitionResultMode(2, count);
    std::mt19937 gen(4);
    int best = 0;
    for (int f = 0; f < 30; ++f)
        rec.RecognizeByInputSubspaces(Frame(gen).data(), many.data(), count, &best, mask);
    std::vector<int> expected(count, -1);
    int unmasked = 0;
    for (int p = 0; p < count; ++p) {
        if (mask[p] == 0) continue;
        ++unmasked;
        double sum = 0.0;
        for (int c = 0; c < 5; ++c) {
            const DicPrim& prim = many[p].prims[c];
            sum +=
                rec.SubspaceSimilarity(prim.qrows, prim.count, rec.InputRows(c)) * (1.0 / 16384.0);
        }
        expected[p] = msm::truncScore(1000.0 * (sum / 5));
    }
    std::vector<bool> seen(count, false);
    for (int i = 0; i < unmasked; ++i) {
        const int id = rec.results.candidates[i].id;
        ASSERT_TRUE(id >= 0 && id < count && mask[id] != 0) << "rank " << i;
        EXPECT_FALSE(seen[id]);
        seen[id] = true;
        EXPECT_EQ(rec.results.candidates[i].similarity, expected[id]) << "person " << id;
        if (i > 0) {
            EXPECT_LE(rec.results.candidates[i].similarity,
                      rec.results.candidates[i - 1].similarity);
        }
    }
    EXPECT_EQ(best, rec.results.candidates[0].similarity);
}

TEST_F(MethodOne, NoPersonsAndRefusedSteps) {
    MSMRecognition rec(256, 5);
    rec.Set_RecognitionResultMode(1, 10);
    std::mt19937 gen(3);
    int best = 77;
    EXPECT_EQ(rec.RecognizeByInputSubspaces(Frame(gen).data(), persons, 0, &best), -1);
    EXPECT_EQ(best, 0);
    EXPECT_EQ(rec.results.candidates[3].similarity, -3);
    EXPECT_EQ(rec.RecognizeBySinglePattern(Frame(gen).data(), persons, 0, &best), -1);
    // Cleared ready flag: channel 0 alone is updated, nothing ranked.
    rec.Set_SimCalcControl(false);
    int before = rec.inputs[1].frameCount;
    EXPECT_EQ(rec.RecognizeByInputSubspaces(Frame(gen).data(), persons, 3, &best), -1);
    EXPECT_EQ(rec.inputs[0].frameCount, before + 1);
    EXPECT_EQ(rec.inputs[1].frameCount, before);
}

TEST_F(MethodOne, SinglePatternUsesSevenVectors) {
    // A pattern inside the first seven vectors scores 1000; inside vector 8 it scores 0.
    msmtest::Basis b = msmtest::RandomBasis(8, 256, 41);
    std::vector<float> in(256), out(256);
    for (int k = 0; k < 256; ++k) {
        in[k] = static_cast<float>(0.6 * b[2][k] + 0.8 * b[5][k]);
        out[k] = static_cast<float>(b[7][k]);
    }
    DictChunk d;
    msmtest::FillDictionary(d, {b});
    EXPECT_NEAR(MSMRecognition::SinglePatternScore(256, d.prims[0].frows, 8, in.data()), 1000, 1);
    EXPECT_LE(MSMRecognition::SinglePatternScore(256, d.prims[0].frows, 8, out.data()), 1);
}

}  // namespace
