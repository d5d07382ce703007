#include "normalise/feature_extraction.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "normalise/face_cropping.h"
#include "normalise/face_patterns.h"

namespace {

constexpr int kFaceBytes = kNormalisedFaceSize * kNormalisedFaceSize;

std::unique_ptr<BasicImageFile> MakeSnapshot(int width, int height) {
    // The image's byte count is a 32-bit product of width, height and 24 bits.
    const bool fits =
        width >= 1 && height >= 1 && static_cast<int64_t>(width) * height * 24 <= INT32_MAX;
    return fits ? std::make_unique<BasicImageFile>(width, height, 24)
                : std::make_unique<BasicImageFile>();
}

}  // namespace

FeatureExtraction::FeatureExtraction(int width, int height, int /*dimension*/, int vectorsPerFrame_)
    : patternSlots(nullptr),
      slotIndex(0),
      normImages{},
      frameSnapshot(nullptr),
      lastNormaliseOk(0),
      dumpImages(0),
      dimension(kPatternDimension),
      vectorsPerFrame(vectorsPerFrame_),
      reserved0(0),
      recogCroppingShift(0),
      reserved1(0),
      croppingRangeMode(1),
      freeCroppingRange{3.0, 9.0},
      shapeModel(nullptr),
      filters(nullptr),
      map_{} {
    const int perSlot = std::clamp(vectorsPerFrame_, 0, kMaxVectorsPerFrame);
    patternStore_.resize(static_cast<size_t>(kSlotCount) * perSlot * kPatternDimension);
    vectorTable_.resize(static_cast<size_t>(kSlotCount) * perSlot + 1);
    slotTable_.resize(kSlotCount);
    for (int i = 0; i < kSlotCount; ++i) {
        float** vectors = vectorTable_.data() + static_cast<size_t>(i) * perSlot;
        for (int j = 0; j < perSlot; ++j)
            vectors[j] =
                patternStore_.data() + (static_cast<size_t>(i) * perSlot + j) * kPatternDimension;
        slotTable_[static_cast<size_t>(i)] = vectors;
    }
    patternSlots = slotTable_.data();
    for (int i = 0; i < kSlotCount; ++i) {
        normImageOwners_[static_cast<size_t>(i)] =
            std::make_unique<BasicImageFile>(kNormalisedFaceSize, kNormalisedFaceSize, 8);
        normImages[i] = normImageOwners_[static_cast<size_t>(i)].get();
    }
    ReplaceFrameSnapshot(width, height);
    shapeModelOwner_ = std::make_unique<FaceShapeModel>();
    shapeModel = shapeModelOwner_.get();
    filtersOwner_ = std::make_unique<CFilterProcessing>();
    filters = filtersOwner_.get();
    filters->Initialise();
}

FeatureExtraction::~FeatureExtraction() = default;

void FeatureExtraction::ReplaceFrameSnapshot(int width, int height) {
    snapshotOwner_.reset();
    frameSnapshot = nullptr;
    snapshotOwner_ = MakeSnapshot(width, height);
    frameSnapshot = snapshotOwner_.get();
}

void FeatureExtraction::Set_FreeCroppingRange(double low, double high) {
    freeCroppingRange[0] = low;
    freeCroppingRange[1] = high;
}

void FeatureExtraction::Get_FreeCroppingRange(double* low, double* high) const {
    if (low) *low = freeCroppingRange[0];
    if (high) *high = freeCroppingRange[1];
}

void FeatureExtraction::RefreshSnapshot(const BasicImageFile& frame,
                                        const BasicImageFile* colourFrame) {
    BasicImageFile* snapshot = frameSnapshot;
    if (!snapshot || !snapshot->pixels || snapshot->width != frame.width ||
        snapshot->height != frame.height)
        return;
    const size_t pixels = static_cast<size_t>(frame.width) * frame.height;
    const bool colour = colourFrame && colourFrame->pixels && colourFrame->bitsPerPixel == 24 &&
                        colourFrame->width == frame.width && colourFrame->height == frame.height;
    if (colour) {
        std::memcpy(snapshot->pixels, colourFrame->pixels, 3 * pixels);
        snapshot->bitsPerPixel = 24;
    } else {
        // The buffer stays sized for 24 bits; only the depth tells a reader how much is valid.
        std::memcpy(snapshot->pixels, frame.pixels, pixels);
        snapshot->bitsPerPixel = 8;
    }
}

void FeatureExtraction::StorePatterns(const unsigned char* face) {
    msm::patternsOfFace(*filters, face, vectorsPerFrame, map_, patternSlots[slotIndex]);
}

int FeatureExtraction::NormaliseFrame(BasicImageFile* frame, BasicImageFile* colourFrame,
                                      PartsPosition* parts, unsigned char* out64x64) {
    lastNormaliseOk = 1;
    const bool readable = frame && frame->bitsPerPixel == 8;
    const int result = readable ? NormaliseFace(shapeModel, frame->width, frame->height,
                                                frame->pixels, parts, out64x64)
                                : 0;
    if (result == 0) {
        lastNormaliseOk = 0;
        return kNormaliseFailed;
    }
    if (slotIndex < 0 || slotIndex >= kSlotCount) slotIndex = 0;
    if (slotIndex == 1) RefreshSnapshot(*frame, colourFrame);
    if (dumpImages) {
        char path[32];
        std::snprintf(path, sizeof path, "itmp/img%03d.pgm", slotIndex);
        normImages[slotIndex]->WritePnm(path);
    }
    StorePatterns(out64x64);
    if (normImages[slotIndex]->pixels)
        std::memcpy(normImages[slotIndex]->pixels, out64x64, kFaceBytes);
    slotIndex = (slotIndex + 1 == kSlotCount) ? 0 : slotIndex + 1;
    return slotIndex;
}
