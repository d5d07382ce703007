// The small pieces under the gallery: the registry and threshold files read back what was
// written and refuse what they did not write; frames are mixed to grey and points rounded the
// way the engine expects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "store/registry.h"
#include "store/threshold_file.h"
#include "gallery/frame_input.h"
#include "gallery_support.h"

namespace {

using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::WriteText;
using msmface::Person;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace d = msmface::detail;

TEST(RegistryFile, WrittenPersonsReadBackInOrderAndTheFileIsReplacedWhole) {
    ScratchDir work;
    std::vector<Person> none;
    EXPECT_EQ(d::loadRegistry(work.path(), none), "");  // no file yet: nobody
    EXPECT_TRUE(none.empty());
    const std::vector<Person> persons = {{12, "zed"}, {3, "a.b-c_d"}, {7, std::string(64, 'x')}};
    ASSERT_EQ(d::saveRegistry(work.path(), persons), "");
    std::vector<Person> read;
    ASSERT_EQ(d::loadRegistry(work.path(), read), "");
    EXPECT_THAT(gallerytest::Names(read),
                ElementsAre("12 zed", "3 a.b-c_d", "7 " + std::string(64, 'x')));
    // Nothing but the registry is left behind: the temporary was renamed over it.
    EXPECT_THAT(work.Entries(), ElementsAre("persons.txt"));
    ASSERT_EQ(d::saveRegistry(work.path(), {}), "");
    ASSERT_EQ(d::loadRegistry(work.path(), read), "");
    EXPECT_TRUE(read.empty());
}

TEST(RegistryFile, ParserTakesCommentsBlanksAndCarriageReturnsAndRefusesTheRest) {
    std::vector<Person> out;
    EXPECT_EQ(d::parseRegistry("# c\n\n1 a\r\n  2\tb  \n", out), "");
    EXPECT_THAT(gallerytest::Names(out), ElementsAre("1 a", "2 b"));
    const std::pair<const char*, const char*> refused[] = {
        {"1 a\nx b\n", "line 2: expected \"<ID number> <key name>\""},
        {"1\n", "line 1: expected"},
        {"-4 a\n", "line 1: expected"},
        {"99999999999 a\n", "line 1: expected"},
        {"1 .a\n", "line 1: expected"},
        {"1 a b\n", "line 1: expected"},
        {"1 a\n2 a\n", "line 2: ID number or key name twice"},
        {"1 a\n1 b\n", "line 2: ID number or key name twice"},
    };
    for (const auto& [text, message] : refused) {
        EXPECT_THAT(d::parseRegistry(text, out), HasSubstr(message)) << text;
        EXPECT_TRUE(out.empty()) << text;
    }
}

TEST(RegistryFile, KeyNamesAreSafeFileNames) {
    for (const char* good : {"a", "A9", "x.y", "a-b_c", "n."}) EXPECT_TRUE(d::validKeyName(good));
    for (const char* bad : {"", ".", "..", ".a", "a/b", "a b", "a\\b", "a\nb", "\xc3\xa9"})
        EXPECT_FALSE(d::validKeyName(bad)) << bad;
    EXPECT_TRUE(d::validKeyName(std::string(64, 'a')));
    EXPECT_FALSE(d::validKeyName(std::string(65, 'a')));
}

TEST(ThresholdFile, StoredValueReadsBackAndTheDefaultHoldsWithoutAFile) {
    ScratchDir work;
    int value = 0;
    EXPECT_EQ(d::loadThreshold(work.path(), 850, value), "");
    EXPECT_EQ(value, 850);
    for (int t : {0, 1, 499, 1000}) {
        ASSERT_EQ(d::saveThreshold(work.path(), t), "");
        ASSERT_EQ(d::loadThreshold(work.path(), 850, value), "");
        EXPECT_EQ(value, t);
    }
    EXPECT_THAT(ReadText(work / "threshold.txt"), ::testing::EndsWith("\n1000\n"));
    EXPECT_THAT(work.Entries(), ElementsAre("threshold.txt"));
}

TEST(ThresholdFile, ParserAcceptsOneWholeNumberAndNamesWhatItFound) {
    int v = -1;
    EXPECT_EQ(d::parseThreshold("  0850 \r\n", v), "");
    EXPECT_EQ(v, 850);
    EXPECT_EQ(d::parseThreshold("# calibrated at FAR 0.01\n\n312\n# end\n", v), "");
    EXPECT_EQ(v, 312);
    const std::pair<std::string, std::string> refused[] = {
        {"", "found none"},
        {"# only a comment\n", "found none"},
        {"1001", "line 1: expected an identify threshold of 0 to 1000, found \"1001\""},
        {"+5", "found \"+5\""},
        {"8 5", "found \"8 5\""},
        {"85.0", "found \"85.0\""},
        {"00000", "found \"00000\""},
        {"\n\n7x", "line 3:"},
        {"1\n2", "line 2: expected an identify threshold of 0 to 1000 on one line only"},
        {std::string("5\0", 2), "found \"5?\""},
        {std::string(40, 'z'), "found \"zzzzzzzzzzzzzzzzzzzzzzzz...\""},
    };
    for (const auto& [text, message] : refused) {
        v = -7;
        EXPECT_THAT(d::parseThreshold(text, v), HasSubstr(message)) << text;
        EXPECT_EQ(v, -7) << text;
    }
}

TEST(FrameInput, ColourIsMixedToGreyAndTheStrideIsHonoured) {
    // Two rows of two pixels, four bytes of padding after each row.
    const unsigned char bgr[] = {10, 20, 30,  255, 255, 255, 0, 0, 0, 0,  //
                                 0,  0,  255, 0,   255, 0,   9, 9, 9, 9};
    msmface::FrameView v{bgr, 2, 2, 10, msmface::PixelFormat::BGR};
    ASSERT_EQ(d::checkFrame(v), "");
    BasicImageFile grey;
    ASSERT_TRUE(d::toGrey(v, grey));
    ASSERT_EQ(grey.width, 2);
    ASSERT_EQ(grey.bitsPerPixel, 8);
    // (R*299 + G*587 + B*114) / 1000 with R = 30, G = 20, B = 10: 21.85 -> 21.
    EXPECT_EQ(grey.pixels[0], 21);
    EXPECT_EQ(grey.pixels[1], 255);
    EXPECT_EQ(grey.pixels[2], 76);   // pure red: 255 * 299 / 1000
    EXPECT_EQ(grey.pixels[3], 149);  // pure green: 255 * 587 / 1000
    v.format = msmface::PixelFormat::RGB;
    ASSERT_TRUE(d::toGrey(v, grey));
    EXPECT_EQ(grey.pixels[0], (10 * 299 + 20 * 587 + 30 * 114) / 1000);
    EXPECT_EQ(grey.pixels[2], 29);  // the same bytes read as pure blue

    const unsigned char g[] = {1, 2, 99, 3, 4, 99};
    msmface::FrameView gv{g, 2, 2, 3, msmface::PixelFormat::Grey};
    ASSERT_TRUE(d::toGrey(gv, grey));
    EXPECT_THAT(std::vector<unsigned char>(grey.pixels, grey.pixels + 4), ElementsAre(1, 2, 3, 4));
}

TEST(FrameInput, PointsRoundHalvesAwayFromZeroAndAbsentStaysAbsent) {
    EXPECT_EQ(msmface::toEnginePixel(2.5f), 3);
    EXPECT_EQ(msmface::toEnginePixel(2.49f), 2);
    EXPECT_EQ(msmface::toEnginePixel(0.0f), 0);
    EXPECT_EQ(msmface::toEnginePixel(319.5f), 320);
    for (float absent : {-0.1f, -1.0f, std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(), 2.0e6f})
        EXPECT_EQ(msmface::toEnginePixel(absent), 9999) << absent;
    msmface::FacePoints p;
    p.xy.fill(-1.0f);
    EXPECT_FALSE(msmface::anyPointPresent(msmface::toPartsPosition(p)));
    p.xy[26] = 10.0f;  // x of point 13 alone: the point still lacks its y
    EXPECT_FALSE(msmface::anyPointPresent(msmface::toPartsPosition(p)));
    p.xy[27] = 12.0f;
    EXPECT_TRUE(msmface::anyPointPresent(msmface::toPartsPosition(p)));
}

}  // namespace
