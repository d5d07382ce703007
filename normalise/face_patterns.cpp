#include "normalise/face_patterns.h"

#include <cstring>

#include "normalise/face_cropping.h"

namespace msm {

namespace {

constexpr int kMapSide = CFilterProcessing::kMapSize;
constexpr int kBandVectors = 4;

// v[r * 16 + c] = mean of the 2 x 2 block (r, c) of the 32 x 32 map.
void blockMeans(const float* map, float* v) {
    for (int r = 0; r < kMapSide / 2; ++r) {
        const float* a = map + (2 * r) * kMapSide;
        const float* b = a + kMapSide;
        for (int c = 0; c < kMapSide / 2; ++c)
            v[r * 16 + c] = 0.25f * (a[2 * c] + a[2 * c + 1] + b[2 * c] + b[2 * c + 1]);
    }
}

}  // namespace

void patternsOfFace(CFilterProcessing& filters, const unsigned char* face, int channels, float* map,
                    float* const* out) {
    if (channels != 1 && channels != kFacePatternChannels) return;
    filters.MakePatternMap(face, map);
    if (channels == 1) {
        blockMeans(map, out[0]);
        return;
    }
    for (int band = 0; band < kBandVectors; ++band)
        std::memcpy(out[band], map + band * kFacePatternDimension,
                    sizeof(float) * kFacePatternDimension);
    blockMeans(map, out[kBandVectors]);
}

FacePatterns::FacePatterns() {
    filters_.Initialise();
}

bool FacePatterns::normalise(const BasicImageFile& frame, const PartsPosition& parts,
                             unsigned char* face) {
    if (frame.bitsPerPixel != 8) return false;
    return NormaliseFace(&model_, frame.width, frame.height, frame.pixels, &parts, face) == 1;
}

void FacePatterns::patterns(const unsigned char* face, float* const* out) {
    patternsOfFace(filters_, face, kFacePatternChannels, map_, out);
}

}  // namespace msm
