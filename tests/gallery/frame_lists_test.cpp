// The frame lists a host reads: the manifest and points-file parsers on exact values, a points
// file written and read back, and the readers' one-line errors naming the file and the line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <string>
#include <vector>

#include <msmface/frame_lists.h>

#include "tests/common/scratch_dir.h"

namespace {

using msmface::parseManifest;
using msmface::parsePointsFile;
using ::testing::HasSubstr;

std::string ErrorOf(const msmface::Result<std::vector<msmface::FrameRow>>& r) {
    return r.ok() ? std::string("(parsed)") : r.message();
}

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

TEST(FrameLists, ManifestRowsReadByHeaderNames) {
    // Columns in another order than usual are found by their names.
    std::string text = "image,identity,video";
    for (int k = 13; k >= 0; --k) text += ",y" + std::to_string(k) + ",x" + std::to_string(k);
    text += "\r\n\na.pgm,Ann,3," + Coordinates(0) + "\r\n";
    const auto list = parseManifest(text);
    ASSERT_TRUE(list.ok()) << list.message();
    ASSERT_EQ(list.value().size(), 1u);
    const auto& r = list.value()[0];
    EXPECT_EQ(r.identity, "Ann");
    EXPECT_EQ(r.video, "3");
    EXPECT_EQ(r.image, "a.pgm");
    EXPECT_EQ(r.width, 0);       // not stated
    EXPECT_EQ(r.points[0], 27);  // x0 is the last column
    EXPECT_EQ(r.points[1], 26);  // y0
    EXPECT_EQ(r.points[27], 0);  // y13 is the first coordinate column
    EXPECT_EQ(r.line, 3);
}

TEST(FrameLists, ManifestErrorsNameTheLineAndWhatWasExpected) {
    EXPECT_THAT(ErrorOf(parseManifest("")), HasSubstr("expected a header row"));
    EXPECT_THAT(ErrorOf(parseManifest("identity,video,image\n")),
                HasSubstr("line 1: the header lacks the column \"x0\""));
    const std::string h = ManifestHeader();
    EXPECT_THAT(ErrorOf(parseManifest(h + "A,0,0,t,a.pgm,10,10," + Coordinates(1) + ",5\n")),
                HasSubstr("line 2: expected 35 fields as in the header, found 36"));
    EXPECT_THAT(ErrorOf(parseManifest(h + "A,0,0,t,a.pgm,0,10," + Coordinates(1) + "\n")),
                HasSubstr("line 2: expected a width"));
    EXPECT_THAT(ErrorOf(parseManifest(h + "A,0,0,t,a.pgm,10,1.5," + Coordinates(1) + "\n")),
                HasSubstr("expected a height"));
    std::string bad = Coordinates(1);
    bad.replace(bad.rfind(','), std::string::npos, ",nan");
    EXPECT_THAT(ErrorOf(parseManifest(h + "A,0,0,t,a.pgm,10,10," + bad + "\n")),
                HasSubstr("line 2: expected a number for y13, found \"nan\""));
    bad.replace(bad.rfind(','), std::string::npos, ",1e300");
    EXPECT_THAT(ErrorOf(parseManifest(h + "A,0,0,t,a.pgm,10,10," + bad + "\n")),
                HasSubstr("far outside any image"));
    EXPECT_THAT(ErrorOf(parseManifest(h + ",0,0,t,a.pgm,10,10," + Coordinates(1) + "\n")),
                HasSubstr("expected an identity"));
}

TEST(FrameLists, PointsFilesTakeCommasOrBlanksCommentsAndAHeader) {
    std::string text = "image x0 y0\n# a comment\n\n  a.png  " + Coordinates(1) + "\n";
    std::string spaced = Coordinates(2);
    for (char& c : spaced)
        if (c == ',') c = ' ';
    text += "b.jpg\t" + spaced + "\n";
    const auto list = parsePointsFile(text);
    ASSERT_TRUE(list.ok()) << list.message();
    ASSERT_EQ(list.value().size(), 2u);
    EXPECT_EQ(list.value()[0].image, "a.png");
    EXPECT_EQ(list.value()[1].image, "b.jpg");
    EXPECT_EQ(list.value()[1].points[27], 29);
    EXPECT_EQ(list.value()[1].line, 5);
    EXPECT_THAT(ErrorOf(parsePointsFile("a.png 1 2 3\n")),
                HasSubstr("line 1: expected an image name and 28 coordinates, found 4 fields"));
    EXPECT_THAT(ErrorOf(parsePointsFile("# nothing\n")), HasSubstr("no rows"));
}

std::array<double, 28> PointsFrom(double base) {
    std::array<double, 28> points{};
    for (int k = 0; k < 28; ++k) points[k] = base + 1.25 * k;
    return points;
}

TEST(FrameLists, PointsFileNamesReadBackWhateverTheyHold) {
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
        text += msmface::pointsFileRow(names[i], PointsFrom(static_cast<double>(i)));
    const auto list = parsePointsFile(text);
    ASSERT_TRUE(list.ok()) << list.message();
    ASSERT_EQ(list.value().size(), names.size());  // no name made a row of its own or hid one
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(list.value()[i].image, names[i]) << i;
        EXPECT_EQ(list.value()[i].line, static_cast<int>(i) + 2);
        EXPECT_EQ(list.value()[i].points, PointsFrom(static_cast<double>(i))) << i;
    }
    // A name that reads back as it stands is written as before, without quotes.
    EXPECT_EQ(msmface::pointsFileRow("dir/a-1.png", PointsFrom(0)).substr(0, 15),
              "dir/a-1.png 0.0");
    // The first row named "image" is a picture, not the header, when it was quoted.
    const auto first = parsePointsFile(msmface::pointsFileRow("image", PointsFrom(3)));
    ASSERT_TRUE(first.ok()) << first.message();
    EXPECT_EQ(first.value().front().image, "image");
}

TEST(FrameLists, UnquotedNamesReadAsBeforeAndAByteOrderMarkIsSkipped) {
    // Names with quotes that do not close before a separator are names as they stand.
    const auto old = parsePointsFile("\"a\".png " + Coordinates(1) + "\n\"b," + Coordinates(2) +
                                     "\n\"c\\q\" " + Coordinates(3));
    ASSERT_TRUE(old.ok()) << old.message();
    ASSERT_EQ(old.value().size(), 3u);
    EXPECT_EQ(old.value()[0].image, "\"a\".png");
    EXPECT_EQ(old.value()[1].image, "\"b");
    EXPECT_EQ(old.value()[2].image, "\"c\\q\"");  // \q is no escape the writer makes

    const std::string mark = "\xEF\xBB\xBF";
    const auto points = parsePointsFile(mark + "a.pgm " + Coordinates(1));
    ASSERT_TRUE(points.ok()) << points.message();
    EXPECT_EQ(points.value().front().image, "a.pgm");
    EXPECT_TRUE(parsePointsFile(mark + "image x0 y0\nb.pgm " + Coordinates(1)).ok());
    const auto manifest =
        parseManifest(mark + ManifestHeader() + "ann,v1,0,x,a.pgm,320,240," + Coordinates(1));
    ASSERT_TRUE(manifest.ok()) << manifest.message();
    EXPECT_EQ(manifest.value().front().identity, "ann");
}

TEST(FrameLists, APointsFileWrittenThenReadGivesTheSamePoints) {
    msmtest::ScratchDir dir;
    std::vector<std::pair<std::string, msmface::ListPoints>> written;
    for (int i = 0; i < 5; ++i) {
        msmface::ListPoints p{};
        // Two decimals: what a points file keeps. Negative points are absent ones.
        for (int k = 0; k < 28; ++k) p[k] = k == 5 && i == 2 ? -1.0 : 17.25 * i + 3.5 * k + 0.01;
        written.emplace_back(i == 3 ? "with blank.pgm" : "f" + std::to_string(i) + ".pgm", p);
    }
    {
        std::ofstream out(dir / "points.txt");
        for (const auto& [name, p] : written) out << msmface::pointsFileRow(name, p);
    }
    const auto read = msmface::readPointsFile(dir / "points.txt");
    ASSERT_TRUE(read.ok()) << read.message();
    ASSERT_EQ(read->size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ((*read)[i].image, written[i].first);
        EXPECT_EQ((*read)[i].line, static_cast<int>(i) + 1);
        for (int k = 0; k < 28; ++k) EXPECT_NEAR((*read)[i].points[k], written[i].second[k], 1e-9);
    }
}

TEST(FrameLists, ReadersNameTheFileAndTheLine) {
    msmtest::ScratchDir dir;
    std::ofstream(dir / "bad.txt") << "a.pgm 1 2\n";
    const auto bad = msmface::readPointsFile(dir / "bad.txt");
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.message(), dir / "bad.txt" +
                                 ": line 1: expected an image name and 28 coordinates, found 3 "
                                 "fields");
    EXPECT_EQ(bad.status().kind(), msmface::ErrorKind::File);
    const auto manifest = msmface::readManifest(dir / "bad.txt");
    ASSERT_FALSE(manifest.ok());
    EXPECT_THAT(manifest.message(),
                HasSubstr(dir / "bad.txt" + ": line 1: the header lacks the column \"identity\""));
    const std::pair<std::string, std::string> unreadable[] = {
        {dir / "missing.csv", "cannot be read (No such file or directory)"},
        {dir.path(), "is a folder"},
        {"/dev/zero", "not a regular file (a pipe, a socket or a device)"}};
    for (const auto& [path, why] : unreadable) {
        const auto r = msmface::readManifest(path);
        ASSERT_FALSE(r.ok()) << path;
        EXPECT_EQ(r.message(), path + ": " + why + "; expected a list of frames");
    }
}

}  // namespace
