// Householder tridiagonalisation, implicit QL and the descending sort. Each step is one template
// with the eigenvector work switched off at compile time for the eigenvalues-only entry: both
// variants then run the very same arithmetic on d and e, which is what makes their eigenvalues
// identical bit for bit.
#include "numeric/eigen_steps.h"

#include <cmath>
#include <utility>

#include "numeric/eigen_kernels.h"

#if defined(__GNUC__)
#define MSM_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define MSM_ALWAYS_INLINE inline
#endif

namespace msm {
namespace {

constexpr int kQlIterationLimit = 300;

// Reflects rows 0..i-1 of a (the lower triangle only) with the Householder vector built from row i,
// leaving the vector in row i and its scale h (0 when no reflection was needed) as the result.
// e[0..i-1] serve as scratch for the product A·u.
template <typename T>
MSM_ALWAYS_INLINE T reflectLeadingBlock(int i, T** a, T* e) {
    const int len = i;  // elements 0..i-1 of row i are reduced to one
    T* u = a[i];
    T scale = 0;
    for (int k = 0; k < len; ++k) scale += std::fabs(u[k]);
    if (len == 1 || scale == T(0)) {
        e[i] = u[len - 1];
        return 0;
    }
    T h = 0;
    const T inverseScale = T(1) / scale;
    for (int k = 0; k < len; ++k) {
        u[k] *= inverseScale;
        h += u[k] * u[k];
    }
    const T f = u[len - 1];
    const T g = f >= T(0) ? -std::sqrt(h) : std::sqrt(h);
    e[i] = scale * g;
    h -= f * g;
    u[len - 1] = f - g;

    // p = A·u / h, reading the lower triangle row by row.
    for (int j = 0; j < len; ++j) e[j] = 0;
    for (int j = 0; j < len; ++j) {
        const T* aj = a[j];
        const T uj = u[j];
        for (int k = 0; k < j; ++k) e[k] += aj[k] * uj;
        e[j] += rowDot(aj, u, j + 1);
    }
    T up = 0;
    const T inverseH = T(1) / h;
    for (int j = 0; j < len; ++j) {
        e[j] *= inverseH;
        up += e[j] * u[j];
    }
    // q = p - (uᵀp / 2h)·u; A <- A - u·qᵀ - q·uᵀ.
    const T half = up / (h + h);
    for (int j = 0; j < len; ++j) e[j] -= half * u[j];
    for (int j = 0; j < len; ++j) {
        T* aj = a[j];
        const T uj = u[j];
        const T qj = e[j];
        for (int k = 0; k <= j; ++k) aj[k] -= uj * e[k] + qj * u[k];
    }
    return h;
}

// Order: the matrix order, or 0 to take it from the argument. A fixed order lets the compiler
// unroll the small problems of the similarity; the arithmetic and its order are the same either
// way, so both give identical results.
template <typename T, bool kVectors, int Order = 0>
void reduce(int order, T** a, T* d, T* e) {
    const int n = Order > 0 ? Order : order;
    if (n <= 0) return;
    for (int i = n - 1; i >= 1; --i) d[i] = reflectLeadingBlock(i, a, e);
    d[0] = 0;
    e[0] = 0;
    // Build Qᵀ = P1·P2·…·P(n-1) from the inside out; the leading i x i block holds the product so
    // far, and each reflection acts on its rows: row <- row - (row·u / h)·u.
    for (int i = 0; i < n; ++i) {
        T* ai = a[i];
        if constexpr (kVectors) {
            const T h = d[i];
            d[i] = ai[i];
            if (h != T(0)) {
                for (int r = 0; r < i; ++r) {
                    T* ar = a[r];
                    const T s = rowDot(ar, ai, i) / h;
                    for (int k = 0; k < i; ++k) ar[k] -= s * ai[k];
                }
            }
            for (int k = 0; k < i; ++k) {
                ai[k] = 0;
                a[k][i] = 0;
            }
            ai[i] = 1;
        } else {
            d[i] = ai[i];
        }
    }
}

template <typename T, bool kVectors, int Order = 0>
int ql(int order, T* d, T* e, T** z) {
    const int n = Order > 0 ? Order : order;
    if (n <= 0) return 0;
    for (int i = 1; i < n; ++i) e[i - 1] = e[i];
    e[n - 1] = 0;
    for (int l = 0; l < n; ++l) {
        int iterations = 0;
        for (;;) {
            int m = l;
            for (; m < n - 1; ++m) {
                const T dd = std::fabs(d[m]) + std::fabs(d[m + 1]);
                if (std::fabs(e[m]) + dd == dd) break;
            }
            if (m == l) break;
            if (++iterations > kQlIterationLimit) return 1;

            // Shift: the eigenvalue of the leading 2 x 2 block nearer to d[l].
            T g = (d[l + 1] - d[l]) / (T(2) * e[l]);
            T r = hypotenuse(g, T(1));
            g = d[m] - d[l] + e[l] / (g + std::copysign(r, g));
            T s = 1;
            T c = 1;
            T p = 0;
            bool restarted = false;
            for (int i = m - 1; i >= l; --i) {
                const T f = s * e[i];
                const T b = c * e[i];
                r = hypotenuse(f, g);
                e[i + 1] = r;
                if (r == T(0)) {
                    // The chase underflowed: the block has split at i; deflate and start over.
                    d[i + 1] -= p;
                    e[m] = 0;
                    restarted = true;
                    break;
                }
                const T inverseR = T(1) / r;
                s = f * inverseR;
                c = g * inverseR;
                g = d[i + 1] - p;
                r = (d[i] - g) * s + T(2) * c * b;
                p = s * r;
                d[i + 1] = g + p;
                g = c * r - b;
                if constexpr (kVectors) rotateRows(z[i + 1], z[i], n, c, s);
            }
            if (restarted) continue;
            d[l] -= p;
            e[l] = g;
            e[m] = 0;
        }
    }
    return 0;
}

// a may be null when only the eigenvalues are wanted.
template <typename T, int Order = 0>
void sortGreaterOrEqual(int order, T* d, T** a) {
    const int n = Order > 0 ? Order : order;
    for (int k = 0; k < n - 1; ++k) {
        int best = k;
        T top = d[k];
        for (int j = k + 1; j < n; ++j) {
            if (d[j] >= top) {
                best = j;
                top = d[j];
            }
        }
        if (best != k) {
            std::swap(d[k], d[best]);
            if (a != nullptr) std::swap(a[k], a[best]);
        }
    }
}

}  // namespace

void tridiagonalize(int n, float** a, float* d, float* e) {
    reduce<float, true>(n, a, d, e);
}
void tridiagonalize(int n, double** a, double* d, double* e) {
    reduce<double, true>(n, a, d, e);
}

int qlImplicit(int n, float* d, float* e, float** z) {
    return ql<float, true>(n, d, e, z);
}
int qlImplicit(int n, double* d, double* e, double** z) {
    return ql<double, true>(n, d, e, z);
}

void sortDescending(int n, float* d, float** a) {
    sortGreaterOrEqual(n, d, a);
}
void sortDescending(int n, double* d, double** a) {
    sortGreaterOrEqual(n, d, a);
}

namespace {

template <int Order>
int eigenvaluesOnly(int n, float** a, float* d, float* e) {
    reduce<float, false, Order>(n, a, d, e);
    const int result = ql<float, false, Order>(n, d, e, static_cast<float**>(nullptr));
    sortGreaterOrEqual<float, Order>(n, d, static_cast<float**>(nullptr));
    return result;
}

}  // namespace

int symmetricEigenvalues(int n, float** a, float* d, float* e) {
    // The recogniser's default basis count has its own unrolled copy.
    if (n == 7) return eigenvaluesOnly<7>(n, a, d, e);
    return eigenvaluesOnly<0>(n, a, d, e);
}

}  // namespace msm
