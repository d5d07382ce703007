// The sequence check: were the recent faces a live, moving face or a still picture held up to the
// camera? A still picture gives faces that are near copies of their mean.
#include <cstdint>
#include <vector>

#include "engine/RecognitionEngine.h"
#include "engine/frame_screening.h"

namespace {

constexpr int kMostFrames = 15;
constexpr int kSmallSide = 32;
constexpr int kSmallPixels = kSmallSide * kSmallSide;
constexpr int kScreeningThreshold = 1300;
// Fewer near copies than this: a live face.
constexpr int kNearCopiesOfStill = 3;
constexpr int kRingWrap = 500;  // kept: slot indices below 0 wrap by 500, the ring has 501

// Every second row and column of a 64 x 64 face.
void halve(const unsigned char* face, unsigned char* small) {
    for (int r = 0; r < kSmallSide; ++r)
        for (int c = 0; c < kSmallSide; ++c) small[r * kSmallSide + c] = face[2 * r * 64 + 2 * c];
}

}  // namespace

bool RecognitionEngine::SequenceCheck() {
    if (featureExtraction == nullptr) return false;
    const int count = GetMulCount();
    const int n = count >= 1 && count <= kMostFrames ? count : kMostFrames;
    const int newest = NewestSlot();
    std::vector<unsigned char> small(static_cast<std::size_t>(n) * kSmallPixels);
    std::vector<const unsigned char*> images(n);
    for (int k = 0; k < n; ++k) {
        int slot = newest - k;
        if (slot < 0) slot += kRingWrap;
        unsigned char* out = small.data() + static_cast<std::size_t>(k) * kSmallPixels;
        const BasicImageFile* face = featureExtraction->normImages[slot];
        if (face != nullptr && face->pixels != nullptr) halve(face->pixels, out);
        images[k] = out;
    }
    std::vector<char> flags(n);
    const int kept = msm::screenFrames(images.data(), n, kSmallSide, kSmallSide,
                                       kScreeningThreshold, flags.data());
    if (kept == 0) return false;
    int64_t sums[kSmallPixels] = {};
    for (int k = 0; k < n; ++k)
        if (flags[k] == '1')
            for (int p = 0; p < kSmallPixels; ++p) sums[p] += images[k][p];
    unsigned char mean[kSmallPixels];
    for (int p = 0; p < kSmallPixels; ++p) mean[p] = static_cast<unsigned char>(sums[p] / kept);
    int nearCopies = 0;
    for (int k = 0; k < n; ++k)
        if (flags[k] == '1' &&
            msm::correlationCoefficient(mean, images[k], kSmallPixels) > stillFaceCorrelation)
            ++nearCopies;
    return nearCopies < kNearCopiesOfStill;
}
