#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

namespace {

// The sums below are built so that a float sum taken in any other order than the one each
// routine promises lands on a different value: 1e8 absorbs a 1 added to it.

TEST(Innerproduct, SumsInIndexOrder) {
    float x[] = {1, 1e8f, -1e8f};
    float y[] = {1, 1, 1};
    EXPECT_EQ(innerproduct(3, x, y), 0.0f);  // (1 + 1e8) - 1e8; backwards it would be 1
    EXPECT_EQ(innerproduct(0, x, y), 0.0f);
}

TEST(InnerproductFast, AddsTheLeadingRemainderSinglyThenGroupsOfFive) {
    float x[] = {1, 0, 1e8f, 1, -1e8f, 0, 0};
    float y[] = {1, 1, 1, 1, 1, 1, 1};
    // n = 7: two single products, then one group of five summed on its own.
    float grouped = 1.0f + 0.0f;
    float group = 1e8f + 1.0f;
    group += -1e8f;
    group += 0.0f;
    group += 0.0f;
    grouped += group;
    ASSERT_EQ(grouped, 1.0f);
    EXPECT_EQ(innerproductFast(7, x, y), grouped);
    // Index order and groups-first both lose the 1 to 1e8.
    EXPECT_EQ(innerproduct(7, x, y), 0.0f);

    // n = 10: no remainder, two groups; the 3 of the first group survives because the second
    // group cancels to 0 on its own before it is added (index order gives 0).
    float z[] = {3, 0, 0, 0, 0, 1e8f, 1, 1, -1e8f, 0};
    float ones[] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(innerproductFast(10, z, ones), 3.0f);
    EXPECT_EQ(innerproductFast(3, x, y), 1e8f);
    EXPECT_EQ(innerproductFast(0, x, y), 0.0f);
}

TEST(InnerproductShort, IsTheExactSumModulo2To32) {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> value(-32768, 32767);
    for (int n = 0; n <= 70; ++n) {
        std::vector<short> x(n), y(n);
        int64_t exact = 0;
        for (int i = 0; i < n; ++i) {
            x[i] = static_cast<short>(value(rng));
            y[i] = static_cast<short>(value(rng));
            exact += int64_t{x[i]} * y[i];
        }
        EXPECT_EQ(innerproductShort(n, x.data(), y.data()),
                  static_cast<int32_t>(static_cast<uint32_t>(exact)))
            << "n=" << n;
    }
    std::vector<short> low(3, -32768);
    EXPECT_EQ(innerproductShort(3, low.data(), low.data()), -1073741824);  // 3 * 2^30 wrapped
}

TEST(Calclen, IsTheEuclideanDistance) {
    float x[] = {1, 2, 3};
    float y[] = {4, 6, 3};
    EXPECT_EQ(calclen(3, x, y), 5.0f);
    EXPECT_EQ(calclen(0, x, y), 0.0f);
}

}  // namespace
