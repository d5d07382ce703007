#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "numeric/eigen_steps.h"

namespace {

using Problem = std::vector<float>;  // n * n, row after row

// Matrices of every kind the lanes may part ways on: dense, positive semidefinite like the
// similarity's X, repeated and zero eigenvalues, diagonal, zero rows (skipped reflections), huge
// and tiny scales (the double hypotenuse), and NaN or infinity (the iteration limit).
Problem makeProblem(int n, int kind, std::mt19937& gen) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Problem a(static_cast<std::size_t>(n) * n, 0.0f);
    auto set = [&](int i, int j, float v) { a[i * n + j] = a[j * n + i] = v; };
    switch (kind % 10) {
        case 0:  // dense
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) set(i, j, dist(gen));
            break;
        case 1: {  // B Bᵀ of integers, like X formed from fixed-point products
            std::uniform_int_distribution<int> q(-16384, 16384);
            std::vector<int64_t> b(static_cast<std::size_t>(n) * n);
            for (auto& v : b) v = q(gen);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) {
                    int64_t s = 0;
                    for (int k = 0; k < n; ++k) s += b[i * n + k] * b[j * n + k];
                    set(i, j, static_cast<float>(s >> 14));
                }
            break;
        }
        case 2:  // repeated eigenvalues with a tiny coupling
            for (int i = 0; i < n; ++i) set(i, i, i % 2 ? 1.0f : 0.25f);
            if (n > 1) set(0, n - 1, 1e-3f * dist(gen));
            break;
        case 3:  // zero matrix
            break;
        case 4:  // diagonal, some equal entries
            for (int i = 0; i < n; ++i)
                set(i, i, static_cast<float>(static_cast<int>(4 * dist(gen))));
            break;
        case 5: {  // rank one or two
            std::vector<float> u(n), v(n);
            for (int i = 0; i < n; ++i) u[i] = dist(gen), v[i] = kind % 20 < 10 ? 0.0f : dist(gen);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) set(i, j, u[i] * u[j] + v[i] * v[j]);
            break;
        }
        case 6: {  // huge or tiny scale, mixed within the matrix
            const float scale = kind % 20 < 10 ? 1e25f : 1e-25f;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) set(i, j, dist(gen) * (gen() % 3 == 0 ? scale : 1.0f));
            break;
        }
        case 7:  // dense with some zero rows below the diagonal
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) set(i, j, (i % 3 == 1 && j < i) ? 0.0f : dist(gen));
            break;
        case 8: {  // one NaN or infinity somewhere
            for (int i = 0; i < n; ++i)
                for (int j = 0; j <= i; ++j) set(i, j, dist(gen));
            const float bad = gen() % 2 ? std::numeric_limits<float>::quiet_NaN()
                                        : std::numeric_limits<float>::infinity();
            set(static_cast<int>(gen() % n), static_cast<int>(gen() % n), bad);
            break;
        }
        default:  // tridiagonal already, with negative zeros
            for (int i = 0; i < n; ++i) {
                set(i, i, dist(gen));
                if (i > 0) set(i, i - 1, gen() % 4 == 0 ? -0.0f : dist(gen));
            }
            break;
    }
    return a;
}

bool sameValue(float x, float y) {
    if (std::isnan(x) || std::isnan(y)) return std::isnan(x) && std::isnan(y);
    return std::memcmp(&x, &y, sizeof x) == 0;
}

struct Solved {
    std::vector<std::vector<float>> values;
    std::vector<int> results;
};

Solved solveAlone(int n, const std::vector<Problem>& problems) {
    Solved out;
    for (const Problem& p : problems) {
        Problem copy = p;
        std::vector<float*> rows(n);
        for (int i = 0; i < n; ++i) rows[i] = copy.data() + i * n;
        std::vector<float> d(n), e(n);
        out.results.push_back(msm::symmetricEigenvalues(n, rows.data(), d.data(), e.data()));
        out.values.push_back(d);
    }
    return out;
}

Solved solveBatch(int n, const std::vector<Problem>& problems) {
    Solved out;
    const int count = static_cast<int>(problems.size());
    out.values.assign(count, std::vector<float>(n, -7.0f));
    out.results.assign(count, -7);
    std::vector<const float*> in;
    std::vector<float*> values;
    for (int p = 0; p < count; ++p) {
        in.push_back(problems[p].data());
        values.push_back(out.values[p].data());
    }
    EXPECT_EQ(
        msm::symmetricEigenvaluesBatch(n, count, in.data(), values.data(), out.results.data()), 0);
    return out;
}

void expectSame(int n, const std::vector<Problem>& problems, const char* what) {
    const Solved alone = solveAlone(n, problems);
    const std::vector<Problem> before = problems;
    const Solved batch = solveBatch(n, problems);
    for (std::size_t p = 0; p < problems.size(); ++p) {
        ASSERT_EQ(batch.results[p], alone.results[p]) << what << " n = " << n << " problem " << p;
        for (int k = 0; k < n; ++k)
            ASSERT_TRUE(sameValue(batch.values[p][k], alone.values[p][k]))
                << what << " n = " << n << " problem " << p << " value " << k << ": "
                << batch.values[p][k] << " vs " << alone.values[p][k];
        ASSERT_EQ(std::memcmp(before[p].data(), problems[p].data(), n * n * sizeof(float)), 0);
    }
}

TEST(EigenvaluesBatch, SevenBySevenMatchTheOneProblemEntryBitForBit) {
    std::mt19937 gen(7);
    // Batches of one kind and batches mixing every kind, so that lanes part ways at every step.
    for (int round = 0; round < 400; ++round) {
        std::vector<Problem> problems;
        const int count = 1 + round % 17;
        for (int p = 0; p < count; ++p)
            problems.push_back(makeProblem(7, round % 2 ? round / 2 : round + p, gen));
        expectSame(7, problems, "mixed");
    }
}

TEST(EigenvaluesBatch, EveryOrderMatchesTheOneProblemEntry) {
    std::mt19937 gen(11);
    for (int n = 1; n <= msm::kMaxBatchOrder; ++n) {
        for (int round = 0; round < 30; ++round) {
            std::vector<Problem> problems;
            for (int p = 0; p < 8 + round % 3; ++p)
                problems.push_back(makeProblem(n, round + p, gen));
            expectSame(n, problems, "order");
        }
    }
}

TEST(EigenvaluesBatch, PositiveSemidefiniteEigenvaluesAreTheTraceAndDescend) {
    // A property independent of the reference: the values of B Bᵀ descend and sum to the trace.
    std::mt19937 gen(3);
    std::vector<Problem> problems;
    for (int p = 0; p < 16; ++p) problems.push_back(makeProblem(7, 1, gen));
    const Solved batch = solveBatch(7, problems);
    for (int p = 0; p < 16; ++p) {
        double trace = 0.0, sum = 0.0;
        for (int i = 0; i < 7; ++i) trace += problems[p][i * 7 + i];
        for (int k = 0; k < 7; ++k) {
            sum += batch.values[p][k];
            if (k > 0) {
                EXPECT_GE(batch.values[p][k - 1], batch.values[p][k]);
            }
        }
        EXPECT_EQ(batch.results[p], 0);
        EXPECT_NEAR(sum, trace, 1e-4 * trace);
        EXPECT_GT(batch.values[p][6], -1e-3f * batch.values[p][0]);
    }
}

TEST(EigenvaluesBatch, NaNInputReportsFailureLikeTheOneProblemEntry) {
    std::mt19937 gen(5);
    std::vector<Problem> problems;
    for (int p = 0; p < 8; ++p) problems.push_back(makeProblem(7, p == 3 ? 8 : 0, gen));
    problems[3].assign(49, std::numeric_limits<float>::quiet_NaN());
    const Solved batch = solveBatch(7, problems);
    EXPECT_EQ(batch.results[3], 1);
    for (int p = 0; p < 8; ++p) {
        if (p != 3) {
            EXPECT_EQ(batch.results[p], 0);
        }
    }
    expectSame(7, problems, "nan");
}

TEST(EigenvaluesBatch, RefusesOrdersOutsideTheRangeAndWritesNothing) {
    float value = 5.0f;
    float* values[1] = {&value};
    const float matrix[1] = {1.0f};
    const float* matrices[1] = {matrix};
    int result = 9;
    EXPECT_EQ(msm::symmetricEigenvaluesBatch(msm::kMaxBatchOrder + 1, 1, matrices, values, &result),
              -1);
    EXPECT_EQ(msm::symmetricEigenvaluesBatch(-1, 1, matrices, values, &result), -1);
    EXPECT_EQ(msm::symmetricEigenvaluesBatch(1, -1, matrices, values, &result), -1);
    EXPECT_EQ(result, 9);
    EXPECT_EQ(value, 5.0f);
    EXPECT_EQ(msm::symmetricEigenvaluesBatch(1, 1, matrices, values, &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(value, 1.0f);
}

}  // namespace
