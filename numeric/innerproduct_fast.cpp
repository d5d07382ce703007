// Dot product with the leading n mod 5 products first, then groups of five summed on their own.
#include <msmface/numeric.h>

float innerproductFast(int n, float* x, float* y) {
    float s = 0.0f;
    const int lead = n > 0 ? n % 5 : 0;
    int i = 0;
    for (; i < lead; ++i) s += x[i] * y[i];
    for (; i < n; i += 5) {
        s += ((((x[i] * y[i] + x[i + 1] * y[i + 1]) + x[i + 2] * y[i + 2]) + x[i + 3] * y[i + 3]) +
              x[i + 4] * y[i + 4]);
    }
    return s;
}
