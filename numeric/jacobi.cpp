// Cyclic Jacobi rotations on the upper triangle, the eigenvectors gathered as the rows of w.
#include <cmath>
#include <utility>

#include <msmface/numeric.h>

#include "numeric/eigen_kernels.h"

namespace {

constexpr int kSweepLimit = 100;
constexpr double kRelativeTolerance = 1e-12;
constexpr double kNegligible = 1e-20;

double upperSquares(int n, double** a) {
    double off = 0.0;
    for (int j = 0; j < n; ++j) {
        for (int k = j + 1; k < n; ++k) off += a[j][k] * a[j][k];
    }
    return off;
}

// The element (i, j) of the symmetric matrix as stored in the upper triangle.
double& upper(double** a, int i, int j) {
    return i < j ? a[i][j] : a[j][i];
}

// Annihilates a[j][k] (j < k) with one rotation and carries it through w.
void annihilate(int n, double** a, double** w, int j, int k) {
    const double ajk = a[j][k];
    double t = (a[k][k] - a[j][j]) / (2.0 * ajk);
    const double root = std::sqrt(t * t + 1.0);
    t = t >= 0.0 ? 1.0 / (t + root) : 1.0 / (t - root);
    const double c = 1.0 / std::sqrt(t * t + 1.0);
    const double s = t * c;
    t = t * ajk;
    a[j][j] -= t;
    a[k][k] += t;
    a[j][k] = 0.0;
    for (int r = 0; r < n; ++r) {
        if (r == j || r == k) continue;
        double& arj = upper(a, r, j);
        double& ark = upper(a, r, k);
        const double x = arj;
        const double y = ark;
        arj = c * x - s * y;
        ark = s * x + c * y;
    }
    msm::rotateRows(w[k], w[j], n, c, s);
}

}  // namespace

int jacobi(int n, double** a, double** w) {
    for (int i = 0; i < n; ++i) {
        for (int k = 0; k < n; ++k) w[i][k] = i == k ? 1.0 : 0.0;
    }
    double diagonal = 0.0;
    for (int i = 0; i < n; ++i) diagonal += a[i][i] * a[i][i];
    // Kept literal: a zero matrix has tolerance 0, never passes the strict test and reports 1.
    const double tolerance = kRelativeTolerance * (diagonal / 2.0 + upperSquares(n, a));

    bool converged = false;
    for (int sweep = 0; sweep < kSweepLimit && !converged; ++sweep) {
        if (upperSquares(n, a) < tolerance) {
            converged = true;
            break;
        }
        for (int j = 0; j < n - 1; ++j) {
            for (int k = j + 1; k < n; ++k) {
                if (std::fabs(a[j][k]) >= kNegligible) annihilate(n, a, w, j, k);
            }
        }
    }
    if (!converged) return 1;

    for (int k = 0; k < n - 1; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i) {
            if (a[i][i] > a[best][best]) best = i;
        }
        if (best != k) {
            std::swap(a[k][k], a[best][best]);
            std::swap(w[k], w[best]);
        }
    }
    return 0;
}
