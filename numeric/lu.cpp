// LU decomposition with scaled partial pivoting, and the inverse built on it. Everything is
// accumulated in float in a fixed order, so results are reproducible bit for bit.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <msmface/numeric.h>

#include "numeric/diagnostics.h"

float lu(int n, float** a, int* ip) {
    if (n < 1) return 1.0f;  // the empty product
    float* weight = new_vector(n);
    // Without the weights the decomposition still goes on, pivoting on plain magnitudes: a caller
    // that ignores the message still gets a correct determinant and factors.
    auto weightOf = [weight](int row) { return weight != nullptr ? weight[row] : 1.0f; };

    for (int k = 0; k < n; ++k) {
        ip[k] = k;
        float u = 0.0f;
        for (int j = 0; j < n; ++j) {
            float t = std::fabs(a[k][j]);
            if (t > u) u = t;
        }
        if (u == 0.0f) {
            free_vector(weight);
            return 0.0f;
        }
        if (weight != nullptr) weight[k] = 1.0f / u;
    }

    float det = 1.0f;
    for (int k = 0; k < n; ++k) {
        // The first of equal scaled maxima wins, so ties keep the natural row order.
        float u = -1.0f;
        int j = k;
        for (int i = k; i < n; ++i) {
            int ii = ip[i];
            float t = std::fabs(a[ii][k]) * weightOf(ii);
            if (t > u) {
                u = t;
                j = i;
            }
        }
        int ik = ip[j];
        if (j != k) {
            ip[j] = ip[k];
            ip[k] = ik;
            det = -det;
        }
        u = a[ik][k];
        det *= u;
        if (u == 0.0f) break;
        for (int i = k + 1; i < n; ++i) {
            int ii = ip[i];
            float t = (a[ii][k] /= u);
            for (int jj = k + 1; jj < n; ++jj) a[ii][jj] -= t * a[ik][jj];
        }
    }
    free_vector(weight);
    return det;
}

float matinv(int n, float** a, float** a_inv) {
    if (n < 1) return 1.0f;  // nothing to invert; the determinant of an empty matrix
    int* ip = static_cast<int*>(std::malloc(static_cast<std::size_t>(n) * sizeof(int)));
    if (ip == nullptr) {
        msm::diagnose("\n%s\n", "cannot malloc");
        // Nothing can be computed without the permutation; a_inv is left as a singular matrix
        // leaves it.
        return 0.0f;
    }
    float det = lu(n, a, ip);
    if (det == 0.0f) {
        std::free(ip);
        return 0.0f;
    }
    for (int k = 0; k < n; ++k) {
        for (int i = 0; i < n; ++i) {
            int ii = ip[i];
            float t = ii == k ? 1.0f : 0.0f;
            for (int j = 0; j < i; ++j) t -= a[ii][j] * a_inv[j][k];
            a_inv[i][k] = t;
        }
        for (int i = n - 1; i >= 0; --i) {
            int ii = ip[i];
            float t = a_inv[i][k];
            for (int j = i + 1; j < n; ++j) t -= a[ii][j] * a_inv[j][k];
            a_inv[i][k] = t / a[ii][i];
        }
    }
    std::free(ip);
    return det;
}
