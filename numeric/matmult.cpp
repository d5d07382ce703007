// Matrix product in float, each element summed from k = 0 upward.
#include <cstdio>

#include <msmface/numeric.h>

#include "numeric/diagnostics.h"

void matmult(float** a, int aRows, int aCols, float** b, int bRows, int bCols, float** c) {
    if (aRows < 1) return;
    // kept: a mismatch is reported, not acted upon; the product is formed over aCols terms
    // regardless, which is what callers of this routine have always got.
    if (aCols != bRows) msm::diagnose("You might miss.\n");
    for (int i = 0; i < aRows; ++i) {
        for (int j = 0; j < bCols; ++j) {
            float s = 0.0f;
            for (int k = 0; k < aCols; ++k) s += a[i][k] * b[k][j];
            c[i][j] = s;
        }
    }
}
