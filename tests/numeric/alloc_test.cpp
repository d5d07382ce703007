#include <cstdint>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

namespace {

TEST(Allocators, MatrixWithNoRowsHoldsOnlyTheTerminator) {
    for (int rows : {0, -3}) {
        float** a = newmat(rows, 4);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a[0], nullptr);
        free_matrix(a);
    }
}

// Rows are not checked: a row that cannot be had is a null entry, which ends the matrix there,
// and only a failed pointer array makes the result null or the reporting family speak.
TEST(Allocators, UnobtainableRowsEndTheMatrixWithoutAMessage) {
    testing::internal::CaptureStderr();
    float** a = new_matrix(3, -1);
    short** s = new_smatrix(2, -8);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(a[0], nullptr);
    EXPECT_EQ(s[0], nullptr);
    free_matrix(a);
    free_smatrix(s);
}

TEST(Allocators, MatrixRowsAreSeparateAndTerminated) {
    double** a = new_dmatrix(3, 5);
    ASSERT_NE(a, nullptr);
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(a[i], nullptr);
        for (int j = 0; j < 5; ++j) a[i][j] = i * 10 + j;  // every element is writable
    }
    EXPECT_EQ(a[3], nullptr);
    EXPECT_EQ(a[2][4], 24.0);
    free_dmatrix(a);
}

TEST(Allocators, ShortStorageIsAlignedTo32Bytes) {
    short* v = newsvec(7);
    short** m = new_smatrix(5, 33);
    ASSERT_NE(v, nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v) % 32, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(m) % 32, 0u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(m[i]) % 32, 0u);
    EXPECT_EQ(m[5], nullptr);
    free_svector(v);
    free_smatrix(m);
}

TEST(Allocators, FailureReturnsNullAndOnlyTheReportingFamilySpeaks) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(newvec(-1), nullptr);
    EXPECT_EQ(newsvec(-1), nullptr);
    std::string quiet = testing::internal::GetCapturedStderr();
    EXPECT_EQ(quiet, "");

    testing::internal::CaptureStderr();
    EXPECT_EQ(new_vector(-1), nullptr);
    EXPECT_EQ(new_dvector(-1), nullptr);
    std::string loud = testing::internal::GetCapturedStderr();
    EXPECT_EQ(loud, "\ncannot malloc.\n\ncannot malloc.\n");
}

}  // namespace
