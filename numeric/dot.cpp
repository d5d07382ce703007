// Float and 16-bit dot products and the Euclidean distance. Each routine fixes its own
// accumulation order: callers compare results bit for bit with those of earlier runs.
#include <cmath>
#include <cstdint>

#include <msmface/numeric.h>

float innerproduct(int n, float* x, float* y) {
    float s = 0.0f;
    for (int i = 0; i < n; ++i) s += x[i] * y[i];
    return s;
}

float innerproductFast(int n, float* x, float* y) {
    if (n < 1) return 0.0f;
    float s = 0.0f;
    int head = n % 5;
    for (int i = 0; i < head; ++i) s += x[i] * y[i];
    for (int i = head; i < n; i += 5) {
        float group = x[i] * y[i] + x[i + 1] * y[i + 1];
        group += x[i + 2] * y[i + 2];
        group += x[i + 3] * y[i + 3];
        group += x[i + 4] * y[i + 4];
        s += group;
    }
    return s;
}

int32_t innerproductShort(int n, short* x, short* y) {
    // Unsigned sums give the modulo-2^32 wrap without signed overflow.
    uint32_t even = 0;
    uint32_t odd = 0;
    int i = 0;
    for (; i + 1 < n; i += 2) {
        even += static_cast<uint32_t>(int32_t{x[i]} * y[i]);
        odd += static_cast<uint32_t>(int32_t{x[i + 1]} * y[i + 1]);
    }
    uint32_t s = even + odd;
    if (i < n) s += static_cast<uint32_t>(int32_t{x[i]} * y[i]);
    return static_cast<int32_t>(s);
}

float calclen(int n, float* x, float* y) {
    float s = 0.0f;
    for (int i = 0; i < n; ++i) {
        float d = x[i] - y[i];
        s += d * d;
    }
    return std::sqrt(s);
}
