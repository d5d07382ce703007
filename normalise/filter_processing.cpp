#include "normalise/filter_processing.h"

#include <cmath>
#include <cstring>

namespace msm {

GaussianKernel::GaussianKernel(float sigma_, int halfWidth_, float threshold)
    : sigma(sigma_),
      halfWidth(halfWidth_),
      radius(halfWidth_),
      taps(static_cast<size_t>(2 * halfWidth_ + 1)) {
    const float twoSigmaSquared = 2.0f * sigma * sigma;
    for (int k = -halfWidth; k <= halfWidth; ++k)
        taps[static_cast<size_t>(k + halfWidth)] =
            std::exp(-static_cast<float>(k * k) / twoSigmaSquared);
    for (int k = 0; k <= halfWidth; ++k) {
        if (tap(k) < threshold) {
            radius = k;
            break;
        }
    }
}

BorderMaps::BorderMaps(const GaussianKernel& kernel, int size_)
    : size(size_),
      horizontal(static_cast<size_t>(size_) * size_),
      vertical(static_cast<size_t>(size_) * size_) {
    std::vector<float> reciprocal(static_cast<size_t>(size));
    for (int p = 0; p < size; ++p) {
        float sum = 0.0f;
        for (int k = -kernel.radius; k <= kernel.radius; ++k)
            if (p + k >= 0 && p + k < size) sum += kernel.tap(k);
        reciprocal[static_cast<size_t>(p)] = 1.0f / sum;
    }
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c) {
            horizontal[static_cast<size_t>(r * size + c)] = reciprocal[static_cast<size_t>(c)];
            vertical[static_cast<size_t>(r * size + c)] = reciprocal[static_cast<size_t>(r)];
        }
    }
}

std::vector<float> DifferenceOfGaussians(int n, double a, double b) {
    std::vector<float> h(static_cast<size_t>(n) * n);
    for (int i = 0; i < n; ++i) {
        const double di = i - n / 2;
        for (int j = 0; j < n; ++j) {
            const double dj = j - n / 2;
            const double wide = std::exp(-(dj * dj / (2 * b * b) + di * di / (2 * b * b)));
            const double narrow = std::exp(-(dj * dj / (2 * a * a) + di * di / (2 * a * a)));
            h[static_cast<size_t>(i * n + j)] = static_cast<float>(wide - narrow);
        }
    }
    return h;
}

}  // namespace msm

namespace {

constexpr int kSizes[4] = {64, 32, 16, 256};
constexpr float kSmallSigmas[3] = {1.0f, 2.0f, 3.0f};
constexpr float kLargeSigmas[4] = {3.0f, 6.0f, 9.0f, 3.0f};
constexpr int kSmallHalfWidth = 11;
constexpr int kLargeHalfWidth = 44;
constexpr float kTapThreshold = 0.01f;

// ln(0.1) rounded to five decimals (bit pattern 0x40135DA2), not ln 10 at full precision: kept,
// stored patterns were made with it.
constexpr float kLogRatioFloor = 2.30259f;

// The blur's scratch: one plane padded by the largest radius above and below.
constexpr int kMaxRadius = kLargeHalfWidth;

int ScaleCount(int slot) {
    return slot == 3 ? 4 : 3;
}

}  // namespace

CFilterProcessing::CFilterProcessing() = default;
CFilterProcessing::~CFilterProcessing() = default;

int CFilterProcessing::SizeSlot(int size) const {
    for (int s = 0; s < 4; ++s)
        if (kSizes[s] == size) return s;
    return -1;
}

bool CFilterProcessing::Initialise() {
    for (auto& plane : planes_)
        if (plane.empty()) plane.assign(kPlaneSize + (2 * kMaxRadius + 4) * 256, 0.0f);
    if (initialised_) return true;
    response256_ = msm::DifferenceOfGaussians(256, 21.0, 66.0);
    response64_ = msm::DifferenceOfGaussians(64, 7.0, 22.0);
    response32_ = msm::DifferenceOfGaussians(32, 3.5, 11.0);
    for (int slot = 0; slot < 4; ++slot) {
        for (int s = 0; s < ScaleCount(slot); ++s) {
            kernels_[slot][s] =
                (slot == 3) ? msm::GaussianKernel(kLargeSigmas[s], kLargeHalfWidth, kTapThreshold)
                            : msm::GaussianKernel(kSmallSigmas[s], kSmallHalfWidth, kTapThreshold);
            maps_[slot][s] = msm::BorderMaps(kernels_[slot][s], kSizes[slot]);
        }
    }
    fft256_ = std::make_unique<msm::Fft>(256);
    fft64_ = std::make_unique<msm::Fft>(64);
    fft32_ = std::make_unique<msm::Fft>(32);
    initialised_ = true;
    return true;
}

const msm::GaussianKernel& CFilterProcessing::kernel(int size, int scaleIndex) const {
    return kernels_[SizeSlot(size)][scaleIndex];
}

const msm::BorderMaps& CFilterProcessing::borderMaps(int size, int scaleIndex) const {
    return maps_[SizeSlot(size)][scaleIndex];
}

const std::vector<float>& CFilterProcessing::response(int size) const {
    return size == 256 ? response256_ : size == 32 ? response32_ : response64_;
}

bool CFilterProcessing::BlurGaussian(int size, int scaleIndex, const float* in, float* out) {
    const int slot = SizeSlot(size);
    if (slot < 0 || scaleIndex < 0 || scaleIndex >= ScaleCount(slot) || !in || !out) return false;
    Initialise();
    const msm::GaussianKernel& g = kernels_[slot][scaleIndex];
    const msm::BorderMaps& maps = maps_[slot][scaleIndex];
    const int n = size, radius = g.radius;

    // Neighbours outside the plane read as zero, which adds nothing to a sum: the same result as
    // skipping them, with loops the compiler can vectorise.
    float* row = planes_[5].data();                                // one padded row
    float* padded = planes_[5].data() + 2 * 256 + 2 * kMaxRadius;  // the plane padded by rows
    std::memset(padded, 0, sizeof(float) * static_cast<size_t>(radius) * n);
    std::memset(padded + static_cast<size_t>(radius + n) * n, 0,
                sizeof(float) * static_cast<size_t>(radius) * n);
    std::memset(row, 0, sizeof(float) * static_cast<size_t>(n + 2 * radius));
    for (int y = 0; y < n; ++y) {
        std::memcpy(row + radius, in + static_cast<size_t>(y) * n, sizeof(float) * n);
        float* dst = padded + static_cast<size_t>(y + radius) * n;
        for (int x = 0; x < n; ++x) dst[x] = 0.0f;
        for (int k = -radius; k <= radius; ++k) {
            const float t = g.tap(k);
            const float* src = row + radius + k;
            for (int x = 0; x < n; ++x) dst[x] += t * src[x];
        }
        const float* scale = maps.horizontal.data() + static_cast<size_t>(y) * n;
        for (int x = 0; x < n; ++x) dst[x] *= scale[x];
    }
    for (int y = 0; y < n; ++y) {
        float* dst = out + static_cast<size_t>(y) * n;
        for (int x = 0; x < n; ++x) dst[x] = 0.0f;
        for (int k = -radius; k <= radius; ++k) {
            const float t = g.tap(k);
            const float* src = padded + static_cast<size_t>(y + radius + k) * n;
            for (int x = 0; x < n; ++x) dst[x] += t * src[x];
        }
        const float* scale = maps.vertical.data() + static_cast<size_t>(y) * n;
        for (int x = 0; x < n; ++x) dst[x] *= scale[x];
    }
    return true;
}

void CFilterProcessing::FilterBandPass64(const float* in, float* out) {
    Initialise();
    constexpr int kCount = kFaceSize * kFaceSize;
    float* re = planes_[3].data();
    float* im = planes_[4].data();
    std::memcpy(re, in, sizeof(float) * kCount);
    std::memset(im, 0, sizeof(float) * kCount);
    msm::Forward2d(*fft64_, re, im);
    const float* h = response64_.data();
    for (int i = 0; i < kCount; ++i) {
        re[i] *= h[i];
        im[i] *= h[i];
    }
    msm::Inverse2d(*fft64_, re, im);
    std::memcpy(out, re, sizeof(float) * kCount);
}

bool CFilterProcessing::MakePatternMap(const unsigned char* in64x64, float* out1024) {
    Initialise();
    constexpr int kCount = kFaceSize * kFaceSize;
    float* image = planes_[0].data();
    float* blurred = planes_[1].data();
    float* logRatio = planes_[2].data();
    for (int i = 0; i < kCount; ++i) image[i] = static_cast<float>(in64x64[i]);
    for (int i = 0; i < kCount; ++i) logRatio[i] = 0.0f;
    for (int s = 0; s < 3; ++s) {
        BlurGaussian(kFaceSize, s, image, blurred);
        for (int i = 0; i < kCount; ++i) {
            if (blurred[i] == 0.0f) {
                logRatio[i] -= kLogRatioFloor;
                continue;
            }
            const float q = image[i] / blurred[i];
            if (q >= 0.1f) {
                logRatio[i] += std::log(q);
            } else {
                logRatio[i] -= kLogRatioFloor;
            }
        }
    }
    float* band = logRatio;
    FilterBandPass64(logRatio, band);

    float* pooled = planes_[1].data();
    for (int r = 0; r < kMapSize; ++r) {
        const float* a = band + (2 * r) * kFaceSize;
        const float* b = a + kFaceSize;
        for (int c = 0; c < kMapSize; ++c)
            pooled[r * kMapSize + c] = 0.25f * (a[2 * c] + a[2 * c + 1] + b[2 * c] + b[2 * c + 1]);
    }
    float* magnitude = planes_[3].data();
    float* localMean = planes_[4].data();
    constexpr int kMapCount = kMapSize * kMapSize;
    for (int i = 0; i < kMapCount; ++i) magnitude[i] = std::fabs(pooled[i]);
    BlurGaussian(kMapSize, 0, magnitude, localMean);
    for (int i = 0; i < kMapCount; ++i)
        out1024[i] = (localMean[i] != 0.0f) ? pooled[i] / localMean[i] : 0.0f;
    float squares = 0.0f;
    for (int i = 0; i < kMapCount; ++i) squares += out1024[i] * out1024[i];
    const float length = std::sqrt(squares);
    for (int i = 0; i < kMapCount; ++i) out1024[i] /= length;
    return true;
}
