// Small row kernels shared by the symmetric solvers. Every solver keeps its basis vectors as rows,
// so the hot loops (accumulating reflections, applying rotations) run along contiguous memory.
#ifndef MSMFACE_NUMERIC_EIGEN_KERNELS_H
#define MSMFACE_NUMERIC_EIGEN_KERNELS_H

#include <cmath>

namespace msm {

// sqrt(a^2 + b^2) without overflow or destructive underflow of the squares.
template <typename T>
inline T hypotenuse(T a, T b) {
    a = std::fabs(a);
    b = std::fabs(b);
    if (a > b) {
        T r = b / a;
        return a * std::sqrt(T(1) + r * r);
    }
    if (b == T(0)) return T(0);
    T r = a / b;
    return b * std::sqrt(T(1) + r * r);
}

// Inside this range the float squares neither overflow nor lose precision to underflow, so the
// hypotenuse is one float square root: it sits on the dependency chain of every rotation of the
// 7 x 7 similarity problems. Outside it, the squares are formed in double.
template <>
inline float hypotenuse(float a, float b) {
    const float x = std::fabs(a);
    const float y = std::fabs(b);
    const float big = x > y ? x : y;
    if (big < 1e18f && big > 1e-18f) return std::sqrt(x * x + y * y);
    const double dx = x;
    const double dy = y;
    return static_cast<float>(std::sqrt(dx * dx + dy * dy));
}

// Dot product of two rows with four independent partial sums: the serial sum is bound by the
// latency of one addition per element, which dominates the 256-wide reductions.
template <typename T>
inline T rowDot(const T* x, const T* y, int n) {
    T s0 = 0, s1 = 0, s2 = 0, s3 = 0;
    int k = 0;
    for (; k + 4 <= n; k += 4) {
        s0 += x[k] * y[k];
        s1 += x[k + 1] * y[k + 1];
        s2 += x[k + 2] * y[k + 2];
        s3 += x[k + 3] * y[k + 3];
    }
    for (; k < n; ++k) s0 += x[k] * y[k];
    return (s0 + s1) + (s2 + s3);
}

// Plane rotation of two rows: x <- c x + s y, y <- c y - s x.
template <typename T>
inline void rotateRows(T* __restrict x, T* __restrict y, int n, T c, T s) {
    for (int k = 0; k < n; ++k) {
        T xk = x[k];
        T yk = y[k];
        x[k] = c * xk + s * yk;
        y[k] = c * yk - s * xk;
    }
}

}  // namespace msm

#endif  // MSMFACE_NUMERIC_EIGEN_KERNELS_H
