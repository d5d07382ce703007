// The 16-bit dot product on 256 values through each kernel and through mmxdotp's dispatch, in
// one run so the ratios are comparable. Each benchmark checks its result against the scalar
// kernel's, so a fast wrong answer fails instead of reporting a speed.
#include <cstdint>
#include <random>

#include <benchmark/benchmark.h>
#include <msmface/numeric.h>

#include "numeric/dot_kernels.h"

namespace {

constexpr int kLength = 256;

struct Inputs {
    short* x = newsvec(kLength);
    short* y = newsvec(kLength);
    Inputs() {
        std::mt19937 rng(7);
        std::uniform_int_distribution<int> value(-32768, 32767);
        for (int i = 0; i < kLength; ++i) {
            x[i] = static_cast<short>(value(rng));
            y[i] = static_cast<short>(value(rng));
        }
    }
    ~Inputs() {
        free_svector(x);
        free_svector(y);
    }
    Inputs(const Inputs&) = delete;
    Inputs& operator=(const Inputs&) = delete;
};

void runKernel(benchmark::State& state, msm::DotKernel kernel) {
    Inputs in;
    int32_t expected = msm::dotKernel(msm::DotPath::Scalar)(in.x, in.y, kLength);
    int32_t result = 0;
    for (auto _ : state) {
        result = kernel(in.x, in.y, kLength);
        benchmark::DoNotOptimize(result);
    }
    if (result != expected) state.SkipWithError("result differs from the scalar kernel");
    state.SetItemsProcessed(state.iterations() * kLength);
}

void BM_DotKernel(benchmark::State& state, msm::DotPath path) {
    msm::DotKernel kernel = msm::dotKernel(path);
    if (kernel == nullptr) {
        state.SkipWithError("this CPU cannot run this path");
        return;
    }
    runKernel(state, kernel);
}

int32_t viaMmxdotp(const short* x, const short* y, int n) {
    return mmxdotp(const_cast<short*>(x), const_cast<short*>(y), n);
}

void BM_Mmxdotp(benchmark::State& state) {
    state.SetLabel(msm::dotPathName(msm::bestDotPath()));
    runKernel(state, viaMmxdotp);
}

BENCHMARK_CAPTURE(BM_DotKernel, scalar, msm::DotPath::Scalar);
BENCHMARK_CAPTURE(BM_DotKernel, sse2, msm::DotPath::Sse2);
BENCHMARK_CAPTURE(BM_DotKernel, avx2, msm::DotPath::Avx2);
BENCHMARK(BM_Mmxdotp);

}  // namespace

BENCHMARK_MAIN();
