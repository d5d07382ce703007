// Tridiagonalisation followed by shifted QR sweeps from the bottom up, in float (`eigen`) and in
// double with tiny values cleared first (`puf_eigen`).
#include <cmath>
#include <cstdio>
#include <utility>

#include <msmface/numeric.h>

#include "numeric/diagnostics.h"
#include "numeric/eigen_kernels.h"
#include "numeric/eigen_steps.h"

namespace {

constexpr int kSweepLimit = 1000;
constexpr double kDeflation = 1e-6;
constexpr double kTiny = 1e-20;

enum Status { kConverged = 0, kSweepLimitReached = 1, kNegativeRoot = 2 };

// Whether e[k] still couples row k to the row above it. A NaN counts as coupled, so that broken
// input runs into the sweep limit instead of passing for converged.
template <typename T>
bool coupled(const T* d, const T* e, int k) {
    double bound = std::fabs(double(d[k]));
    if (k > 0) bound += std::fabs(double(d[k - 1]));
    return !(std::fabs(double(e[k])) <= kDeflation * bound);
}

// One implicit QR step with the given shift on the unreduced block lo..hi, chasing the bulge down
// with plane rotations that are applied to the rows of z as well.
template <typename T>
void sweepBlock(int n, int lo, int hi, T shift, T* d, T* e, T** z) {
    T x = d[lo] - shift;
    T y = e[lo + 1];
    for (int k = lo; k < hi; ++k) {
        const T r = msm::hypotenuse(x, y);
        T c = 1;
        T s = 0;
        if (r != T(0)) {
            c = x / r;
            s = y / r;
        }
        if (k > lo) e[k] = r;
        const T dk = d[k];
        const T dk1 = d[k + 1];
        const T ek1 = e[k + 1];
        const T cs = c * s;
        d[k] = c * c * dk + T(2) * cs * ek1 + s * s * dk1;
        d[k + 1] = s * s * dk - T(2) * cs * ek1 + c * c * dk1;
        e[k + 1] = cs * (dk1 - dk) + (c * c - s * s) * ek1;
        if (k + 1 < hi) {
            x = e[k + 1];
            y = s * e[k + 2];
            e[k + 2] *= c;
        }
        msm::rotateRows(z[k], z[k + 1], n, c, s);
    }
}

struct SweepOutcome {
    Status status = kConverged;
    bool negativeRow = false;
};

// Deflates from the bottom: each trailing eigenvalue is swept until its coupling is negligible.
// negativeRowMessage, when given, is printed every time the search for the top of the unreduced
// block runs past row 0 (only a NaN on the diagonal can do that, since e[0] is 0).
template <typename T>
SweepOutcome sweepTridiagonal(int n, T* d, T* e, T** z, const char* negativeRowMessage) {
    SweepOutcome out;
    for (int h = n - 1; h >= 1; --h) {
        int sweeps = 0;
        while (coupled(d, e, h)) {
            if (++sweeps > kSweepLimit) {
                out.status = kSweepLimitReached;
                return out;
            }
            int lo = h - 1;
            while (lo >= 0 && coupled(d, e, lo)) --lo;
            if (lo < 0) {
                out.negativeRow = true;
                if (negativeRowMessage != nullptr) msm::diagnose("%s", negativeRowMessage);
                lo = 0;
            }
            // Shift: the eigenvalue of the trailing 2 x 2 block nearer to d[h].
            const T w = (d[h - 1] - d[h]) / T(2);
            const T t = e[h] * e[h];
            const T radicand = w * w + t;
            if (radicand < T(0)) {
                out.status = kNegativeRoot;
                return out;
            }
            const T s = w < T(0) ? -std::sqrt(radicand) : std::sqrt(radicand);
            const T denom = w + s;
            const T shift = denom != T(0) ? d[h] - t / denom : d[h];
            sweepBlock(n, lo, h, shift, d, e, z);
        }
    }
    return out;
}

// Selection sort where only a strictly greater value replaces the maximum: equal eigenvalues keep
// their order.
template <typename T>
void sortFirstMaximumWins(int n, T* d, T** a) {
    for (int k = 0; k < n - 1; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i) {
            if (d[i] > d[best]) best = i;
        }
        if (best != k) {
            std::swap(d[k], d[best]);
            std::swap(a[k], a[best]);
        }
    }
}

void clearTiny(double* v, int count) {
    for (int i = 0; i < count; ++i) {
        if (std::fabs(v[i]) < kTiny) v[i] = 0.0;
    }
}

}  // namespace

int eigen(int n, float** a, float* d, float* e) {
    msm::tridiagonalize(n, a, d, e);
    const SweepOutcome out = sweepTridiagonal(n, d, e, a, nullptr);
    // A run past row 0 counts as non-convergence. The status is both printed and returned, so a
    // host that only checks the result still sees the failure.
    int status = out.status;
    if (status == kConverged && out.negativeRow) status = kSweepLimitReached;
    sortFirstMaximumWins(n, d, a);
    if (status == kSweepLimitReached) msm::diagnose("J < 0 ERROR :eigen");
    if (status == kNegativeRoot) msm::diagnose("Sqrt  ERROR :eigen");
    return status;
}

int puf_eigen(int n, double** a, double* d, double* e) {
    msm::tridiagonalize(n, a, d, e);
    // Values this small are rounding residue of the reduction; clearing them lets rank-deficient
    // autocorrelations deflate instead of chasing noise. The clean-up stops at e[n-2] on purpose:
    // kept, so that existing dictionaries are reproduced exactly.
    if (n > 0) {
        clearTiny(e, n - 1);
        clearTiny(d, n);
        for (int i = 0; i < n; ++i) clearTiny(a[i], n);
        e[0] = 0.0;
    }
    const SweepOutcome out = sweepTridiagonal(n, d, e, a, "ERROR: PufEigen ");
    sortFirstMaximumWins(n, d, a);
    return out.status;
}
