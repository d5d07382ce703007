// Scalar, SSE2 and AVX2 kernels of the 16-bit dot product and the run-time choice among them.
//
// Every kernel sums in unsigned 32-bit arithmetic (or in 32-bit SIMD lanes, which wrap the same
// way), so all of them give the exact dot product modulo 2^32 whatever the order of the partial
// sums. pmaddwd's single overflowing case, (-32768 * -32768) * 2 = 2^31, wraps to -2^31 in its
// lane, which is that same value modulo 2^32.
#include "numeric/dot_kernels.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <utility>

#include <msmface/numeric.h>

#if defined(__x86_64__) || defined(__i386__)
#define MSM_DOT_X86 1
#include <immintrin.h>
#endif

namespace msm {
namespace {

inline uint32_t product(short a, short b) {
    // |a * b| <= 2^30 fits an int32; the cast to unsigned is where the wrap may start.
    return static_cast<uint32_t>(int32_t{a} * int32_t{b});
}

uint32_t scalarTail(const short* x, const short* y, int from, int n) {
    uint32_t s = 0;
    for (int i = from; i < n; ++i) s += product(x[i], y[i]);
    return s;
}

// The scalar kernel is the portable reference and the baseline the SIMD kernels are measured
// against. On x86, where SIMD kernels exist beside it, the compiler must not turn it into one
// more SIMD kernel behind our back: GCC gets the vectoriser switched off for this function, clang
// gets a loop pragma. Elsewhere it is the only kernel, and the compiler may vectorise it freely.
#if defined(MSM_DOT_X86) && defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-tree-vectorize")))
#endif
int32_t
dotScalar(const short* x, const short* y, int n) {
    uint32_t s = 0;
#if defined(MSM_DOT_X86) && defined(__clang__)
#pragma clang loop vectorize(disable) interleave(disable)
#endif
    for (int i = 0; i < n; ++i) s += product(x[i], y[i]);
    return static_cast<int32_t>(s);
}

#ifdef MSM_DOT_X86

__attribute__((target("sse2"))) uint32_t sumLanes(__m128i v) {
    alignas(16) uint32_t lane[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lane), v);
    return lane[0] + lane[1] + lane[2] + lane[3];
}

__attribute__((target("avx2"))) uint32_t sumLanes256(__m256i v) {
    __m128i half = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    __m128i pairs = _mm_add_epi32(half, _mm_shuffle_epi32(half, _MM_SHUFFLE(1, 0, 3, 2)));
    __m128i total = _mm_add_epi32(pairs, _mm_shuffle_epi32(pairs, _MM_SHUFFLE(2, 3, 0, 1)));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(total));
}

// Rounds of 32 elements in four accumulators of four 32-bit lanes each; unaligned loads cost
// nothing on aligned data and keep a misaligned caller from faulting.
__attribute__((target("sse2"))) int32_t dotSse2(const short* x, const short* y, int n) {
    __m128i acc0 = _mm_setzero_si128();
    __m128i acc1 = _mm_setzero_si128();
    __m128i acc2 = _mm_setzero_si128();
    __m128i acc3 = _mm_setzero_si128();
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m128i* px = reinterpret_cast<const __m128i*>(x + i);
        const __m128i* py = reinterpret_cast<const __m128i*>(y + i);
        acc0 = _mm_add_epi32(acc0, _mm_madd_epi16(_mm_loadu_si128(px), _mm_loadu_si128(py)));
        acc1 =
            _mm_add_epi32(acc1, _mm_madd_epi16(_mm_loadu_si128(px + 1), _mm_loadu_si128(py + 1)));
        acc2 =
            _mm_add_epi32(acc2, _mm_madd_epi16(_mm_loadu_si128(px + 2), _mm_loadu_si128(py + 2)));
        acc3 =
            _mm_add_epi32(acc3, _mm_madd_epi16(_mm_loadu_si128(px + 3), _mm_loadu_si128(py + 3)));
    }
    __m128i acc = _mm_add_epi32(_mm_add_epi32(acc0, acc1), _mm_add_epi32(acc2, acc3));
    return static_cast<int32_t>(sumLanes(acc) + scalarTail(x, y, i, n));
}

// Rounds of 32 elements as two 16-element halves in two accumulators.
__attribute__((target("avx2"))) int32_t dotAvx2(const short* x, const short* y, int n) {
    __m256i acc0 = _mm256_setzero_si256();
    __m256i acc1 = _mm256_setzero_si256();
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i* px = reinterpret_cast<const __m256i*>(x + i);
        const __m256i* py = reinterpret_cast<const __m256i*>(y + i);
        acc0 = _mm256_add_epi32(acc0,
                                _mm256_madd_epi16(_mm256_loadu_si256(px), _mm256_loadu_si256(py)));
        acc1 = _mm256_add_epi32(
            acc1, _mm256_madd_epi16(_mm256_loadu_si256(px + 1), _mm256_loadu_si256(py + 1)));
    }
    return static_cast<int32_t>(sumLanes256(_mm256_add_epi32(acc0, acc1)) + scalarTail(x, y, i, n));
}

// Up to kMaxBlockRows rows against one shared vector: each 16-element piece of y is loaded once
// and multiplied into one accumulator per row. Every row's sum is the same modulo 2^32 as its own
// dotAvx2 call.
template <int R>
__attribute__((target("avx2"))) void dotRowsAvx2(const short* const* x, const short* y, int n,
                                                 int32_t* out) {
    __m256i acc[R];
    for (int r = 0; r < R; ++r) acc[r] = _mm256_setzero_si256();
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i yv = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + i));
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const __m256i xv = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x[r] + i));
            acc[r] = _mm256_add_epi32(acc[r], _mm256_madd_epi16(xv, yv));
        }
    }
    for (int r = 0; r < R; ++r)
        out[r] = static_cast<int32_t>(sumLanes256(acc[r]) + scalarTail(x[r], y, i, n));
}

template <int R>
__attribute__((target("sse2"))) void dotRowsSse2(const short* const* x, const short* y, int n,
                                                 int32_t* out) {
    __m128i acc[R];
    for (int r = 0; r < R; ++r) acc[r] = _mm_setzero_si128();
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i yv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i));
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const __m128i xv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(x[r] + i));
            acc[r] = _mm_add_epi32(acc[r], _mm_madd_epi16(xv, yv));
        }
    }
    for (int r = 0; r < R; ++r)
        out[r] = static_cast<int32_t>(sumLanes(acc[r]) + scalarTail(x[r], y, i, n));
}

bool cpuHas(DotPath path) {
    __builtin_cpu_init();
    switch (path) {
        case DotPath::Scalar:
            return true;
        case DotPath::Sse2:
            return __builtin_cpu_supports("sse2");
        case DotPath::Avx2:
            return __builtin_cpu_supports("avx2");
    }
    return false;
}

#endif  // MSM_DOT_X86

// Rows beyond this many are taken in further blocks; eight accumulators and the shared piece of y
// still fit the sixteen vector registers.
constexpr int kMaxBlockRows = 8;
using BlockKernel = void (*)(const short* const* x, const short* y, int n, int32_t* out);
using BlockTable = std::array<BlockKernel, kMaxBlockRows + 1>;

template <template <int> class Kernel, std::size_t... I>
constexpr BlockTable blockTable(std::index_sequence<I...>) {
    return BlockTable{nullptr, &Kernel<static_cast<int>(I) + 1>::run...};
}

void runBlocks(const BlockTable& table, const short* const* x, int rows, const short* y, int n,
               int32_t* out) {
    while (rows > 0) {
        const int r = rows < kMaxBlockRows ? rows : kMaxBlockRows;
        table[r](x, y, n, out);
        x += r;
        out += r;
        rows -= r;
    }
}

void dotRowsScalar(const short* const* x, int rows, const short* y, int n, int32_t* out) {
    for (int r = 0; r < rows; ++r) out[r] = dotScalar(x[r], y, n);
}

#ifdef MSM_DOT_X86
template <int R>
struct Avx2Block {
    static void run(const short* const* x, const short* y, int n, int32_t* out) {
        dotRowsAvx2<R>(x, y, n, out);
    }
};
template <int R>
struct Sse2Block {
    static void run(const short* const* x, const short* y, int n, int32_t* out) {
        dotRowsSse2<R>(x, y, n, out);
    }
};
constexpr BlockTable kAvx2Blocks = blockTable<Avx2Block>(std::make_index_sequence<kMaxBlockRows>{});
constexpr BlockTable kSse2Blocks = blockTable<Sse2Block>(std::make_index_sequence<kMaxBlockRows>{});

void dotRowsAvx2All(const short* const* x, int rows, const short* y, int n, int32_t* out) {
    runBlocks(kAvx2Blocks, x, rows, y, n, out);
}
void dotRowsSse2All(const short* const* x, int rows, const short* y, int n, int32_t* out) {
    runBlocks(kSse2Blocks, x, rows, y, n, out);
}
#endif

void resolveAndDotRows(const short* const* x, int rows, const short* y, int n, int32_t* out);
std::atomic<DotRowsKernel> activeRowsKernel{resolveAndDotRows};

void resolveAndDotRows(const short* const* x, int rows, const short* y, int n, int32_t* out) {
    DotRowsKernel k = dotRowsKernel(bestDotPath());
    activeRowsKernel.store(k, std::memory_order_relaxed);
    k(x, rows, y, n, out);
}

// Resolves the kernel on the first call and then stands aside: every later call of mmxdotp is
// one relaxed load (a plain move on x86) and one indirect call. Concurrent first calls all store
// the same pointer.
int32_t resolveAndDot(const short* x, const short* y, int n);
std::atomic<DotKernel> activeKernel{resolveAndDot};

int32_t resolveAndDot(const short* x, const short* y, int n) {
    DotKernel k = dotKernel(bestDotPath());
    activeKernel.store(k, std::memory_order_relaxed);
    return k(x, y, n);
}

}  // namespace

DotKernel dotKernel(DotPath path) {
    switch (path) {
        case DotPath::Scalar:
            return dotScalar;
#ifdef MSM_DOT_X86
        case DotPath::Sse2:
            return cpuHas(path) ? dotSse2 : nullptr;
        case DotPath::Avx2:
            return cpuHas(path) ? dotAvx2 : nullptr;
#else
        case DotPath::Sse2:
        case DotPath::Avx2:
            return nullptr;
#endif
    }
    return nullptr;
}

DotRowsKernel dotRowsKernel(DotPath path) {
    if (dotKernel(path) == nullptr) return nullptr;
    switch (path) {
        case DotPath::Scalar:
            return dotRowsScalar;
#ifdef MSM_DOT_X86
        case DotPath::Sse2:
            return dotRowsSse2All;
        case DotPath::Avx2:
            return dotRowsAvx2All;
#else
        case DotPath::Sse2:
        case DotPath::Avx2:
            return nullptr;
#endif
    }
    return nullptr;
}

void dotRows(const short* const* x, int rows, const short* y, int n, int32_t* out) {
    activeRowsKernel.load(std::memory_order_relaxed)(x, rows, y, n, out);
}

DotPath bestDotPath() {
    for (DotPath p : {DotPath::Avx2, DotPath::Sse2})
        if (dotKernel(p) != nullptr) return p;
    return DotPath::Scalar;
}

const char* dotPathName(DotPath path) {
    switch (path) {
        case DotPath::Scalar:
            return "scalar";
        case DotPath::Sse2:
            return "sse2";
        case DotPath::Avx2:
            return "avx2";
    }
    return "unknown";
}

}  // namespace msm

int MMX16Size(int n) {
    if (n % 16 == 0) return n;
    // Truncation towards zero, then one step of 16 up (-5 -> 16, -20 -> 0). Done in unsigned so
    // that the few values above the largest multiple of 16 wrap to INT_MIN, as 32-bit arithmetic
    // has always made them, instead of overflowing.
    uint32_t up = static_cast<uint32_t>((n / 16) * 16) + 16u;
    return static_cast<int32_t>(up);
}

int32_t mmxdotp(short* x, short* y, int n) {
    // The kernels take n <= 0 as empty and a length that is not a multiple of 32 as it is, so
    // neither can run past the arrays or loop forever.
    return msm::activeKernel.load(std::memory_order_relaxed)(x, y, n);
}
