// The evaluation's figures on small score sets worked out by hand: ties, a perfect separation,
// impostors all above the genuine scores, the CMC and the ROC / DET points.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/msmface/evaluation/eval_metrics.h"
#include "tools/msmface/evaluation/eval_summary.h"
#include "tools/msmface/evaluation/key_name.h"
#include "tools/msmface/evaluation/svg_plot.h"

namespace {

using msmcli::computeFigures;
using msmcli::Figures;
using msmcli::ProbeScores;

// The ROC point of threshold t (the curve starts at -1).
const msmcli::RocPoint& At(const Figures& f, int t) {
    return f.roc.at(static_cast<std::size_t>(t + 1));
}

TEST(EvalMetrics, TiesCountAgainstTheTruePersonInRanksAndCmc) {
    // Probe 0 ties its own 500 with person 1: rank 2. Probe 1 is first; probe 2 ranks third.
    const auto f =
        computeFigures({{0, {500, 500, 400}}, {1, {100, 600, 200}}, {2, {300, 300, 300}}}, 850);
    ASSERT_EQ(f.cmc.size(), 20u);
    EXPECT_DOUBLE_EQ(f.cmc[0], 1.0 / 3);
    EXPECT_DOUBLE_EQ(f.cmc[1], 2.0 / 3);
    EXPECT_DOUBLE_EQ(f.cmc[2], 1.0);
    EXPECT_DOUBLE_EQ(f.cmc[19], 1.0);
    EXPECT_DOUBLE_EQ(f.rank1, f.cmc[0]);
    EXPECT_DOUBLE_EQ(f.rank5, f.cmc[4]);
    // A score equal to the threshold is rejected: at 300, neither genuine 300 nor impostor 300.
    EXPECT_DOUBLE_EQ(At(f, 299).trueAccept, 1.0);
    EXPECT_DOUBLE_EQ(At(f, 300).trueAccept, 2.0 / 3);
    EXPECT_DOUBLE_EQ(At(f, 299).falseAccept, 4.0 / 6);  // 500, 400, 300, 300
    EXPECT_DOUBLE_EQ(At(f, 300).falseAccept, 2.0 / 6);
}

TEST(EvalMetrics, TheBestCandidateOfATieIsNotTheTruePerson) {
    EXPECT_EQ(msmcli::bestCandidate({0, {500, 500, 400}}), 1);  // ranked second: taken for 1
    EXPECT_EQ(msmcli::bestCandidate({2, {500, 500, 400}}), 0);
    EXPECT_EQ(msmcli::bestCandidate({1, {300, 700, 700}}), 2);
    EXPECT_EQ(msmcli::bestCandidate({0, {-1, 200}}), 1);
    EXPECT_EQ(msmcli::bestCandidate({0, {-1, -1}}), -1);
}

TEST(EvalMetrics, PerfectSeparationHasNoErrorAndEveryRateAtTheFirstClearThreshold) {
    // Genuine 800, 900; impostors 100, 200.
    const auto f = computeFigures({{0, {900, 100}}, {1, {200, 800}}}, 850);
    EXPECT_DOUBLE_EQ(f.rank1, 1.0);
    EXPECT_DOUBLE_EQ(f.eer, 0.0);
    EXPECT_EQ(f.eerThreshold, 200);  // the first threshold with no impostor above it
    EXPECT_EQ(f.atFar1.threshold, 200);
    EXPECT_DOUBLE_EQ(f.atFar1.trueAccept, 1.0);
    EXPECT_DOUBLE_EQ(f.atFar1.falseAccept, 0.0);
    EXPECT_EQ(f.atFar01.threshold, 200);
    EXPECT_DOUBLE_EQ(f.trueAcceptAt, 0.5);  // only 900 is above 850
    // ROC (false accepts, true accepts) and DET (false accepts, false rejects) points.
    EXPECT_DOUBLE_EQ(At(f, -1).falseAccept, 1.0);
    EXPECT_DOUBLE_EQ(At(f, 150).falseAccept, 0.5);
    EXPECT_DOUBLE_EQ(At(f, 150).trueAccept, 1.0);
    EXPECT_DOUBLE_EQ(At(f, 850).trueAccept, 0.5);
    EXPECT_DOUBLE_EQ(1.0 - At(f, 850).trueAccept, 0.5);
    EXPECT_DOUBLE_EQ(At(f, 1000).trueAccept, 0.0);
    EXPECT_EQ(At(f, 1000).threshold, 1000);
}

TEST(EvalMetrics, ImpostorsAllAboveTheGenuineScoresGiveTheWorstFigures) {
    // Genuine 100, 200; impostors 800, 900.
    const auto f = computeFigures({{0, {100, 900}}, {1, {800, 200}}}, 850);
    EXPECT_DOUBLE_EQ(f.rank1, 0.0);
    EXPECT_DOUBLE_EQ(f.cmc[1], 1.0);
    // From 200 to 799 every genuine score is rejected and every impostor accepted.
    EXPECT_DOUBLE_EQ(f.eer, 1.0);
    EXPECT_EQ(f.eerThreshold, 200);
    EXPECT_EQ(f.atFar1.threshold, 900);
    EXPECT_DOUBLE_EQ(f.atFar1.trueAccept, 0.0);
    EXPECT_DOUBLE_EQ(f.falseAcceptAt, 0.5);  // 900 is above 850
}

TEST(EvalFigures, TiesRankAgainstTheTruePerson) {
    EXPECT_EQ(msmcli::rankOfTruth({1, {500, 700, 600}}), 1);
    EXPECT_EQ(msmcli::rankOfTruth({0, {500, 700, 600}}), 3);
    EXPECT_EQ(msmcli::rankOfTruth({2, {600, 100, 600}}), 2);
    EXPECT_EQ(msmcli::rankOfTruth({-1, {1}}), 0);
    EXPECT_EQ(msmcli::rankOfTruth({3, {1}}), 0);
}

TEST(EvalFigures, ExactRatesOnASmallSet) {
    // Three probes of three persons. Genuine scores 900, 800, 400; impostors 100..850.
    const std::vector<ProbeScores> probes = {
        {0, {900, 100, 200}}, {1, {850, 800, 300}}, {2, {500, 100, 400}}};
    const auto f = computeFigures(probes, 850);
    EXPECT_EQ(f.probes, 3);
    EXPECT_DOUBLE_EQ(f.rank1, 1.0 / 3);
    EXPECT_DOUBLE_EQ(f.rank5, 1.0);
    EXPECT_DOUBLE_EQ(f.trueAcceptAt, 1.0 / 3);  // only 900 is above 850
    EXPECT_DOUBLE_EQ(f.falseAcceptAt, 0.0);     // 850 equals the threshold: rejected
    EXPECT_DOUBLE_EQ(f.identifiedAt, 1.0 / 3);
    // From 400 to 499 one of three genuine scores is rejected (400) and two of six impostor
    // scores are accepted (500, 850): both rates are 1/3, first met at 400.
    EXPECT_NEAR(f.eer, 1.0 / 3, 1e-12);
    EXPECT_EQ(f.eerThreshold, 400);
    EXPECT_EQ(f.genuine.size(), 3u);
    EXPECT_EQ(f.impostor.size(), 6u);
    ASSERT_EQ(f.roc.size(), 1002u);
    EXPECT_DOUBLE_EQ(f.roc.front().trueAccept, 1.0);  // threshold -1 accepts everything
    EXPECT_DOUBLE_EQ(f.roc.front().falseAccept, 1.0);
    EXPECT_DOUBLE_EQ(f.roc.back().trueAccept, 0.0);
    for (std::size_t i = 1; i < f.roc.size(); ++i) {  // a rising threshold never accepts more
        EXPECT_LE(f.roc[i].trueAccept, f.roc[i - 1].trueAccept);
        EXPECT_LE(f.roc[i].falseAccept, f.roc[i - 1].falseAccept);
    }
}

TEST(EvalFigures, SeparatedScoresHaveNoErrorAndNoProbesGiveNothing) {
    const auto f = computeFigures({{0, {900, 100}}, {1, {200, 950}}}, 850);
    EXPECT_DOUBLE_EQ(f.eer, 0.0);
    EXPECT_DOUBLE_EQ(f.rank1, 1.0);
    EXPECT_EQ(computeFigures({}, 850).probes, 0);
}

}  // namespace

namespace {

TEST(KeyName, AnIdentityMatchesItsBareNameAndEvalsNumberedForm) {
    using msmcli::keyNameIsOf;
    EXPECT_EQ(msmcli::identityKeyName("Ann Lee/2"), "Ann_Lee_2");
    EXPECT_EQ(msmcli::keyNameOf("Ann Lee", 11), "p12_Ann_Lee");
    EXPECT_TRUE(keyNameIsOf("p12_Ann_Lee", "Ann Lee"));
    EXPECT_TRUE(keyNameIsOf("Ann_Lee", "Ann Lee"));
    EXPECT_FALSE(keyNameIsOf("p12_Ann_Leeds", "Ann Lee"));
    EXPECT_FALSE(keyNameIsOf("px_Ann_Lee", "Ann Lee"));
    EXPECT_FALSE(keyNameIsOf("p_Ann_Lee", "Ann Lee"));
    EXPECT_FALSE(keyNameIsOf("q1_Ann_Lee", "Ann Lee"));
    EXPECT_FALSE(keyNameIsOf("p1_Bob", "Ann Lee"));
    // Names longer than a key name may hold are cut alike on both sides.
    const std::string longName(60, 'x');
    EXPECT_TRUE(keyNameIsOf(msmcli::keyNameOf(longName, 0), longName));
}

TEST(SvgAxes, NormalDeviateQuantiles) {
    EXPECT_NEAR(msmcli::normalDeviate(0.5), 0.0, 1e-9);
    EXPECT_NEAR(msmcli::normalDeviate(0.975), 1.959964, 1e-6);
    EXPECT_NEAR(msmcli::normalDeviate(0.01), -2.326348, 1e-6);  // the low tail's own formula
    EXPECT_NEAR(msmcli::normalDeviate(1e-4), -3.719016, 1e-6);
    EXPECT_NEAR(msmcli::normalDeviate(0.999), 3.090232, 1e-6);
}

TEST(SvgAxes, ValuesMapOntoThePlotAndOutsideValuesStayAtTheEdge) {
    msmcli::SvgPlot p("t", {"x", 1e-4, 1.0, msmcli::Scale::Log10, {}},
                      {"y", 0.0, 1.0, msmcli::Scale::Linear, {}}, 420, 320);
    const double left = p.xAt(1e-4), right = p.xAt(1.0);
    EXPECT_LT(left, right);
    EXPECT_NEAR(p.xAt(1e-2), (left + right) / 2, 1e-9);  // two of four decades
    EXPECT_EQ(p.xAt(0.0), left);                         // a zero rate sits on the axis
    EXPECT_EQ(p.xAt(5.0), right);
    EXPECT_GT(p.yAt(0.0), p.yAt(1.0));  // upwards
    p.curve("a<b", "#000", {{1e-3, 0.5}, {1e-1, 0.9}});
    p.marker("m", "#f00", 0.01);
    const std::string svg = p.svg();
    EXPECT_NE(svg.find("data-series=\"a&lt;b\""), std::string::npos);
    char x[32];
    std::snprintf(x, sizeof x, "x1=\"%.2f\"", p.xAt(0.01));
    EXPECT_NE(svg.find("<g class=\"marker\" data-value=\"0.01\"><line " + std::string(x)),
              std::string::npos)
        << svg;
}

}  // namespace
