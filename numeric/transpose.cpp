// Square and rectangular transposition.
#include <msmface/numeric.h>

float mattrans(int n, float** a, float** b) {
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) b[i][j] = a[j][i];
    // kept: this has always returned 0.0 rather than the trace its shape suggests, and callers
    // were written against that.
    return 0.0f;
}

void mattrans_g(float** a, int rows, int cols, float** b) {
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) b[j][i] = a[i][j];
}
