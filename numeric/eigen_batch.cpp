// Eigenvalues of many small symmetric matrices at once. One problem is a chain of dependent
// square roots and divisions, so a lone problem leaves the processor mostly waiting; eight
// problems, one per AVX2 float lane, keep it busy. The lanes run in lockstep: where the problems
// part ways (a row whose reflection is skipped, a different deflation point, a restarted chase,
// a finished problem), the lanes that do not take a step compute it anyway and keep their old
// values. Every lane performs exactly the IEEE operations of the one-problem code in the same
// order, so it ends with the same bits.
#include <algorithm>
#include <cstring>

#include "numeric/eigen_steps.h"

#if defined(__x86_64__) || defined(__i386__)
#define MSM_EIGEN_BATCH_X86 1
#include <immintrin.h>
#endif

namespace msm {
namespace {

// Solves one problem the ordinary way on a copy of its matrix.
int solveOne(int n, const float* matrix, float* eigenvalues) {
    float store[kMaxBatchOrder * kMaxBatchOrder];
    float* rows[kMaxBatchOrder];
    float work[kMaxBatchOrder];
    std::memcpy(store, matrix, sizeof(float) * n * n);
    for (int i = 0; i < n; ++i) rows[i] = store + i * n;
    return symmetricEigenvalues(n, rows, eigenvalues, work);
}

void solveEachAlone(int n, int count, const float* const* matrices, float* const* eigenvalues,
                    int* results) {
    for (int p = 0; p < count; ++p) results[p] = solveOne(n, matrices[p], eigenvalues[p]);
}

#ifdef MSM_EIGEN_BATCH_X86

#define MSM_AVX2 __attribute__((target("avx2")))
#define MSM_AVX2_INLINE inline __attribute__((target("avx2"), always_inline))

constexpr int kLanes = 8;
constexpr int kQlIterationLimit = 300;  // the one-problem limit; a lane fails where it would

using V = __m256;
using VI = __m256i;

MSM_AVX2_INLINE V zero() {
    return _mm256_setzero_ps();
}
MSM_AVX2_INLINE V splat(float x) {
    return _mm256_set1_ps(x);
}
MSM_AVX2_INLINE V add(V a, V b) {
    return _mm256_add_ps(a, b);
}
MSM_AVX2_INLINE V sub(V a, V b) {
    return _mm256_sub_ps(a, b);
}
MSM_AVX2_INLINE V mul(V a, V b) {
    return _mm256_mul_ps(a, b);
}
MSM_AVX2_INLINE V div(V a, V b) {
    return _mm256_div_ps(a, b);
}
MSM_AVX2_INLINE V absolute(V x) {
    return _mm256_andnot_ps(splat(-0.0f), x);
}
MSM_AVX2_INLINE V negate(V x) {
    return _mm256_xor_ps(splat(-0.0f), x);
}
// The magnitude of r with the sign of s.
MSM_AVX2_INLINE V copySign(V r, V s) {
    const V sign = splat(-0.0f);
    return _mm256_or_ps(_mm256_andnot_ps(sign, r), _mm256_and_ps(sign, s));
}
// mask ? yes : no, lane by lane; masks are all ones or all zeros.
MSM_AVX2_INLINE V pick(V mask, V yes, V no) {
    return _mm256_blendv_ps(no, yes, mask);
}
MSM_AVX2_INLINE V maskOf(VI m) {
    return _mm256_castsi256_ps(m);
}
MSM_AVX2_INLINE VI lanesEqual(VI a, int k) {
    return _mm256_cmpeq_epi32(a, _mm256_set1_epi32(k));
}
MSM_AVX2_INLINE bool none(V mask) {
    return _mm256_movemask_ps(mask) == 0;
}
MSM_AVX2_INLINE bool noneI(VI mask) {
    return _mm256_testz_si256(mask, mask) != 0;
}

// The float hypotenuse lane by lane: one float square root inside the range where the squares
// are safe, the double formula for the lanes outside it (and for NaN, which fails both tests).
MSM_AVX2_INLINE V hypotenuse(V a, V b) {
    const V x = absolute(a);
    const V y = absolute(b);
    const V big = _mm256_max_ps(x, y);  // x > y ? x : y, the second operand on NaN
    const V inRange = _mm256_and_ps(_mm256_cmp_ps(big, splat(1e18f), _CMP_LT_OQ),
                                    _mm256_cmp_ps(big, splat(1e-18f), _CMP_GT_OQ));
    V r = _mm256_sqrt_ps(add(mul(x, x), mul(y, y)));
    if (_mm256_movemask_ps(inRange) != 0xFF) {
        const __m256d xl = _mm256_cvtps_pd(_mm256_castps256_ps128(x));
        const __m256d xh = _mm256_cvtps_pd(_mm256_extractf128_ps(x, 1));
        const __m256d yl = _mm256_cvtps_pd(_mm256_castps256_ps128(y));
        const __m256d yh = _mm256_cvtps_pd(_mm256_extractf128_ps(y, 1));
        const __m256d rl =
            _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(xl, xl), _mm256_mul_pd(yl, yl)));
        const __m256d rh =
            _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(xh, xh), _mm256_mul_pd(yh, yh)));
        const V wide = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(rl)),
                                            _mm256_cvtpd_ps(rh), 1);
        r = pick(inRange, r, wide);
    }
    return r;
}

// Four partial sums in the one-problem order.
MSM_AVX2_INLINE V rowDot(const V* x, const V* y, int n) {
    V s0 = zero(), s1 = zero(), s2 = zero(), s3 = zero();
    int k = 0;
    for (; k + 4 <= n; k += 4) {
        s0 = add(s0, mul(x[k], y[k]));
        s1 = add(s1, mul(x[k + 1], y[k + 1]));
        s2 = add(s2, mul(x[k + 2], y[k + 2]));
        s3 = add(s3, mul(x[k + 3], y[k + 3]));
    }
    for (; k < n; ++k) s0 = add(s0, mul(x[k], y[k]));
    return add(add(s0, s1), add(s2, s3));
}

using Block = V[kMaxBatchOrder][kMaxBatchOrder];

// Householder reduction, eigenvalues only: d receives the diagonal, e the sub-diagonal (e[0] = 0).
// Only the lower triangle of a is read and updated; row i is dead once it has been reflected.
template <int Order>
MSM_AVX2_INLINE void reduceLanes(int order, Block& a, V* d, V* e) {
    const int n = Order > 0 ? Order : order;
    for (int i = n - 1; i >= 1; --i) {
        const int len = i;
        V u[kMaxBatchOrder];
        for (int k = 0; k < len; ++k) u[k] = a[i][k];
        V scale = zero();
        for (int k = 0; k < len; ++k) scale = add(scale, absolute(u[k]));
        const V last = u[len - 1];
        if (len == 1) {
            e[i] = last;
            continue;
        }
        const V skip = _mm256_cmp_ps(scale, zero(), _CMP_EQ_OQ);
        V h = zero();
        const V inverseScale = div(splat(1.0f), scale);
        for (int k = 0; k < len; ++k) {
            u[k] = mul(u[k], inverseScale);
            h = add(h, mul(u[k], u[k]));
        }
        const V f = u[len - 1];
        const V root = _mm256_sqrt_ps(h);
        const V g = pick(_mm256_cmp_ps(f, zero(), _CMP_GE_OQ), negate(root), root);
        e[i] = pick(skip, last, mul(scale, g));
        h = sub(h, mul(f, g));
        u[len - 1] = sub(f, g);

        V q[kMaxBatchOrder];
        for (int j = 0; j < len; ++j) q[j] = zero();
        for (int j = 0; j < len; ++j) {
            const V uj = u[j];
            for (int k = 0; k < j; ++k) q[k] = add(q[k], mul(a[j][k], uj));
            q[j] = add(q[j], rowDot(a[j], u, j + 1));
        }
        V up = zero();
        const V inverseH = div(splat(1.0f), h);
        for (int j = 0; j < len; ++j) {
            q[j] = mul(q[j], inverseH);
            up = add(up, mul(q[j], u[j]));
        }
        const V half = div(up, add(h, h));
        for (int j = 0; j < len; ++j) q[j] = sub(q[j], mul(half, u[j]));
        for (int j = 0; j < len; ++j) {
            const V uj = u[j];
            const V qj = q[j];
            for (int k = 0; k <= j; ++k)
                a[j][k] = pick(skip, a[j][k], sub(a[j][k], add(mul(uj, q[k]), mul(qj, u[k]))));
        }
    }
    for (int i = 0; i < n; ++i) d[i] = a[i][i];
    e[0] = zero();
}

// d[k] of every lane's own k (k per lane in `at`); lanes whose k lies outside 0..n-1 get 0.
MSM_AVX2_INLINE V gather(const V* v, VI at, int n) {
    V out = zero();
    for (int k = 0; k < n; ++k) out = pick(maskOf(lanesEqual(at, k)), v[k], out);
    return out;
}

// Implicit-shift QL, eigenvalues only. failed receives all ones in the lanes that ran out of
// iterations (their d is left where the one-problem code leaves it).
template <int Order>
MSM_AVX2_INLINE VI qlLanes(int order, V* d, V* e) {
    const int n = Order > 0 ? Order : order;
    for (int i = 1; i < n; ++i) e[i - 1] = e[i];
    e[n - 1] = zero();
    VI l = _mm256_setzero_si256();
    VI iterations = _mm256_setzero_si256();
    VI done = _mm256_setzero_si256();
    VI failed = _mm256_setzero_si256();
    const VI allOnes = _mm256_set1_epi32(-1);
    for (;;) {
        // Negligible couplings; d and e do not change while lanes move on to their next l.
        V negligible[kMaxBatchOrder];
        for (int k = 0; k + 1 < n; ++k) {
            const V dd = add(absolute(d[k]), absolute(d[k + 1]));
            negligible[k] = _mm256_cmp_ps(add(absolute(e[k]), dd), dd, _CMP_EQ_OQ);
        }
        VI m;
        for (;;) {
            m = _mm256_set1_epi32(n - 1);
            for (int k = n - 2; k >= 0; --k) {
                const VI reached = _mm256_cmpgt_epi32(_mm256_set1_epi32(k + 1), l);  // k >= l
                const VI hit = _mm256_and_si256(_mm256_castps_si256(negligible[k]), reached);
                m = _mm256_blendv_epi8(m, _mm256_set1_epi32(k), hit);
            }
            const VI split = _mm256_andnot_si256(done, _mm256_cmpeq_epi32(m, l));
            if (noneI(split)) break;
            l = _mm256_sub_epi32(l, split);
            iterations = _mm256_andnot_si256(split, iterations);
            done = _mm256_or_si256(done, lanesEqual(l, n));
        }
        VI active = _mm256_xor_si256(done, allOnes);
        iterations = _mm256_sub_epi32(iterations, active);
        const VI over = _mm256_and_si256(
            active, _mm256_cmpgt_epi32(iterations, _mm256_set1_epi32(kQlIterationLimit)));
        failed = _mm256_or_si256(failed, over);
        done = _mm256_or_si256(done, over);
        active = _mm256_andnot_si256(over, active);
        if (noneI(active)) break;

        // The chase runs from the highest m - 1 of the active lanes down to their lowest l.
        alignas(32) int lLane[kLanes];
        alignas(32) int mLane[kLanes];
        alignas(32) int activeLane[kLanes];
        _mm256_store_si256(reinterpret_cast<VI*>(lLane), l);
        _mm256_store_si256(reinterpret_cast<VI*>(mLane), m);
        _mm256_store_si256(reinterpret_cast<VI*>(activeLane), active);
        int top = -1;
        int bottom = n;
        for (int lane = 0; lane < kLanes; ++lane) {
            if (activeLane[lane] == 0) continue;
            top = std::max(top, mLane[lane] - 1);
            bottom = std::min(bottom, lLane[lane]);
        }

        const VI l1 = _mm256_add_epi32(l, _mm256_set1_epi32(1));
        const V dl = gather(d, l, n);
        const V dl1 = gather(d, l1, n);
        const V el = gather(e, l, n);
        const V dm = gather(d, m, n);
        // Shift: the eigenvalue of the leading 2 x 2 block nearer to d[l].
        V g = div(sub(dl1, dl), mul(splat(2.0f), el));
        V r = hypotenuse(g, splat(1.0f));
        g = add(sub(dm, dl), div(el, add(g, copySign(r, g))));
        V s = splat(1.0f);
        V c = splat(1.0f);
        V p = zero();
        V live = maskOf(active);
        for (int i = top; i >= bottom; --i) {
            const VI index = _mm256_set1_epi32(i);
            // l <= i < m
            const VI inChase =
                _mm256_andnot_si256(_mm256_cmpgt_epi32(l, index), _mm256_cmpgt_epi32(m, index));
            V step = _mm256_and_ps(live, maskOf(inChase));
            if (none(step)) continue;
            const V f = mul(s, e[i]);
            const V b = mul(c, e[i]);
            r = hypotenuse(f, g);
            e[i + 1] = pick(step, r, e[i + 1]);
            const V underflow = _mm256_and_ps(step, _mm256_cmp_ps(r, zero(), _CMP_EQ_OQ));
            if (!none(underflow)) {
                // The block has split at i in these lanes: deflate and start over.
                d[i + 1] = pick(underflow, sub(d[i + 1], p), d[i + 1]);
                for (int k = 0; k < n; ++k)
                    e[k] = pick(_mm256_and_ps(underflow, maskOf(lanesEqual(m, k))), zero(), e[k]);
                live = _mm256_andnot_ps(underflow, live);
                step = _mm256_andnot_ps(underflow, step);
            }
            const V inverseR = div(splat(1.0f), r);
            s = pick(step, mul(f, inverseR), s);
            c = pick(step, mul(g, inverseR), c);
            const V gi = sub(d[i + 1], p);
            const V ri = add(mul(sub(d[i], gi), s), mul(mul(splat(2.0f), c), b));
            const V pi = mul(s, ri);
            d[i + 1] = pick(step, add(gi, pi), d[i + 1]);
            g = pick(step, sub(mul(c, ri), b), g);
            p = pick(step, pi, p);
        }
        for (int k = 0; k < n; ++k) {
            const V atL = _mm256_and_ps(live, maskOf(lanesEqual(l, k)));
            d[k] = pick(atL, sub(d[k], p), d[k]);
            e[k] = pick(atL, g, e[k]);
        }
        for (int k = 0; k < n; ++k)
            e[k] = pick(_mm256_and_ps(live, maskOf(lanesEqual(m, k))), zero(), e[k]);
    }
    return failed;
}

// Selection sort in which an equal value replaces the current maximum.
template <int Order>
MSM_AVX2_INLINE void sortLanes(int order, V* d) {
    const int n = Order > 0 ? Order : order;
    for (int k = 0; k < n - 1; ++k) {
        V top = d[k];
        VI best = _mm256_set1_epi32(k);
        for (int j = k + 1; j < n; ++j) {
            const V ge = _mm256_cmp_ps(d[j], top, _CMP_GE_OQ);
            top = pick(ge, d[j], top);
            best = _mm256_blendv_epi8(best, _mm256_set1_epi32(j), _mm256_castps_si256(ge));
        }
        const V old = d[k];
        for (int j = k + 1; j < n; ++j) d[j] = pick(maskOf(lanesEqual(best, j)), old, d[j]);
        d[k] = top;
    }
}

// Up to eight problems; the lanes beyond count solve a zero matrix and are not written.
template <int Order>
MSM_AVX2 void solveLanes(int order, int count, const float* const* matrices,
                         float* const* eigenvalues, int* results) {
    const int n = Order > 0 ? Order : order;
    Block a;
    alignas(32) float lane[kLanes];
    for (int i = 0; i < n; ++i) {
        for (int k = 0; k <= i; ++k) {
            for (int p = 0; p < kLanes; ++p) lane[p] = p < count ? matrices[p][i * n + k] : 0.0f;
            a[i][k] = _mm256_load_ps(lane);
        }
    }
    V d[kMaxBatchOrder];
    V e[kMaxBatchOrder];
    reduceLanes<Order>(n, a, d, e);
    const VI failed = qlLanes<Order>(n, d, e);
    sortLanes<Order>(n, d);
    for (int k = 0; k < n; ++k) {
        _mm256_store_ps(lane, d[k]);
        for (int p = 0; p < count; ++p) eigenvalues[p][k] = lane[p];
    }
    alignas(32) int fail[kLanes];
    _mm256_store_si256(reinterpret_cast<VI*>(fail), failed);
    for (int p = 0; p < count; ++p) results[p] = fail[p] != 0 ? 1 : 0;
}

bool cpuHasAvx2() {
    static const bool has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return has;
}

#endif  // MSM_EIGEN_BATCH_X86

}  // namespace

int symmetricEigenvaluesBatch(int n, int count, const float* const* matrices,
                              float* const* eigenvalues, int* results) {
    if (n < 0 || n > kMaxBatchOrder || count < 0) return -1;
    if (n == 0) {
        for (int p = 0; p < count; ++p) results[p] = 0;
        return 0;
    }
#ifdef MSM_EIGEN_BATCH_X86
    if (cpuHasAvx2()) {
        for (int first = 0; first < count; first += kLanes) {
            const int lanes = std::min(kLanes, count - first);
            if (n == 7)
                solveLanes<7>(n, lanes, matrices + first, eigenvalues + first, results + first);
            else
                solveLanes<0>(n, lanes, matrices + first, eigenvalues + first, results + first);
        }
        return 0;
    }
#endif
    solveEachAlone(n, count, matrices, eigenvalues, results);
    return 0;
}

int symmetricEigenvaluesEach(int n, int count, const float* const* matrices,
                             float* const* eigenvalues, int* results) {
    if (n < 0 || n > kMaxBatchOrder || count < 0) return -1;
    solveEachAlone(n, count, matrices, eigenvalues, results);
    return 0;
}

}  // namespace msm
