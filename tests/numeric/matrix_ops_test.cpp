#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "matrix_holders.h"

namespace {

using msm_test::makeMatrix;

TEST(Mattrans, TransposesAndReturnsZeroEvenForTheIdentity) {
    auto a = makeMatrix({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    auto b = makeMatrix(3, 3);
    EXPECT_EQ(mattrans(3, a.get(), b.get()), 0.0f);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(b[i][j], a[j][i]);

    auto identity = makeMatrix({{1, 0}, {0, 1}});
    auto c = makeMatrix(2, 2);
    EXPECT_EQ(mattrans(2, identity.get(), c.get()), 0.0f);
    EXPECT_EQ(mattrans(0, identity.get(), c.get()), 0.0f);
}

TEST(MattransG, TransposesARectangle) {
    auto a = makeMatrix({{1, 2, 3}, {4, 5, 6}});
    auto b = makeMatrix(3, 2);
    mattrans_g(a.get(), 2, 3, b.get());
    float expected[3][2] = {{1, 4}, {2, 5}, {3, 6}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 2; ++j) EXPECT_EQ(b[i][j], expected[i][j]);
}

TEST(Matmult, MultipliesSummingFromTheFirstTermUpward) {
    auto a = makeMatrix({{1, 2}, {3, 4}, {5, 6}});
    auto b = makeMatrix({{1, 0, -1}, {2, 1, 0}});
    auto c = makeMatrix(3, 3);
    testing::internal::CaptureStderr();
    matmult(a.get(), 3, 2, b.get(), 2, 3, c.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    float expected[3][3] = {{5, 2, -1}, {11, 4, -3}, {17, 6, -5}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(c[i][j], expected[i][j]);

    // (1 + 1e8) - 1e8 is 0 in float; any other order gives 1.
    auto x = makeMatrix({{1, 1e8f, -1e8f}});
    auto ones = makeMatrix({{1}, {1}, {1}});
    auto s = makeMatrix(1, 1);
    matmult(x.get(), 1, 3, ones.get(), 3, 1, s.get());
    EXPECT_EQ(s[0][0], 0.0f);
}

TEST(Matmult, AMismatchIsReportedOnceAndTheProductUsesACols) {
    auto a = makeMatrix({{1, 2}, {3, 4}});
    auto b = makeMatrix({{1, 1}, {1, 1}, {100, 100}});
    auto c = makeMatrix(2, 2);
    testing::internal::CaptureStderr();
    matmult(a.get(), 2, 2, b.get(), 3, 2, c.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "You might miss.\n");
    EXPECT_EQ(c[0][0], 3.0f);
    EXPECT_EQ(c[1][1], 7.0f);
}

}  // namespace
