#include "engine/frame_screening.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace msm {

namespace {

// 1 equal, 2 rising towards q, 0 falling.
unsigned char stepCode(unsigned char p, unsigned char q) {
    return p == q ? 1 : (p < q ? 2 : 0);
}

// Horizontal codes (every row, columns 0..w-2) then vertical codes (rows 0..h-2, every column).
void edgeCodes(const unsigned char* img, int w, int h, std::vector<unsigned char>& codes) {
    codes.clear();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x + 1 < w; ++x)
            codes.push_back(stepCode(img[y * w + x], img[y * w + x + 1]));
    for (int y = 0; y + 1 < h; ++y)
        for (int x = 0; x < w; ++x) codes.push_back(stepCode(img[y * w + x], img[(y + 1) * w + x]));
}

}  // namespace

int screenFrames(const unsigned char* const* images, int n, int width, int height, int threshold,
                 char* flags) {
    if (n < 1 || width < 1 || height < 1) return 0;
    const int pixels = width * height;
    std::vector<int64_t> sums(pixels, 0);
    for (int i = 0; i < n; ++i)
        for (int p = 0; p < pixels; ++p) sums[p] += images[i][p];
    std::vector<unsigned char> mean(pixels);
    for (int p = 0; p < pixels; ++p) mean[p] = static_cast<unsigned char>(sums[p] / n);

    std::vector<unsigned char> meanCodes, codes;
    edgeCodes(mean.data(), width, height, meanCodes);
    int kept = 0;
    for (int i = 0; i < n; ++i) {
        edgeCodes(images[i], width, height, codes);
        int agree = 0;
        for (std::size_t k = 0; k < codes.size(); ++k) agree += codes[k] == meanCodes[k];
        const bool keep = agree >= threshold;
        flags[i] = keep ? '1' : '0';
        kept += keep;
    }
    return kept;
}

float correlationCoefficient(const unsigned char* a, const unsigned char* b, int n) {
    int64_t sumA = 0, sumB = 0;
    for (int i = 0; i < n; ++i) {
        sumA += a[i];
        sumB += b[i];
    }
    const float meanA = static_cast<float>(sumA) / static_cast<float>(n);
    const float meanB = static_cast<float>(sumB) / static_cast<float>(n);
    float ab = 0.0f, aa = 0.0f, bb = 0.0f;
    for (int i = 0; i < n; ++i) {
        const float da = static_cast<float>(a[i]) - meanA;
        const float db = static_cast<float>(b[i]) - meanB;
        ab += da * db;
        aa += da * da;
        bb += db * db;
    }
    const float r = ab / (std::sqrt(aa) * std::sqrt(bb));
    // Rounding can carry an image's correlation with itself past 1; a threshold of 1 must stay
    // out of reach. A flat image's NaN passes through.
    return r > 1.0f ? 1.0f : r;
}

}  // namespace msm
