// The filter chain that turns a normalised 64 x 64 face into a 32 x 32 map of
// illumination-invariant, contrast-normalised values of unit length.
#ifndef MSMFACE_NORMALISE_FILTER_PROCESSING_H
#define MSMFACE_NORMALISE_FILTER_PROCESSING_H

#include <memory>
#include <vector>

#include "normalise/fft.h"

namespace msm {

// exp(-k^2 / (2 sigma^2)) for k = -halfWidth ... halfWidth in single precision, not normalised
// (the centre tap is 1), and the radius actually used: the first k >= 0 whose tap falls below
// the threshold (halfWidth when none does).
struct GaussianKernel {
    float sigma = 0.0f;
    int halfWidth = 0;
    int radius = 0;
    std::vector<float> taps;  // 2 * halfWidth + 1 values, index k + halfWidth

    GaussianKernel() = default;
    GaussianKernel(float sigma, int halfWidth, float threshold);
    float tap(int k) const { return taps[static_cast<size_t>(k + halfWidth)]; }
};

// For a size x size plane: per pixel, 1 / (sum of the taps within the radius that land inside the
// row) for the horizontal pass, and inside the column for the vertical pass.
struct BorderMaps {
    int size = 0;
    std::vector<float> horizontal;
    std::vector<float> vertical;

    BorderMaps() = default;
    BorderMaps(const GaussianKernel& kernel, int size);
};

// Difference-of-Gaussians band-pass on a centred n x n grid (zero frequency at (n/2, n/2)),
// computed in double and stored as float: exp(-rho^2 / (2 b^2)) - exp(-rho^2 / (2 a^2)).
std::vector<float> DifferenceOfGaussians(int n, double a, double b);

}  // namespace msm

// One per feature extractor. Every kernel and table is built once by Initialise; a frame then
// only applies them and allocates nothing. One thread at a time (the working planes are shared).
class CFilterProcessing {
  public:
    static constexpr int kFaceSize = 64;
    static constexpr int kMapSize = 32;

    // ensures: nothing allocated yet.
    CFilterProcessing();
    virtual ~CFilterProcessing();
    CFilterProcessing(const CFilterProcessing&) = delete;
    CFilterProcessing& operator=(const CFilterProcessing&) = delete;

    // Builds the working planes (only those not yet present), the band-pass responses for 256,
    // 64 and 32, the kernels and border maps for 64, 32 and 16 (sigma 1, 2, 3) and for 256
    // (sigma 3, 6, 9, 3), and the FFT tables. Returns true. The operations below call it
    // themselves when needed.
    bool Initialise();

    // Normalised separable blur of a size x size plane with sigma = scaleIndex + 1 (for size 256,
    // sigma 3, 6, 9, 3): each output is the sum of the taps times the neighbours inside the plane,
    // divided by the sum of those taps, so a flat plane stays flat up to its border. The
    // horizontal pass runs first. in and out may be the same plane. Returns false and writes
    // nothing for sizes other than 16, 32, 64 and 256 or a scale index out of range.
    bool BlurGaussian(int size, int scaleIndex, const float* in, float* out);

    // Band-pass of a 64 x 64 plane in the Fourier domain with the (7, 22) response. The output
    // keeps the input's scale (a response of 1 everywhere returns the input); in and out may be
    // the same plane.
    void FilterBandPass64(const float* in, float* out);

    // The whole chain on a 64 x 64 byte image: multi-scale log-ratio (ratios floored at 0.1),
    // band-pass, 2 x 2 block means, division by the blurred magnitude, unit length. Always true.
    // A map that comes out all zero is divided by zero on purpose: its 1024 values are then not
    // numbers, which callers must be ready for. The all-black face of a frame without a fit does
    // this; other uniform faces leave only rounding noise, normalised like any map.
    bool MakePatternMap(const unsigned char* in64x64, float* out1024);

    // Read-only views for diagnostics and tests (valid after Initialise).
    const msm::GaussianKernel& kernel(int size, int scaleIndex) const;
    const msm::BorderMaps& borderMaps(int size, int scaleIndex) const;
    const std::vector<float>& response(int size) const;

  private:
    static constexpr int kPlaneCount = 6;
    static constexpr int kPlaneSize = 256 * 256;

    int SizeSlot(int size) const;

    bool initialised_ = false;
    std::vector<float> planes_[kPlaneCount];
    std::vector<float> response256_, response64_, response32_;
    msm::GaussianKernel kernels_[4][4];  // [size slot: 64, 32, 16, 256][scale]
    msm::BorderMaps maps_[4][4];
    std::unique_ptr<msm::Fft> fft256_, fft64_, fft32_;
};

#endif  // MSMFACE_NORMALISE_FILTER_PROCESSING_H
