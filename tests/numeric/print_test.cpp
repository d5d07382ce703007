#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "matrix_holders.h"

namespace {

using msm_test::makeMatrix;

template <typename Print>
std::string printed(Print print) {
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

TEST(Printing, VecprintBreaksAfterEveryPerLineAndClosesAnIncompleteLine) {
    float v[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(printed([&] { vecprint(v, 5, 2, "%.1f "); }), "1.0 2.0 \n3.0 4.0 \n5.0 \n");
    EXPECT_EQ(printed([&] { vecprint(v, 4, 2, "%.1f "); }), "1.0 2.0 \n3.0 4.0 \n");
    EXPECT_EQ(printed([&] { vecprint(v, 0, 2, "%g"); }), "");
    // A non-positive perLine cannot divide the vector into lines: it comes out as one line.
    EXPECT_EQ(printed([&] { vecprint(v, 3, 0, "%g,"); }), "1,2,3,\n");
}

TEST(Printing, MatprintSeparatesWrappedRowsWithAnEmptyLine) {
    auto a = makeMatrix({{1, 2, 3}, {4, 5, 6}});
    EXPECT_EQ(printed([&] { matprint(a.get(), 3, 2, "%g "); }), "1 2 \n3 \n\n4 5 \n6 \n\n");
    // A row that fits on one line gets no empty line after it.
    EXPECT_EQ(printed([&] { matprint(a.get(), 3, 3, "%g "); }), "1 2 3 \n4 5 6 \n");
    auto empty = makeMatrix(0, 3);
    EXPECT_EQ(printed([&] { matprint(empty.get(), 3, 2, "%g "); }), "");
}

TEST(Printing, MatshowFollowsEachElementWithTwoSpaces) {
    auto a = makeMatrix({{1, 2.5f, 3}, {4, 5, 6}, {7, 8, 9}});
    // Only the rows and columns asked for, whatever the matrix holds beyond them.
    EXPECT_EQ(printed([&] { matshow(a.get(), 2, 2, "%g"); }), "1  2.5  \n4  5  \n");
}

class Dump : public testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("MSMFACE_TEST_TMP");
        dir_ = base != nullptr ? base : "/tmp";
        mkdir(dir_.c_str(), 0700);
        dir_ += "/dump_XXXXXX";
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
        path_ = dir_ + "/eigen.log";
    }
    void TearDown() override {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    std::string contents() const {
        std::ifstream in(path_);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    std::string dir_;
    std::string path_;
};

TEST_F(Dump, WritesMatrixThenDiagonalThenOffDiagonalWithPercentG) {
    auto a = makeMatrix({{1, 0.1f}, {-2.5f, 1e-7f}});
    float d[] = {3, 4};
    float e[] = {0, 0.5f};
    printdumplog(2, a.get(), d, e, path_.c_str());
    EXPECT_EQ(contents(),
              "a[0][0] 1\na[0][1] 0.1\na[1][0] -2.5\na[1][1] 1e-07\n"
              "d[0] 3\nd[1] 4\n"
              "e[0] 0\ne[1] 0.5\n");
}

TEST_F(Dump, DoubleDumpUsesTheSameLayout) {
    double r0[] = {1.0 / 3, 2e20};
    double r1[] = {7, 8};
    double* a[] = {r0, r1, nullptr};
    double d[] = {123456789.0, -0.0};
    double e[] = {1e-300, 6};
    printdumplog(2, a, d, e, path_.c_str());
    EXPECT_EQ(contents(),
              "a[0][0] 0.333333\na[0][1] 2e+20\na[1][0] 7\na[1][1] 8\n"
              "d[0] 1.23457e+08\nd[1] -0\n"
              "e[0] 1e-300\ne[1] 6\n");
}

TEST_F(Dump, ALongPathIsNotCutShort) {
    std::string deep = dir_ + "/" + std::string(200, 'x');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    std::string file = deep + "/" + std::string(200, 'y');
    float d[] = {1};
    float e[] = {2};
    auto a = makeMatrix({{5}});
    printdumplog(1, a.get(), d, e, file.c_str());
    std::ifstream in(file);
    std::string line;
    EXPECT_TRUE(std::getline(in, line));
    EXPECT_EQ(line, "a[0][0] 5");
    unlink(file.c_str());
    rmdir(deep.c_str());
}

TEST(DumpDeathTest, AFileThatCannotBeOpenedEndsTheProcessQuietlyWithStatusZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* nowhere = "/nonexistent-folder-for-msmface/eigen.log";
    auto a = makeMatrix({{1}});
    float fd[] = {1}, fe[] = {1};
    EXPECT_EXIT(printdumplog(1, a.get(), fd, fe, nowhere), testing::ExitedWithCode(0), "^$");
    double r[] = {1};
    double* da[] = {r, nullptr};
    double dd[] = {1}, de[] = {1};
    EXPECT_EXIT(printdumplog(1, da, dd, de, nowhere), testing::ExitedWithCode(0), "^$");
}

}  // namespace
