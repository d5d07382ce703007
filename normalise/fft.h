// Radix-2 complex FFT with the zero frequency in the middle of the spectrum.
#ifndef MSMFACE_NORMALISE_FFT_H
#define MSMFACE_NORMALISE_FFT_H

#include <vector>

namespace msm {

// Transforms of one length n (a power of two, 8 or more). Forward and Inverse work in place on
// separate real and imaginary arrays and negate every odd-indexed element before and after the
// transform, so that the zero frequency lies at index n/2. Inverse undoes Forward exactly (it
// includes the 1/n), up to rounding.
//
// Several vectors go through at once: element j of vector b is at index j * stride + b, for
// b < count. (stride 1, count 1: one contiguous vector; stride n, count n: the columns of a
// row-major n x n plane.)
//
// Threads: the tables are read-only after construction; one object may serve many threads.
class Fft {
  public:
    explicit Fft(int n);

    int size() const { return n_; }
    void Forward(float* re, float* im, int stride = 1, int count = 1) const;
    void Inverse(float* re, float* im, int stride = 1, int count = 1) const;

    // sin(2 pi i / n) for i = 0 ... n + n/4 - 1; the cosine of i is entry i + n/4.
    const std::vector<float>& sineTable() const { return sine_; }

  private:
    void Transform(float* re, float* im, int stride, int count, bool inverse) const;
    void NegateOdd(float* re, float* im, int stride, int count) const;

    int n_;
    std::vector<float> sine_;
    std::vector<int> bitReversed_;
};

// Forward transform of a row-major n x n complex plane: every row, then every column.
void Forward2d(const Fft& fft, float* re, float* im);
// The inverse of Forward2d.
void Inverse2d(const Fft& fft, float* re, float* im);

}  // namespace msm

#endif  // MSMFACE_NORMALISE_FFT_H
