#include "normalise/fft.h"

#include <cmath>
#include <utility>

namespace msm {

namespace {

// sin(2 pi i / n) for i = 0 ... n + n/4 - 1. The first octant comes from a rotation by
// theta = 2 pi / n, written with alpha = 2 sin^2(pi / n) so that the step stays accurate when
// theta is small; the other octants follow by symmetry.
std::vector<float> MakeSineTable(int n) {
    const int quarter = n / 4, half = n / 2, eighth = n / 8;
    std::vector<float> table(static_cast<size_t>(n + quarter));
    const double s1 = std::sin(3.14159265358979323846 / n);
    const double alpha = 2.0 * s1 * s1;
    const double beta = std::sqrt(alpha * (2.0 - alpha));  // sin(theta)
    double c = 1.0, s = 0.0;
    table[0] = 0.0f;
    table[quarter] = 1.0f;
    for (int i = 1; i < eighth; ++i) {
        const double nextC = c - (alpha * c + beta * s);
        const double nextS = s - (alpha * s - beta * c);
        c = nextC;
        s = nextS;
        table[i] = static_cast<float>(s);
        table[quarter - i] = static_cast<float>(c);
    }
    // The octant boundary is sqrt(1/2) exactly in float, not the recurrence's drifted value.
    table[eighth] = 0.70710677f;
    for (int i = 0; i < quarter; ++i) table[half - i] = table[i];
    for (int i = 0; i < half + quarter; ++i) table[half + i] = -table[i];
    return table;
}

}  // namespace

Fft::Fft(int n) : n_(n), sine_(MakeSineTable(n)), bitReversed_(static_cast<size_t>(n)) {
    int bits = 0;
    while ((1 << bits) < n) ++bits;
    for (int i = 0; i < n; ++i) {
        int r = 0;
        for (int b = 0; b < bits; ++b)
            if (i & (1 << b)) r |= 1 << (bits - 1 - b);
        bitReversed_[static_cast<size_t>(i)] = r;
    }
}

void Fft::NegateOdd(float* re, float* im, int stride, int count) const {
    for (int j = 1; j < n_; j += 2) {
        float* r = re + static_cast<size_t>(j) * stride;
        float* m = im + static_cast<size_t>(j) * stride;
        for (int b = 0; b < count; ++b) {
            r[b] = -r[b];
            m[b] = -m[b];
        }
    }
}

void Fft::Transform(float* re, float* im, int stride, int count, bool inverse) const {
    for (int i = 0; i < n_; ++i) {
        const int j = bitReversed_[static_cast<size_t>(i)];
        if (j <= i) continue;
        float* ri = re + static_cast<size_t>(i) * stride;
        float* rj = re + static_cast<size_t>(j) * stride;
        float* mi = im + static_cast<size_t>(i) * stride;
        float* mj = im + static_cast<size_t>(j) * stride;
        for (int b = 0; b < count; ++b) {
            std::swap(ri[b], rj[b]);
            std::swap(mi[b], mj[b]);
        }
    }
    const int quarter = n_ / 4;
    const float sign = inverse ? 1.0f : -1.0f;  // forward kernel exp(-2 pi i jk / n)
    for (int half = 1; half < n_; half *= 2) {
        const int tableStep = n_ / (2 * half);
        for (int k = 0; k < half; ++k) {
            const float wr = sine_[static_cast<size_t>(k * tableStep + quarter)];
            const float wi = sign * sine_[static_cast<size_t>(k * tableStep)];
            for (int start = k; start < n_; start += 2 * half) {
                float* ar = re + static_cast<size_t>(start) * stride;
                float* ai = im + static_cast<size_t>(start) * stride;
                float* br = re + static_cast<size_t>(start + half) * stride;
                float* bi = im + static_cast<size_t>(start + half) * stride;
                for (int b = 0; b < count; ++b) {
                    const float tr = wr * br[b] - wi * bi[b];
                    const float ti = wr * bi[b] + wi * br[b];
                    br[b] = ar[b] - tr;
                    bi[b] = ai[b] - ti;
                    ar[b] = ar[b] + tr;
                    ai[b] = ai[b] + ti;
                }
            }
        }
    }
    if (inverse) {
        const float scale = 1.0f / static_cast<float>(n_);  // a power of two: exact
        for (int j = 0; j < n_; ++j) {
            float* r = re + static_cast<size_t>(j) * stride;
            float* m = im + static_cast<size_t>(j) * stride;
            for (int b = 0; b < count; ++b) {
                r[b] *= scale;
                m[b] *= scale;
            }
        }
    }
}

void Fft::Forward(float* re, float* im, int stride, int count) const {
    NegateOdd(re, im, stride, count);
    Transform(re, im, stride, count, false);
    NegateOdd(re, im, stride, count);
}

void Fft::Inverse(float* re, float* im, int stride, int count) const {
    NegateOdd(re, im, stride, count);
    Transform(re, im, stride, count, true);
    NegateOdd(re, im, stride, count);
}

void Forward2d(const Fft& fft, float* re, float* im) {
    const int n = fft.size();
    for (int r = 0; r < n; ++r) fft.Forward(re + r * n, im + r * n);
    fft.Forward(re, im, n, n);
}

void Inverse2d(const Fft& fft, float* re, float* im) {
    const int n = fft.size();
    for (int r = 0; r < n; ++r) fft.Inverse(re + r * n, im + r * n);
    fft.Inverse(re, im, n, n);
}

}  // namespace msm
