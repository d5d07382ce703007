// The solvers on the registration path (256 x 256), LAPACK's dsyev on the same matrix as the
// reference, and the 7 x 7 eigenvalues-only entry of the similarity. Each run checks its answer
// against a double reference so that a fast wrong result fails the benchmark.
#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <msmface/numeric.h>

#include "numeric/eigen_steps.h"

#if defined(MSMFACE_HAVE_LAPACK)
extern "C" void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda,
                       double* w, double* work, const int* lwork, int* info);
#endif

namespace {

constexpr int kDim = 256;

std::vector<double> randomSymmetric(int n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    std::vector<double> a(size_t(n) * n);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j <= i; ++j) a[size_t(i) * n + j] = a[size_t(j) * n + i] = dist(gen);
    }
    return a;
}

const std::vector<double>& problem() {
    static const std::vector<double> a = randomSymmetric(kDim, 99);
    return a;
}

// Largest eigenvalue by a converged run of the double QL solver, computed once.
double referenceTop() {
    static const double top = [] {
        double** m = newdmat(kDim, kDim);
        for (int i = 0; i < kDim; ++i) std::copy_n(&problem()[size_t(i) * kDim], kDim, m[i]);
        std::vector<double> d(kDim), e(kDim);
        NRDeigen(kDim, m, d.data(), e.data());
        free_dmatrix(m);
        return d[0];
    }();
    return top;
}

void check(benchmark::State& state, int result, double top, double expected) {
    if (result != 0 || !(std::fabs(top - expected) <= 1e-5 * std::fabs(expected))) {
        state.SkipWithError("wrong eigenvalue");
    }
}

template <typename T>
void load(T** m) {
    for (int i = 0; i < kDim; ++i) {
        for (int j = 0; j < kDim; ++j) m[i][j] = static_cast<T>(problem()[size_t(i) * kDim + j]);
    }
}

// Both double solvers on the same matrix, reloaded outside the timing before every solve.
template <int (*Solve)(int, double**, double*, double*)>
void BM_DoubleSolver(benchmark::State& state) {
    double** m = newdmat(kDim, kDim);
    std::vector<double> d(kDim), e(kDim);
    int result = 0;
    for (auto _ : state) {
        state.PauseTiming();
        load(m);
        state.ResumeTiming();
        result = Solve(kDim, m, d.data(), e.data());
        benchmark::DoNotOptimize(d.data());
    }
    check(state, result, d[0], referenceTop());
    free_dmatrix(m);
}
BENCHMARK(BM_DoubleSolver<NRDeigen>)->Name("BM_NRDeigen")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DoubleSolver<puf_eigen>)->Name("BM_puf_eigen")->Unit(benchmark::kMillisecond);

#if defined(MSMFACE_HAVE_LAPACK)
void BM_dsyev_reference(benchmark::State& state) {
    std::vector<double> a(size_t(kDim) * kDim), w(kDim);
    const int n = kDim;
    int lwork = -1, info = 0;
    double query = 0;
    dsyev_("V", "U", &n, a.data(), &n, w.data(), &query, &lwork, &info);
    lwork = static_cast<int>(query);
    std::vector<double> work(lwork);
    for (auto _ : state) {
        state.PauseTiming();
        a = problem();
        state.ResumeTiming();
        dsyev_("V", "U", &n, a.data(), &n, w.data(), work.data(), &lwork, &info);
        benchmark::DoNotOptimize(w.data());
    }
    check(state, info, w[kDim - 1], referenceTop());  // ascending order
}
BENCHMARK(BM_dsyev_reference)->Unit(benchmark::kMillisecond);
#endif

void BM_KL_50x256(benchmark::State& state) {
    const int samples = 50;
    float** x = newmat(samples, kDim);
    float** u = newmat(kDim, kDim);
    std::vector<float> lambda(kDim);
    std::mt19937 gen(3);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    for (int k = 0; k < samples; ++k) {
        for (int j = 0; j < kDim; ++j) x[k][j] = dist(gen);
    }
    int result = 0;
    for (auto _ : state) {
        result = KL(samples, kDim, x, u, lambda.data());
        benchmark::DoNotOptimize(lambda.data());
    }
    // Trace check: the eigenvalues sum to 100 times the mean squared sample length.
    double trace = 0, sum = 0;
    for (int k = 0; k < samples; ++k) {
        for (int j = 0; j < kDim; ++j) trace += double(x[k][j]) * x[k][j];
    }
    for (float l : lambda) sum += l;
    check(state, result, sum, 100.0 * trace / samples);
    free_matrix(x);
    free_matrix(u);
}
BENCHMARK(BM_KL_50x256)->Unit(benchmark::kMillisecond);

void BM_eigenvalues_only_7x7(benchmark::State& state) {
    constexpr int n = 7;
    const std::vector<double> a = randomSymmetric(n, 7);
    float** m = newmat(n, n);
    float d[n], e[n];
    int result = 0;
    for (auto _ : state) {
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) m[i][j] = static_cast<float>(a[size_t(i) * n + j]);
        }
        result = msm::symmetricEigenvalues(n, m, d, e);
        benchmark::DoNotOptimize(d);
    }
    double** md = newdmat(n, n);
    for (int i = 0; i < n; ++i) std::copy_n(&a[size_t(i) * n], n, md[i]);
    double dd[n], ed[n];
    NRDeigen(n, md, dd, ed);
    if (result != 0 || std::fabs(d[0] - dd[0]) > 1e-5) state.SkipWithError("wrong eigenvalue");
    free_dmatrix(md);
    free_matrix(m);
}
BENCHMARK(BM_eigenvalues_only_7x7);

// Eight 7 x 7 problems one after the other (arg 0) or side by side (arg 1); the results must agree.
void BM_eight_7x7(benchmark::State& state) {
    constexpr int n = 7;
    constexpr int count = 8;
    std::vector<std::vector<float>> problems(count);
    for (int p = 0; p < count; ++p) {
        const std::vector<double> a = randomSymmetric(n, 100 + p);
        problems[p].assign(a.begin(), a.end());
    }
    std::vector<const float*> in;
    std::vector<std::vector<float>> values(count, std::vector<float>(n)), check(values);
    std::vector<float*> out, checkOut;
    for (int p = 0; p < count; ++p) {
        in.push_back(problems[p].data());
        out.push_back(values[p].data());
        checkOut.push_back(check[p].data());
    }
    int results[count], checkResults[count];
    const bool batch = state.range(0) == 1;
    for (auto _ : state) {
        if (batch)
            msm::symmetricEigenvaluesBatch(n, count, in.data(), out.data(), results);
        else
            msm::symmetricEigenvaluesEach(n, count, in.data(), out.data(), results);
        benchmark::DoNotOptimize(values.data());
    }
    msm::symmetricEigenvaluesEach(n, count, in.data(), checkOut.data(), checkResults);
    if (values != check) state.SkipWithError("batch and one-by-one eigenvalues differ");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_eight_7x7)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
