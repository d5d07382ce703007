// The pieces of the msmface program that need no engine: the frame-list parsers and the
// evaluation figures, checked on exact values.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tools/msmface/evaluation/eval_metrics.h"
#include "tools/msmface/input/frame_list.h"

namespace {

using msmcli::computeFigures;
using msmcli::parseManifest;
using msmcli::parsePointsFile;
using msmcli::ProbeScores;
using msmcli::rankOfTruth;
using ::testing::HasSubstr;

std::string Coordinates(double base) {
    std::string s;
    for (int k = 0; k < 28; ++k) s += (k ? "," : "") + std::to_string(base + k);
    return s;
}

std::string ManifestHeader() {
    std::string h = "identity,video,frame,split,image,width,height";
    for (int k = 0; k < 14; ++k) h += ",x" + std::to_string(k) + ",y" + std::to_string(k);
    return h + "\n";
}

TEST(FrameList, ManifestRowsReadByHeaderNames) {
    // Columns in another order than usual are found by their names.
    std::string text = "image,identity,video";
    for (int k = 13; k >= 0; --k) text += ",y" + std::to_string(k) + ",x" + std::to_string(k);
    text += "\r\n\na.pgm,Ann,3," + Coordinates(0) + "\r\n";
    const auto list = parseManifest(text);
    ASSERT_TRUE(list.ok()) << list.error;
    ASSERT_EQ(list.rows.size(), 1u);
    const auto& r = list.rows[0];
    EXPECT_EQ(r.identity, "Ann");
    EXPECT_EQ(r.video, "3");
    EXPECT_EQ(r.image, "a.pgm");
    EXPECT_EQ(r.width, 0);       // not stated
    EXPECT_EQ(r.points[0], 27);  // x0 is the last column
    EXPECT_EQ(r.points[1], 26);  // y0
    EXPECT_EQ(r.points[27], 0);  // y13 is the first coordinate column
    EXPECT_EQ(r.line, 3);
}

TEST(FrameList, ManifestErrorsNameTheLineAndWhatWasExpected) {
    EXPECT_THAT(parseManifest("").error, HasSubstr("expected a header row"));
    EXPECT_THAT(parseManifest("identity,video,image\n").error,
                HasSubstr("line 1: the header lacks the column \"x0\""));
    const std::string h = ManifestHeader();
    EXPECT_THAT(parseManifest(h + "A,0,0,t,a.pgm,10,10," + Coordinates(1) + ",5\n").error,
                HasSubstr("line 2: expected 35 fields as in the header, found 36"));
    EXPECT_THAT(parseManifest(h + "A,0,0,t,a.pgm,0,10," + Coordinates(1) + "\n").error,
                HasSubstr("line 2: expected a width"));
    EXPECT_THAT(parseManifest(h + "A,0,0,t,a.pgm,10,1.5," + Coordinates(1) + "\n").error,
                HasSubstr("expected a height"));
    std::string bad = Coordinates(1);
    bad.replace(bad.rfind(','), std::string::npos, ",nan");
    EXPECT_THAT(parseManifest(h + "A,0,0,t,a.pgm,10,10," + bad + "\n").error,
                HasSubstr("line 2: expected a number for y13, found \"nan\""));
    bad.replace(bad.rfind(','), std::string::npos, ",1e300");
    EXPECT_THAT(parseManifest(h + "A,0,0,t,a.pgm,10,10," + bad + "\n").error,
                HasSubstr("far outside any image"));
    EXPECT_THAT(parseManifest(h + ",0,0,t,a.pgm,10,10," + Coordinates(1) + "\n").error,
                HasSubstr("expected an identity"));
}

TEST(FrameList, PointsFilesTakeCommasOrBlanksCommentsAndAHeader) {
    std::string text = "image x0 y0\n# a comment\n\n  a.png  " + Coordinates(1) + "\n";
    std::string spaced = Coordinates(2);
    for (char& c : spaced)
        if (c == ',') c = ' ';
    text += "b.jpg\t" + spaced + "\n";
    const auto list = parsePointsFile(text);
    ASSERT_TRUE(list.ok()) << list.error;
    ASSERT_EQ(list.rows.size(), 2u);
    EXPECT_EQ(list.rows[0].image, "a.png");
    EXPECT_EQ(list.rows[1].image, "b.jpg");
    EXPECT_EQ(list.rows[1].points[27], 29);
    EXPECT_EQ(list.rows[1].line, 5);
    EXPECT_THAT(parsePointsFile("a.png 1 2 3\n").error,
                HasSubstr("line 1: expected an image name and 28 coordinates, found 4 fields"));
    EXPECT_THAT(parsePointsFile("# nothing\n").error, HasSubstr("no rows"));
}

std::array<double, 28> PointsFrom(double base) {
    std::array<double, 28> points{};
    for (int k = 0; k < 28; ++k) points[k] = base + 1.25 * k;
    return points;
}

TEST(FrameList, PointsFileNamesReadBackWhateverTheyHold) {
    const std::vector<std::string> names = {"plain.png",
                                            "a b.png",
                                            "two  blanks",
                                            "tab\there",
                                            "line\nbreak.png",
                                            "x.png 1 2 3\n#",
                                            "comma,name.png",
                                            "\"quoted\".png",
                                            "back\\slash\\",
                                            "#hash.png",
                                            "image",
                                            "cr\r.png",
                                            std::string("nul\0byte", 8),
                                            "\x01\x7f",
                                            "\"",
                                            "trailing\\",
                                            "caf\xc3\xa9.png",
                                            "",
                                            " lead",
                                            "\xEF\xBB\xBFmark.png"};
    std::string text = "# image x0 y0 ... x13 y13\n";
    for (std::size_t i = 0; i < names.size(); ++i)
        text += msmcli::pointsFileRow(names[i], PointsFrom(static_cast<double>(i)));
    const msmcli::FrameList list = parsePointsFile(text);
    ASSERT_TRUE(list.ok()) << list.error;
    ASSERT_EQ(list.rows.size(), names.size());  // no name made a row of its own or hid one
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(list.rows[i].image, names[i]) << i;
        EXPECT_EQ(list.rows[i].line, static_cast<int>(i) + 2);
        EXPECT_EQ(list.rows[i].points, PointsFrom(static_cast<double>(i))) << i;
    }
    // A name that reads back as it stands is written as before, without quotes.
    EXPECT_EQ(msmcli::pointsFileRow("dir/a-1.png", PointsFrom(0)).substr(0, 15), "dir/a-1.png 0.0");
    // The first row named "image" is a picture, not the header, when it was quoted.
    const msmcli::FrameList first = parsePointsFile(msmcli::pointsFileRow("image", PointsFrom(3)));
    ASSERT_TRUE(first.ok()) << first.error;
    EXPECT_EQ(first.rows.front().image, "image");
}

TEST(FrameList, UnquotedNamesReadAsBeforeAndAByteOrderMarkIsSkipped) {
    // Names with quotes that do not close before a separator are names as they stand.
    const msmcli::FrameList old = parsePointsFile("\"a\".png " + Coordinates(1) + "\n\"b," +
                                                  Coordinates(2) + "\n\"c\\q\" " + Coordinates(3));
    ASSERT_TRUE(old.ok()) << old.error;
    ASSERT_EQ(old.rows.size(), 3u);
    EXPECT_EQ(old.rows[0].image, "\"a\".png");
    EXPECT_EQ(old.rows[1].image, "\"b");
    EXPECT_EQ(old.rows[2].image, "\"c\\q\"");  // \q is no escape the writer makes

    const std::string mark = "\xEF\xBB\xBF";
    const msmcli::FrameList points = parsePointsFile(mark + "a.pgm " + Coordinates(1));
    ASSERT_TRUE(points.ok()) << points.error;
    EXPECT_EQ(points.rows.front().image, "a.pgm");
    EXPECT_TRUE(parsePointsFile(mark + "image x0 y0\nb.pgm " + Coordinates(1)).ok());
    const msmcli::FrameList manifest =
        parseManifest(mark + ManifestHeader() + "ann,v1,0,x,a.pgm,320,240," + Coordinates(1));
    ASSERT_TRUE(manifest.ok()) << manifest.error;
    EXPECT_EQ(manifest.rows.front().identity, "ann");
}

TEST(EvalFigures, TiesRankAgainstTheTruePerson) {
    EXPECT_EQ(rankOfTruth({1, {500, 700, 600}}), 1);
    EXPECT_EQ(rankOfTruth({0, {500, 700, 600}}), 3);
    EXPECT_EQ(rankOfTruth({2, {600, 100, 600}}), 2);
    EXPECT_EQ(rankOfTruth({-1, {1}}), 0);
    EXPECT_EQ(rankOfTruth({3, {1}}), 0);
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
