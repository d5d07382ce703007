// The evaluation's report as a person reads it: the figures of report.html, summary.json and the
// printed table are the same numbers; the charts draw one curve per method and the thresholds at
// their scores; and the page opens in a real browser with every image and no console message.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "browser_check.h"
#include "cli_support.h"
#include "json_flat.h"
#include "report_support.h"
#include "tools/msmface/evaluation/eval_summary.h"
#include "tools/msmface/evaluation/report_page.h"

namespace {

using clitest::Charts;
using clitest::CliRun;
using clitest::ReadText;
using clitest::RunCli;
using clitest::Scratch;
using clitest::TitleOf;
using msmcli::formatPercent;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

const char* const kMethods[] = {"0 SINGLE PATTERN", "1 MSM", "4 CMSM"};

// The texts of the cells of the first table row that opens with `rowStart`.
std::vector<std::string> RowCells(const std::string& html, const std::string& rowStart) {
    std::vector<std::string> cells;
    const std::size_t at = html.find(rowStart);
    if (at == std::string::npos) return cells;
    const std::string row = html.substr(at, html.find("</tr>", at) - at);
    const std::regex cell("<td[^>]*>([^<]*)</td>");
    for (auto it = std::sregex_iterator(row.begin(), row.end(), cell); it != std::sregex_iterator();
         ++it)
        cells.push_back((*it)[1]);
    return cells;
}

int Count(const std::string& text, const std::string& what) {
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// Horizontal position of an x-axis tick labelled `label`, or -1.
double TickX(const std::string& svg, const std::string& label) {
    std::smatch m;
    const std::regex tick("<line class=\"tick\" x1=\"([0-9.]+)\"[^>]*/><text[^>]*>" + label +
                          "</text>");
    return std::regex_search(svg, m, tick) ? std::stod(m[1]) : -1.0;
}

// Horizontal position of the marker of a value, or -1.
double MarkerX(const std::string& svg, int value) {
    std::smatch m;
    const std::regex marker("<g class=\"marker\" data-value=\"" + std::to_string(value) +
                            "\"><line x1=\"([0-9.]+)\"");
    return std::regex_search(svg, m, marker) ? std::stod(m[1]) : -1.0;
}

// One evaluation of four synthetic persons with the dimension sweep, shared by the tests.
class EvalReport : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        work_ = std::make_unique<Scratch>();
        const std::string manifest = clitest::WriteSyntheticManifest(work_->path(), 4);
        run_ = RunCli("eval --manifest '" + manifest + "' --out '" + *work_ / "out" +
                      "' --dimension 100");
        page_ = ReadText(*work_ / "out/report.html");
        jsonOk_ = json_.parse(ReadText(*work_ / "out/summary.json"));
    }
    static void TearDownTestSuite() { work_.reset(); }

    void SetUp() override {
        ASSERT_EQ(run_.status, 0) << run_.err;
        ASSERT_TRUE(jsonOk_) << "summary.json is not well-formed JSON";
    }

    static std::string J(const std::string& path) {
        const auto it = json_.values.find(path);
        return it == json_.values.end() ? "(missing " + path + ")" : it->second;
    }
    static std::string Pct(const std::string& path) { return formatPercent(json_.number(path)); }

    static std::unique_ptr<Scratch> work_;
    static CliRun run_;
    static std::string page_;
    static clitest::JsonFlat json_;
    static bool jsonOk_;
};

std::unique_ptr<Scratch> EvalReport::work_;
CliRun EvalReport::run_;
std::string EvalReport::page_;
clitest::JsonFlat EvalReport::json_;
bool EvalReport::jsonOk_ = false;

TEST_F(EvalReport, PageSummaryAndPrintedTableShowTheSameFigures) {
    EXPECT_EQ(J("settings.threshold"), "850");
    EXPECT_EQ(J("settings.dimension"), "100");
    EXPECT_EQ(J("enrolled"), "4");
    for (int i = 0; i < 3; ++i) {
        const std::string m = "methods[" + std::to_string(i) + "].";
        SCOPED_TRACE(kMethods[i]);
        EXPECT_EQ(J(m + "method") + " " + J(m + "name"), kMethods[i]);
        const std::vector<std::string> expected = {kMethods[i],
                                                   J(m + "probes"),
                                                   Pct(m + "rank1"),
                                                   Pct(m + "rank5"),
                                                   Pct(m + "eer"),
                                                   J(m + "eer_threshold"),
                                                   Pct(m + "at_far_1.true_accept"),
                                                   J(m + "at_far_1.threshold"),
                                                   Pct(m + "at_far_0_1.true_accept"),
                                                   J(m + "at_far_0_1.threshold"),
                                                   Pct(m + "at_threshold.true_accept"),
                                                   Pct(m + "at_threshold.false_accept")};
        EXPECT_THAT(RowCells(page_, "<tr data-method=\"" + J(m + "method") + "\">"),
                    ElementsAreArray(expected));
        EXPECT_EQ(J(m + "probes"), "4");
        EXPECT_THAT(json_.values, ::testing::Contains(::testing::Key(m + "cmc[19]")));
        // The printed row: the same figures in the same order, blank- and bracket-separated.
        const std::size_t at = run_.out.find(std::string("\n") + kMethods[i] + " ");
        ASSERT_NE(at, std::string::npos) << run_.out;
        std::string line = run_.out.substr(at + 1, run_.out.find('\n', at + 1) - at - 1);
        for (char& c : line)
            if (c == '(' || c == ')') c = ' ';
        std::istringstream fields(line.substr(std::string(kMethods[i]).size()));
        std::vector<std::string> printed;
        for (std::string f; fields >> f;) printed.push_back(f);
        std::vector<std::string> tableOrder(expected.begin() + 2, expected.end());
        EXPECT_THAT(printed, ElementsAreArray(tableOrder)) << line;
    }
    // The sweep: every dimension up to the span of four persons (120), the chosen one among
    // them, and the best named alike in all three.
    std::vector<std::string> dims, fromJson, printed;
    for (int k = 0; json_.values.count("sweep[" + std::to_string(k) + "].dimension"); ++k) {
        const std::string p = "sweep[" + std::to_string(k) + "].";
        dims.push_back(J(p + "dimension"));
        fromJson.push_back(J(p + "dimension") + " " + Pct(p + "rank1") + "/" + Pct(p + "eer"));
        const std::vector<std::string> cells =
            RowCells(page_, "<tr data-dimension=\"" + dims.back() + "\"");
        ASSERT_THAT(cells, SizeIs(4));
        EXPECT_EQ(cells[1], Pct(p + "rank1"));
        EXPECT_EQ(cells[2], Pct(p + "eer"));
        EXPECT_EQ(cells[3], J(p + "eer_threshold"));
    }
    EXPECT_THAT(dims, ElementsAreArray({"10", "25", "50", "100", "120"}));
    const std::string sweepLabel = "CMSM by constraint dimension: ";
    const std::size_t line = run_.out.find(sweepLabel);
    ASSERT_NE(line, std::string::npos);
    std::istringstream items(run_.out.substr(line + sweepLabel.size(),
                                             run_.out.find('\n', line) - line - sweepLabel.size()));
    for (std::string item; std::getline(items, item, ';');)
        printed.push_back(item.substr(item.find_first_not_of(' ')));
    EXPECT_THAT(printed, ElementsAreArray(fromJson));
    EXPECT_THAT(page_, HasSubstr("<b id=\"best-dimension\">" + J("best_dimension") + "</b>"));
    EXPECT_THAT(run_.out, HasSubstr("best constraint dimension " + J("best_dimension") + " "));
    EXPECT_EQ(J("version"), RunCli("--version").out.substr(0, J("version").size()));
    EXPECT_THAT(page_, HasSubstr(J("version")));
}

TEST_F(EvalReport, ChartsDrawOneCurvePerMethodAndEachThresholdAtItsScore) {
    const std::vector<std::string> charts = Charts(page_);
    ASSERT_THAT(charts, SizeIs(7));  // ROC, DET, CMC, three histograms, the sweep
    const char* const curves[] = {"ROC", "DET", "CMC"};
    for (int c = 0; c < 3; ++c) {
        SCOPED_TRACE(TitleOf(charts[c]));
        EXPECT_EQ(TitleOf(charts[c]), curves[c]);
        EXPECT_EQ(Count(charts[c], "<g class=\"axis x\""), 1);
        EXPECT_EQ(Count(charts[c], "<g class=\"axis y\""), 1);
        EXPECT_EQ(Count(charts[c], "class=\"curve\""), 3);
        for (const char* name : kMethods)
            EXPECT_THAT(charts[c], HasSubstr(std::string("data-series=\"") + name + "\""));
    }
    // The false-accept axis of the ROC is logarithmic from 0.01 % to 100 %: equal steps per
    // decade.
    const double d1 = TickX(charts[0], "0.01%"), d2 = TickX(charts[0], "0.1%"),
                 d3 = TickX(charts[0], "1%"), d5 = TickX(charts[0], "100%");
    ASSERT_GT(d1, 0);
    EXPECT_NEAR(d2 - d1, d3 - d2, 0.02);
    EXPECT_NEAR(d5 - d1, 4 * (d2 - d1), 0.05);
    for (int i = 0; i < 3; ++i) {
        const std::string& svg = charts[3 + i];
        const std::string m = "methods[" + std::to_string(i) + "].";
        SCOPED_TRACE(TitleOf(svg));
        EXPECT_THAT(TitleOf(svg), HasSubstr(kMethods[i]));
        EXPECT_EQ(Count(svg, "class=\"bars\""), 2);  // genuine and impostor
        // Each marker stands where its score falls on the chart's own axis (0 to 1000).
        const double x0 = TickX(svg, "0"), x1000 = TickX(svg, "1000");
        ASSERT_GT(x1000, x0);
        for (const std::string& key :
             {std::string("settings.threshold"), m + "eer_threshold", m + "at_far_1.threshold"}) {
            const int score = std::stoi(J(key));
            EXPECT_NEAR(MarkerX(svg, score), x0 + (x1000 - x0) * score / 1000.0, 0.02) << key;
        }
    }
    EXPECT_THAT(TitleOf(charts[6]), HasSubstr("constraint dimension"));
    EXPECT_EQ(Count(charts[6], "class=\"curve\""), 2);                             // rank-1 and EER
    EXPECT_THAT(charts[6], HasSubstr("<g class=\"marker\" data-value=\"100\">"));  // chosen
}

TEST_F(EvalReport, EveryProbeOutcomeIsInTheSummary) {
    for (int p = 0; p < 4; ++p)
        for (int m = 0; m < 3; ++m) {
            const std::string at =
                "probes[" + std::to_string(p) + "].methods[" + std::to_string(m) + "].";
            EXPECT_EQ(J(at + "rank"), "1") << at;  // the synthetic persons are all found
            EXPECT_EQ(J(at + "best"), "P" + std::to_string(p)) << at;
            EXPECT_EQ(J(at + "best_score"), J(at + "genuine_score")) << at;
        }
    EXPECT_EQ(Count(page_, "<tr class=\"failure\">"), 0);
}

TEST(EvalOptions, SweepAndDimensionOutsideTheirRangeGetOneLine) {
    for (const char* args : {"--sweep 0", "--sweep 10,300", "--dimension 257"}) {
        const CliRun r = RunCli(std::string("eval --manifest nowhere.csv ") + args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.errLines().size(), 1u) << r.err;
        EXPECT_THAT(r.err, HasSubstr("expected")) << args;
        EXPECT_THAT(r.err, Not(HasSubstr("nowhere.csv"))) << "checked before the manifest";
    }
}

TEST_F(EvalReport, PageIsSelfContained) {
    EXPECT_THAT(page_, Not(HasSubstr("<script")));
    // Nothing to fetch: no link, no style import, no image from anywhere but the page.
    for (const char* fetch : {"src=\"http", "src=\"file", "src=\"/", "url(", "@import", "<link"})
        EXPECT_THAT(page_, Not(HasSubstr(fetch))) << fetch;
    // Links only move within the page.
    EXPECT_EQ(Count(page_, "href="), Count(page_, "href=\"#"));
    EXPECT_GT(Count(page_, "href=\"#"), 0);
    // Every image is an embedded PNG.
    EXPECT_EQ(Count(page_, "<img "), Count(page_,
                                           "<img class=\"face\" width=\"64\" height=\"64\" "
                                           "alt=\""));
    EXPECT_EQ(Count(page_, "<img "), Count(page_, "src=\"data:image/png;base64,iVBORw0KGgo"));
    EXPECT_GT(Count(page_, "<img "), 0);
}

TEST_F(EvalReport, OpensInABrowserWithEveryImageAndNoConsoleMessage) {
    const std::string browser = clitest::FindChromium();
    if (browser.empty()) GTEST_SKIP() << "chromium is not installed: the page is not opened";
    Scratch work;
    const clitest::BrowserReport r =
        clitest::LoadInBrowser(browser, *work_ / "out/report.html", work.path());
    ASSERT_TRUE(r.ran);
    EXPECT_THAT(r.console, IsEmpty());
    EXPECT_EQ(r.images, Count(page_, "<img "));
    EXPECT_EQ(r.brokenImages, "");
    EXPECT_EQ(clitest::PngSize(r.screenshot), std::make_pair(1280, 2400));
    EXPECT_EQ(clitest::PngSize(r.blankScreenshot), std::make_pair(1280, 2400));
    // A blank page compresses to almost nothing; charts, tables and faces do not.
    EXPECT_GT(r.screenshot.size(), 8 * r.blankScreenshot.size());
}

TEST(BrowserCheck, CatchesABrokenImageAConsoleErrorAndABlankPage) {
    const std::string browser = clitest::FindChromium();
    if (browser.empty()) GTEST_SKIP() << "chromium is not installed";
    Scratch work;
    clitest::WriteText(
        work / "bad.html",
        "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>bad</title></head><body>"
        "<img alt=\"fine\" src=\"data:image/png;base64,iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAAAAAA6"
        "fptVAAAACklEQVR4nGNgAAAAAgABSK+kcQAAAABJRU5ErkJggg==\">"
        "<img alt=\"cut\" src=\"data:image/png;base64,iVBORw0KGgoAAAANSUhE\">"
        "<img alt=\"gone\" src=\"missing.png\">"
        "<script>console.error('something failed');</script></body></html>\n");
    const clitest::BrowserReport r =
        clitest::LoadInBrowser(browser, work / "bad.html", work.path());
    ASSERT_TRUE(r.ran);
    EXPECT_EQ(r.images, 3);
    EXPECT_EQ(r.brokenImages, "cut,gone");
    ASSERT_THAT(r.console, Not(IsEmpty()));
    for (const std::string& line : r.console) EXPECT_THAT(line, HasSubstr("something failed"));
    // A page that shows next to nothing is not far from the blank one.
    EXPECT_LT(r.screenshot.size(), 8 * r.blankScreenshot.size());
}

}  // namespace

namespace {

// Text from a manifest reaches the page and summary.json only escaped.
TEST(ReportPage, EveryTextFromTheManifestIsEscaped) {
    msmcli::EvalSummary s;
    s.version = "1.2.3";
    s.settings.manifest = "/x/<script>alert('m')</script>&.csv";
    s.settings.threshold = 850;
    s.settings.dimension = 20;
    s.enrolled = {"Ann \"<b>\" & Co", "Bob's"};
    msmcli::MethodResult m;
    m.method = 1;
    m.name = "MSM";
    m.scores = {{0, {300, 700}}, {1, {200, 600}}};  // Ann is taken for Bob
    m.figures = msmcli::computeFigures(m.scores, 850);
    s.methods.push_back(m);
    msmcli::ReportFaces faces;
    faces.enrolled = {"\x89PNG-ann", ""};
    faces.probe = {"\x89PNG-ann-probe", ""};
    const std::string page = msmcli::reportPage(s, faces);
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_THAT(page, Not(HasSubstr("<b>")));
    EXPECT_THAT(page, HasSubstr("/x/&lt;script&gt;alert(&#39;m&#39;)&lt;/script&gt;&amp;.csv"));
    EXPECT_THAT(page, HasSubstr("Ann &quot;&lt;b&gt;&quot; &amp; Co"));
    EXPECT_THAT(page, HasSubstr("Bob&#39;s"));
    // The failure row: Ann's probe and enrolled face, and Bob, who has no face.
    EXPECT_THAT(page,
                HasSubstr("src=\"data:image/png;base64," + msmcli::base64("\x89PNG-ann") + "\""));
    EXPECT_THAT(page, HasSubstr("<span class=\"noface\">"));
    EXPECT_EQ(Count(page, "<tr class=\"failure\">"), 1);
    clitest::JsonFlat json;
    ASSERT_TRUE(json.parse(msmcli::summaryJson(s)));
    EXPECT_EQ(json.values["settings.manifest"], "/x/<script>alert('m')</script>&.csv");
    // The failure in summary.json: Ann's probe ranked her second, after Bob.
    EXPECT_EQ(json.values["probes[0].identity"], "Ann \\\"<b>\\\" & Co");
    EXPECT_EQ(json.values["probes[0].methods[0].genuine_score"], "300");
    EXPECT_EQ(json.values["probes[0].methods[0].rank"], "2");
    EXPECT_EQ(json.values["probes[0].methods[0].best"], "Bob's");
    EXPECT_EQ(json.values["probes[0].methods[0].best_score"], "700");
    EXPECT_EQ(json.values["probes[1].methods[0].rank"], "1");
    EXPECT_EQ(msmcli::jsonString("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\u000a\\u0001\"");
}

TEST(ReportPage, Base64OfTheStandardExamples) {
    EXPECT_EQ(msmcli::base64(""), "");
    EXPECT_EQ(msmcli::base64("f"), "Zg==");
    EXPECT_EQ(msmcli::base64("fo"), "Zm8=");
    EXPECT_EQ(msmcli::base64("foo"), "Zm9v");
    EXPECT_EQ(msmcli::base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(msmcli::base64(std::string("\xff\xfe\x00", 3)), "//4A");
}

}  // namespace
