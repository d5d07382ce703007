#include <climits>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <msmface/numeric.h>

#include "matrix_holders.h"
#include "numeric/dot_kernels.h"

namespace {

using msm::DotKernel;
using msm::DotPath;

int32_t exactModulo32(const short* x, const short* y, int n) {
    int64_t s = 0;
    for (int i = 0; i < n; ++i) s += int64_t{x[i]} * y[i];
    return static_cast<int32_t>(static_cast<uint32_t>(s));
}

std::vector<DotPath> availablePaths() {
    std::vector<DotPath> paths;
    for (DotPath p : {DotPath::Scalar, DotPath::Sse2, DotPath::Avx2})
        if (msm::dotKernel(p) != nullptr) paths.push_back(p);
    return paths;
}

TEST(MMX16Size, RoundsUpToAMultipleOf16) {
    EXPECT_EQ(MMX16Size(0), 0);
    EXPECT_EQ(MMX16Size(1), 16);
    EXPECT_EQ(MMX16Size(16), 16);
    EXPECT_EQ(MMX16Size(17), 32);
    EXPECT_EQ(MMX16Size(250), 256);
    // Negative values truncate towards zero first, then go one step up.
    EXPECT_EQ(MMX16Size(-5), 16);
    EXPECT_EQ(MMX16Size(-16), -16);
    EXPECT_EQ(MMX16Size(-20), 0);
    // The largest multiple of 16 is kept; above it there is nothing to round to, and the value
    // wraps as 32-bit arithmetic would.
    EXPECT_EQ(MMX16Size(INT_MAX - 15), INT_MAX - 15);
    EXPECT_EQ(MMX16Size(INT_MAX), INT_MIN);
}

TEST(DotKernels, ScalarIsAlwaysThereAndMmxdotpUsesTheWidestPath) {
    ASSERT_NE(msm::dotKernel(DotPath::Scalar), nullptr);
    DotPath best = msm::bestDotPath();
    EXPECT_NE(msm::dotKernel(best), nullptr);
    if (msm::dotKernel(DotPath::Avx2) != nullptr) {
        EXPECT_EQ(best, DotPath::Avx2);
    }
    std::cout << "mmxdotp path on this CPU: " << msm::dotPathName(best) << "\n";
}

TEST(DotKernels, EveryPathGivesTheExactSumOnRandomVectors) {
    std::mt19937 rng(31);
    std::uniform_int_distribution<int> value(-32768, 32767);
    for (int n = 32; n <= 1024; n += 32) {
        auto x = msm_test::makeShortVector(std::vector<short>(n));
        auto y = msm_test::makeShortVector(std::vector<short>(n));
        for (int i = 0; i < n; ++i) {
            x[i] = static_cast<short>(value(rng));
            y[i] = static_cast<short>(value(rng));
        }
        int32_t expected = exactModulo32(x.get(), y.get(), n);
        for (DotPath p : availablePaths())
            EXPECT_EQ(msm::dotKernel(p)(x.get(), y.get(), n), expected)
                << msm::dotPathName(p) << " n=" << n;
        EXPECT_EQ(mmxdotp(x.get(), y.get(), n), expected) << "n=" << n;
    }
}

TEST(DotKernels, EveryPathWrapsTheSameOnExtremeVectors) {
    struct Case {
        std::string name;
        short (*x)(int i);
        short (*y)(int i);
    };
    const std::vector<Case> cases = {
        {"all -32768", [](int) -> short { return -32768; }, [](int) -> short { return -32768; }},
        {"all 32767", [](int) -> short { return 32767; }, [](int) -> short { return 32767; }},
        {"-32768 by 32767", [](int) -> short { return -32768; },
         [](int) -> short { return 32767; }},
        {"alternating", [](int i) -> short { return i % 2 ? 32767 : -32768; },
         [](int i) -> short { return i % 3 ? -32768 : 32767; }},
        // A pair of (-32768)^2 overflows a packed multiply-add lane on its own: 2^31.
        {"one overflowing pair", [](int i) -> short { return i < 2 ? -32768 : 0; },
         [](int) -> short { return -32768; }},
    };
    for (const Case& c : cases) {
        for (int n = 32; n <= 1024; n += 32) {
            auto x = msm_test::makeShortVector(std::vector<short>(n));
            auto y = msm_test::makeShortVector(std::vector<short>(n));
            for (int i = 0; i < n; ++i) {
                x[i] = c.x(i);
                y[i] = c.y(i);
            }
            int32_t expected = exactModulo32(x.get(), y.get(), n);
            for (DotPath p : availablePaths())
                EXPECT_EQ(msm::dotKernel(p)(x.get(), y.get(), n), expected)
                    << c.name << " " << msm::dotPathName(p) << " n=" << n;
        }
    }
    auto x = msm_test::makeShortVector(std::vector<short>(32, 0));
    x[0] = x[1] = -32768;
    EXPECT_EQ(mmxdotp(x.get(), x.get(), 32), INT32_MIN);
}

// Lengths that are not a positive multiple of 32, and misaligned arrays, must neither read past
// the arrays (the vectors are exactly n long, so the address sanitizer sees any overrun) nor
// fault: the result is the exact sum of the n products.
TEST(DotKernels, OddLengthsAndMisalignedArraysStayInBounds) {
    std::mt19937 rng(32);
    std::uniform_int_distribution<int> value(-32768, 32767);
    for (int n = 0; n <= 100; ++n) {
        for (int offset : {0, 1}) {
            std::vector<short> x(n + offset), y(n + offset);
            for (auto& v : x) v = static_cast<short>(value(rng));
            for (auto& v : y) v = static_cast<short>(value(rng));
            const short* px = x.data() + offset;
            const short* py = y.data() + offset;
            int32_t expected = exactModulo32(px, py, n);
            for (DotPath p : availablePaths())
                EXPECT_EQ(msm::dotKernel(p)(px, py, n), expected)
                    << msm::dotPathName(p) << " n=" << n << " offset=" << offset;
        }
    }
    short one = 1;
    for (DotPath p : availablePaths()) EXPECT_EQ(msm::dotKernel(p)(&one, &one, -32), 0);
    EXPECT_EQ(mmxdotp(&one, &one, 0), 0);
}

}  // namespace

namespace {

// The row-block form must give, row for row, exactly what the single product gives, for every
// block size (including the split of more than eight rows), odd lengths and wrap-around values.
TEST(DotKernels, RowBlocksEqualOneProductPerRowOnEveryPath) {
    std::mt19937 rng(57);
    std::uniform_int_distribution<int> value(-32768, 32767);
    for (int rows : {1, 2, 3, 7, 8, 9, 17, 20}) {
        for (int n : {0, 5, 31, 256, 263}) {
            std::vector<std::vector<short>> x(rows, std::vector<short>(n));
            std::vector<const short*> xp;
            for (auto& row : x) {
                for (short& v : row) v = static_cast<short>(value(rng));
                xp.push_back(row.data());
            }
            std::vector<short> y(n);
            for (short& v : y) v = static_cast<short>(rows % 2 ? -32768 : value(rng));
            for (DotPath p : availablePaths()) {
                std::vector<int32_t> out(rows, 12345);
                msm::dotRowsKernel(p)(xp.data(), rows, y.data(), n, out.data());
                for (int r = 0; r < rows; ++r)
                    EXPECT_EQ(out[r], exactModulo32(x[r].data(), y.data(), n))
                        << msm::dotPathName(p) << " rows=" << rows << " n=" << n << " r=" << r;
            }
            std::vector<int32_t> out(rows);
            msm::dotRows(xp.data(), rows, y.data(), n, out.data());
            for (int r = 0; r < rows; ++r)
                EXPECT_EQ(out[r], exactModulo32(x[r].data(), y.data(), n));
        }
    }
}

}  // namespace
