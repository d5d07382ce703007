// An evaluation of two kinds of pattern as a person reads it, on figures made up here: the
// printed table, summary.json and the page name each method's kind, show each kind's figures at
// its own threshold, and never mark one kind's threshold on the other's scores; and the
// mean-descriptor comparison's score.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "json_flat.h"
#include "report_support.h"
#include "tools/msmface/evaluation/eval_metrics.h"
#include "tools/msmface/evaluation/eval_summary.h"
#include "tools/msmface/evaluation/report_page.h"

namespace {

using msmcli::EvalSummary;
using msmcli::KindPart;
using msmcli::MethodResult;
using msmface::FaceDescriptor;
using msmface::PatternKind;
using ::testing::HasSubstr;
using ::testing::Not;

FaceDescriptor axis(int i, float length = 1.0f) {
    FaceDescriptor d{};
    d[i] = length;
    return d;
}

TEST(MeanDescriptor, ScoresTheSquaredCosineOfTheMeanDirections) {
    const FaceDescriptor x = axis(0), y = axis(1);
    EXPECT_EQ(msmcli::meanDescriptorScore(x, x), 1000);
    EXPECT_EQ(msmcli::meanDescriptorScore(x, y), 0);
    FaceDescriptor minusX = x;
    minusX[0] = -1;
    EXPECT_EQ(msmcli::meanDescriptorScore(x, minusX), 0);  // opposite is not alike
    // At 0.9 cosine, 810; at 0.6, 360: the order of cosines is kept.
    FaceDescriptor at09{};
    at09[0] = 0.9f, at09[1] = std::sqrt(1 - 0.81f);
    EXPECT_EQ(msmcli::meanDescriptorScore(x, at09), 810);
    FaceDescriptor at06{};
    at06[0] = 0.6f, at06[1] = 0.8f;
    EXPECT_EQ(msmcli::meanDescriptorScore(at06, x), 360);

    // The mean of two directions lies between them at unit length, whatever their lengths were.
    const auto mean = msmcli::meanDirection({axis(0, 3.0f), axis(1, 3.0f)});
    ASSERT_TRUE(mean.has_value());
    EXPECT_NEAR((*mean)[0], std::sqrt(0.5), 1e-6);
    EXPECT_NEAR((*mean)[1], std::sqrt(0.5), 1e-6);
    EXPECT_EQ(msmcli::meanDescriptorScore(*mean, x), 500);
    // No descriptors, or ones that cancel out, give no direction.
    EXPECT_FALSE(msmcli::meanDirection({}).has_value());
    EXPECT_FALSE(msmcli::meanDirection({x, minusX}).has_value());
}

// Seed patterns and descriptors on two persons, thresholds 850 and 930: the scores make every
// threshold and every figure differ between the kinds.
EvalSummary twoKinds() {
    EvalSummary s;
    s.version = "9.9.9";
    s.settings.manifest = "faces.csv";
    s.settings.threshold = 850;
    s.settings.dimension = 200;
    s.enrolled = {"Ann", "Bob"};
    const std::pair<PatternKind, std::pair<int, const char*>> methods[] = {
        {PatternKind::Seed, {1, "MSM"}},
        {PatternKind::Descriptor, {1, "MSM"}},
        {PatternKind::Descriptor, {msmcli::kMeanDescriptorMethod, "MEAN DESCRIPTOR"}}};
    int shift = 0;
    for (const auto& [kind, method] : methods) {
        MethodResult m;
        m.kind = kind;
        m.method = method.first;
        m.name = method.second;
        m.scores = {{0, {870 + shift, 600 + shift}}, {1, {400 + shift, 700 + shift}}};
        m.figures = msmcli::computeFigures(m.scores, kind == PatternKind::Seed ? 850 : 930);
        s.methods.push_back(m);
        shift += 40;
    }
    KindPart seed{PatternKind::Seed, 200, 850, {{100, 0.5, 0.25, 640}, {200, 1.0, 0.0, 700}}, 200};
    KindPart descriptor{
        PatternKind::Descriptor, 120, 930, {{64, 1.0, 0.0, 760}, {120, 1.0, 0.0, 780}}, 64};
    s.kinds = {seed, descriptor};
    s.sweep = seed.sweep;
    s.bestDimension = seed.bestDimension;
    return s;
}

// The values of a chart's marked lines.
std::vector<int> Markers(const std::string& svg) {
    std::vector<int> values;
    const std::string marker = "<g class=\"marker\" data-value=\"";
    for (std::size_t at = svg.find(marker); at != std::string::npos;
         at = svg.find(marker, at + 1)) {
        const std::size_t from = at + marker.size();
        std::size_t end = from + (svg.compare(from, 1, "-") == 0 ? 1 : 0);
        const std::size_t digits = end;
        while (end < svg.size() && svg[end] >= '0' && svg[end] <= '9') ++end;
        if (end > digits && end < svg.size() && svg[end] == '"')
            values.push_back(std::stoi(svg.substr(from, end - from)));
    }
    return values;
}

TEST(EvalKinds, EachKindsFiguresStandAtItsOwnThreshold) {
    const EvalSummary s = twoKinds();
    const std::string page = msmcli::reportPage(s, {});
    // Two tables side by side, each headed by its kind and its own threshold.
    for (const char* part :
         {"<h3>seed patterns</h3>", "<h3>descriptor patterns</h3>", "<th>TAR at 850</th>",
          "<th>TAR at 930</th>", "<tr data-method=\"1\"><td>1 MSM</td>",
          "<tr data-kind=\"descriptor\" data-method=\"1\"><td>1 MSM</td>",
          "<tr data-kind=\"descriptor\" data-method=\"-1\"><td>MEAN DESCRIPTOR</td>"})
        EXPECT_THAT(page, HasSubstr(part));

    // Every method's scores: the threshold marked is its own kind's, beside its EER and 1 % FAR
    // thresholds, and the other kind's never.
    int histograms = 0;
    for (const std::string& svg : clitest::Charts(page)) {
        const std::string title = clitest::TitleOf(svg);
        if (title.find(": scores") == std::string::npos) continue;
        ++histograms;
        const bool seed = title.rfind("seed ", 0) == 0;
        ASSERT_TRUE(seed || title.rfind("descriptor ", 0) == 0) << title;
        const MethodResult& m = s.methods[histograms - 1];
        EXPECT_EQ(Markers(svg), (std::vector<int>{seed ? 850 : 930, m.figures.eerThreshold,
                                                  m.figures.atFar1.threshold}))
            << title;
    }
    EXPECT_EQ(histograms, 3);
    // Each kind's sweep, with its own chosen and best dimension.
    EXPECT_THAT(page, HasSubstr("<b id=\"best-dimension\">200</b>"));
    EXPECT_THAT(page, HasSubstr("<b id=\"best-dimension-descriptor\">64</b>"));
    EXPECT_THAT(page, HasSubstr("<tr data-kind=\"descriptor\" data-dimension=\"64\" "
                                "class=\"best\"><td>64 (best)</td>"));
    // The curves of both kinds in one ROC, each named by its kind.
    const std::string roc = clitest::Charts(page).front();
    EXPECT_EQ(clitest::TitleOf(roc), "ROC");
    for (const char* name : {"seed 1 MSM", "descriptor 1 MSM", "descriptor MEAN DESCRIPTOR"})
        EXPECT_THAT(roc, HasSubstr(std::string("data-series=\"") + name + "\"")) << name;
}

TEST(EvalKinds, SummaryAndTableNameTheKindOfEveryFigure) {
    const EvalSummary s = twoKinds();
    clitest::JsonFlat json;
    ASSERT_TRUE(json.parse(msmcli::summaryJson(s)));
    const std::pair<const char*, const char*> expected[] = {
        {"settings.patterns[0]", "seed"},
        {"settings.patterns[1]", "descriptor"},
        {"methods[0].kind", "seed"},
        {"methods[1].kind", "descriptor"},
        {"methods[2].method", "-1"},
        {"methods[0].at_threshold.threshold", "850"},
        {"methods[1].at_threshold.threshold", "930"},
        {"methods[2].at_threshold.threshold", "930"},
        // Genuine 910 / 740 against 930: the descriptor's MSM accepts nothing; seed patterns'
        // 870 / 700 against 850 accept Ann.
        {"methods[0].at_threshold.true_accept", "0.5"},
        {"methods[1].at_threshold.true_accept", "0"},
        {"kinds[1].kind", "descriptor"},
        {"kinds[1].dimension", "120"},
        {"kinds[1].best_dimension", "64"},
        {"kinds[1].sweep[0].dimension", "64"},
        // The fields a reader of Seed patterns alone knows stay those of Seed patterns.
        {"settings.threshold", "850"},
        {"best_dimension", "200"},
        {"sweep[1].dimension", "200"},
        {"probes[0].methods[2].kind", "descriptor"},
    };
    for (const auto& [path, value] : expected) EXPECT_EQ(json.values[path], value) << path;

    const std::string table = msmcli::summaryTable(s);
    for (const char* part :
         {"\nseed patterns: threshold 850; constraint space of 200",
          "\ndescriptor patterns: threshold 930; constraint space of 120", "\nseed 1 MSM  ",
          "\ndescriptor 1 MSM  ", "\ndescriptor MEAN DESCRIPTOR  ",
          "\ndescriptor best constraint dimension 64 (rank-1, then EER); run "
          "with 120\n"})
        EXPECT_THAT(table, HasSubstr(part));
    // Without kinds other than Seed patterns, nothing is named by kind.
    EvalSummary seed = s;
    seed.methods.resize(1);
    seed.kinds.resize(1);
    EXPECT_THAT(msmcli::summaryTable(seed), Not(HasSubstr("seed")));
    EXPECT_THAT(msmcli::summaryTable(seed), HasSubstr("\n1 MSM  "));
    EXPECT_THAT(msmcli::reportPage(seed, {}), Not(HasSubstr("data-kind")));
}

}  // namespace
