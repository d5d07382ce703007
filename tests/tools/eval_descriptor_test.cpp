// `msmface eval` over learned descriptors on the real faces of the shared folder, as a user runs
// it: faces found by the program's own detector, the gallery's methods and the mean-descriptor
// comparison above floors a little below what they measure; both kinds in one run, each the same
// as run alone; and the page of both kinds opened in a browser. Skipped without the faces, the
// detector or the descriptor model.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "browser_check.h"
#include "cli_support.h"
#include "json_flat.h"

namespace {

using clitest::CliRun;
using clitest::ReadText;
using clitest::RunCli;
using clitest::Scratch;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kFaces = std::string(MSMFACE_SHARED_DIR) + "/faces";

// The sanitizers run the detector and the engine many times slower: the floors are checked on the
// first 12 persons instead of all 100 (a constraint space of 25 descriptors' directions, which 12
// persons span), and the runs that compare kinds take fewer persons.
#ifdef MSMFACE_TEST_SANITIZED
constexpr int kFloorPersons = 12;
constexpr const char* kFloorArgs = " --descriptor-dimension 25";
constexpr int kKindPersons = 6;
#else
constexpr int kFloorPersons = 0;  // all
constexpr const char* kFloorArgs = "";
constexpr int kKindPersons = 12;
#endif

// The manifest's rows of its first `persons` persons (0: all), images named by absolute path.
// Empty when the shared faces are absent.
std::string cutManifest(const std::string& folder, int persons) {
    std::ifstream in(kFaces + "/manifest.csv");
    std::string header;
    if (!std::getline(in, header)) return {};
    std::string text = header + "\n";
    std::vector<std::string> seen;
    for (std::string line; std::getline(in, line);) {
        const std::string identity = line.substr(0, line.find(','));
        if (std::find(seen.begin(), seen.end(), identity) == seen.end()) {
            if (persons > 0 && static_cast<int>(seen.size()) == persons) continue;
            seen.push_back(identity);
        }
        std::vector<std::string> fields;
        std::stringstream s(line);
        for (std::string f; std::getline(s, f, ',');) fields.push_back(f);
        if (fields.size() < 5) continue;
        fields[4] = kFaces + "/" + fields[4];
        for (std::size_t i = 0; i < fields.size(); ++i) text += (i ? "," : "") + fields[i];
        text += "\n";
    }
    const std::string path = folder + "/manifest-" + std::to_string(persons) + ".csv";
    clitest::WriteText(path, text);
    return path;
}

// Why a run could not measure descriptors on this machine, or empty when it ran.
std::string missingPart(const CliRun& r) {
    if (r.status == 0) return {};
    for (const char* cause : {"not available in this build", "does not exist"})
        if (r.err.find(cause) != std::string::npos) return r.err;
    return {};
}

struct EvalOut {
    CliRun run;
    clitest::JsonFlat json;
    bool parsed = false;
    std::string page;
};

EvalOut runEval(const std::string& manifest, const std::string& out, const std::string& args) {
    EvalOut e;
    e.run = RunCli("eval --manifest '" + manifest + "' --out '" + out + "' " + args);
    e.parsed = e.json.parse(ReadText(out + "/summary.json"));
    e.page = ReadText(out + "/report.html");
    return e;
}

// The index in summary.json's methods of a kind's method, or -1.
int methodIndex(const clitest::JsonFlat& json, const std::string& kind, int method) {
    for (int i = 0; json.values.count("methods[" + std::to_string(i) + "].method"); ++i) {
        const std::string at = "methods[" + std::to_string(i) + "].";
        if (json.values.at(at + "kind") == kind &&
            json.values.at(at + "method") == std::to_string(method))
            return i;
    }
    return -1;
}

// Skips the test when this machine cannot measure descriptors (no shared faces, a build without
// the descriptor, no model installed).
#define SKIP_WITHOUT_DESCRIPTORS(run) \
    if (const std::string missing = missingPart(run); !missing.empty()) GTEST_SKIP() << missing

#define REQUIRE_FACES(manifest) \
    if ((manifest).empty()) GTEST_SKIP() << "no real faces in " << kFaces

// Measured on all 100 persons (faces found in 1,167 of 1,201 frames, described in 1,159): MSM
// 93 % rank-1 and 3.0 % EER, the mean descriptor 92 % and 3.8 %; on the first 12 persons both
// 100 % and 0 %.
TEST(DescriptorEval, MsmAndTheMeanDescriptorHoldTheirFloors) {
    Scratch work;
    const std::string manifest = cutManifest(work.path(), kFloorPersons);
    REQUIRE_FACES(manifest);
    const EvalOut full =
        runEval(manifest, work / "full",
                std::string("--patterns descriptor --detect --no-sweep") + kFloorArgs);
    SKIP_WITHOUT_DESCRIPTORS(full.run);
    ASSERT_EQ(full.run.status, 0) << full.run.err;
    ASSERT_TRUE(full.parsed);
    const double minRank1 = kFloorPersons == 0 ? 0.90 : 0.83;
    const clitest::JsonFlat& json = full.json;
    EXPECT_EQ(json.values.at("settings.points"), "detector");
    for (int method : {1, -1}) {
        const int i = methodIndex(json, "descriptor", method);
        ASSERT_GE(i, 0) << method;
        const std::string at = "methods[" + std::to_string(i) + "].";
        SCOPED_TRACE(json.values.at(at + "name"));
        EXPECT_EQ(json.values.at(at + "probes"),
                  std::to_string(kFloorPersons == 0 ? 100 : kFloorPersons));
        EXPECT_GE(json.number(at + "rank1"), minRank1);
        // MSM's EER is the one the gallery's centre brought down from the mean descriptor's.
        EXPECT_LE(json.number(at + "eer"), kFloorPersons != 0 ? 0.09 : method == 1 ? 0.04 : 0.045);
        EXPECT_GE(json.number(at + "rank5"), json.number(at + "rank1"));
        EXPECT_GE(json.number(at + "at_far_1.true_accept"), 0.85);
    }
    // CMSM and the single pattern run over descriptors too, far above the engine's own patterns'
    // 50 % or so.
    for (int method : {0, 4}) {
        const int i = methodIndex(json, "descriptor", method);
        ASSERT_GE(i, 0) << method;
        EXPECT_GE(json.number("methods[" + std::to_string(i) + "].rank1"), 0.75) << method;
    }
    // The gallery the run made is one of descriptors.
    EXPECT_THAT(ReadText(work / "full/descriptor/dictionary/patterns.txt"),
                HasSubstr("descriptor"));
    EXPECT_THAT(full.run.out, HasSubstr("\ndescriptor MEAN DESCRIPTOR "));
}

// Both kinds in one run, without --detect: each kind's figures are those of the kind run alone
// (one run, two galleries that do not touch each other), and the page shows both, opened in a
// browser with every image and nothing on its console.
TEST(DescriptorEval, BothKindsInOneRunAreEachTheKindRunAlone) {
    Scratch work;
    const std::string manifest = cutManifest(work.path(), kKindPersons);
    REQUIRE_FACES(manifest);
    // Six persons span 18 directions of descriptors: constraint spaces of fewer.
    const std::string sweep = "--sweep 10,16 --descriptor-dimension 16";
    const EvalOut both = runEval(manifest, work / "both", "--patterns both " + sweep);
    SKIP_WITHOUT_DESCRIPTORS(both.run);
    const EvalOut seed = runEval(manifest, work / "seed", sweep);
    const EvalOut descriptor =
        runEval(manifest, work / "descriptor", "--patterns descriptor " + sweep);
    for (const EvalOut* e : {&both, &seed, &descriptor}) {
        ASSERT_EQ(e->run.status, 0) << e->run.err;
        ASSERT_TRUE(e->parsed);
    }
    EXPECT_TRUE(ReadText(work / "both/scores.csv") == ReadText(work / "seed/scores.csv"))
        << "the seed patterns' scores differ";
    EXPECT_TRUE(ReadText(work / "both/scores-descriptor.csv") ==
                ReadText(work / "descriptor/scores-descriptor.csv"))
        << "the descriptors' scores differ";
    EXPECT_GT(ReadText(work / "both/scores-descriptor.csv").size(), 1000u);
    EXPECT_EQ(both.json.values.at("settings.points"), "manifest");
    for (const auto& [alone, kind] :
         {std::make_pair(&seed, "seed"), std::make_pair(&descriptor, "descriptor")}) {
        for (int method : {0, 1, 4}) {
            const int a = methodIndex(alone->json, kind, method);
            const int b = methodIndex(both.json, kind, method);
            ASSERT_GE(a, 0);
            ASSERT_GE(b, 0);
            for (const char* figure : {"rank1", "eer", "at_far_1.threshold", "cmc[4]",
                                       "at_threshold.threshold", "at_threshold.true_accept"})
                EXPECT_EQ(alone->json.values.at("methods[" + std::to_string(a) + "]." + figure),
                          both.json.values.at("methods[" + std::to_string(b) + "]." + figure))
                    << kind << " " << method << " " << figure;
        }
    }
    // Each kind's sweep as it ran alone.
    EXPECT_EQ(both.json.values.at("kinds[1].sweep[1].eer"),
              descriptor.json.values.at("kinds[0].sweep[1].eer"));
    EXPECT_EQ(both.json.values.at("sweep[1].eer"), seed.json.values.at("sweep[1].eer"));

    const std::string browser = clitest::FindChromium();
    if (browser.empty()) GTEST_SKIP() << "chromium is not installed: the page is not opened";
    Scratch view;
    const clitest::BrowserReport r =
        clitest::LoadInBrowser(browser, work / "both/report.html", view.path());
    ASSERT_TRUE(r.ran);
    EXPECT_THAT(r.console, IsEmpty());
    EXPECT_GT(r.images, 0);
    EXPECT_EQ(r.brokenImages, "");
    EXPECT_GT(r.screenshot.size(), 8 * r.blankScreenshot.size());
}

// With --detect, the points the descriptor's search finds for Seed patterns are those the
// detector finds when Seed patterns run alone: one search per frame serves both kinds.
TEST(DescriptorEval, OneSearchPerFrameGivesSeedPatternsTheirOwnPoints) {
    Scratch work;
    const std::string manifest = cutManifest(work.path(), 3);
    REQUIRE_FACES(manifest);
    const EvalOut both = runEval(manifest, work / "detect-both",
                                 "--patterns both --detect --no-sweep --descriptor-dimension 8");
    const EvalOut seed = runEval(manifest, work / "detect-seed", "--detect --no-sweep");
    ASSERT_EQ(both.run.status, 0) << both.run.err;
    ASSERT_EQ(seed.run.status, 0) << seed.run.err;
    EXPECT_EQ(ReadText(work / "detect-both/scores.csv"), ReadText(work / "detect-seed/scores.csv"));
    EXPECT_GT(ReadText(work / "detect-seed/scores.csv").size(), 100u);
}

// A constraint space wider than the persons' descriptors span is refused in one line that names
// the descriptors' own flag.
TEST(DescriptorEval, ADimensionBeyondThePersonsSpanNamesItsFlag) {
    Scratch work;
    const std::string manifest = cutManifest(work.path(), 3);
    REQUIRE_FACES(manifest);
    const CliRun r = RunCli("eval --manifest '" + manifest + "' --out '" + work / "out" +
                            "' --patterns descriptor --no-sweep --descriptor-dimension 20");
    SKIP_WITHOUT_DESCRIPTORS(r);
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.errLines().size(), 1u) << r.err;
    EXPECT_THAT(r.err, HasSubstr("msmface: --descriptor-dimension 20: "));
}

TEST(EvalOptions, KindsAndTheirSettingsOutsideTheirRangeGetOneLine) {
    for (const char* args : {"--patterns seeds", "--descriptor-dimension 129",
                             "--descriptor-dimension 0", "--descriptor-threshold 1001"}) {
        const CliRun r = RunCli(std::string("eval --manifest nowhere.csv ") + args);
        SCOPED_TRACE(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.errLines().size(), 1u) << r.err;
        EXPECT_THAT(r.err, HasSubstr("expected"));
        EXPECT_THAT(r.err, HasSubstr(std::string(args).substr(0, std::string(args).find(' '))));
    }
}

}  // namespace
