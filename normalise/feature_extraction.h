// The per-engine feature extractor: turns each frame and its feature points into pattern
// vectors and keeps the last 501 of them, with their normalised faces, in a ring of slots.
#ifndef MSMFACE_NORMALISE_FEATURE_EXTRACTION_H
#define MSMFACE_NORMALISE_FEATURE_EXTRACTION_H

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <msmface/BasicImage.h>
#include <msmface/PartsPosition.h>

#include "normalise/face_shape_model.h"
#include "normalise/filter_processing.h"

// Threads: one thread at a time; the engine serialises its calls. No locks.
class FeatureExtraction {
  public:
    static constexpr int kSlotCount = 501;
    static constexpr int kPatternDimension = 256;
    static constexpr int kMaxVectorsPerFrame = 5;
    static constexpr int32_t kNormaliseFailed = -999;

    // Builds the ring (vectors unset, faces 64 x 64 grey), a 24-bit frame snapshot of width x
    // height, the pose fitter and the initialised filter chain. dimension is ignored: patterns
    // are always 256 long. vectorsPerFrame selects the pattern layout (1 or 5; any other value
    // stores no vectors); each slot holds that many vectors, counting negative values as 0 and
    // values above 5 as 5, since no layout writes more. A snapshot size that is not positive or
    // whose 24-bit buffer would exceed 2^31 bytes leaves the snapshot empty (never refreshed).
    // Allocation failure throws std::bad_alloc with nothing leaked.
    FeatureExtraction(int width, int height, int dimension, int vectorsPerFrame);
    virtual ~FeatureExtraction();
    FeatureExtraction(const FeatureExtraction&) = delete;
    FeatureExtraction& operator=(const FeatureExtraction&) = delete;

    // The per-frame step: normalises the face into out64x64 (4096 bytes), stores its pattern
    // vectors and face in slot slotIndex and advances slotIndex (501 wraps to 0; a slotIndex set
    // outside 0 ... 500 from outside restarts at 0). Returns the new slotIndex.
    //
    // Returns -999 with lastNormaliseOk = 0 and nothing stored when the frame cannot be read:
    // frame, its pixels, parts or out64x64 null, a frame that is not 8-bit, or one smaller than
    // 2 x 2. Fewer than four present points still count as a frame: its face is all zero and its
    // vectors are not numbers (see CFilterProcessing::MakePatternMap).
    //
    // On the frame that fills slot 1 the snapshot takes a copy of the frame: colourFrame's bytes
    // (depth 24) when it is a 24-bit image of the frame's size, else the grey frame (depth 8).
    // The snapshot keeps its buffer; a frame of another size than the snapshot is not copied.
    // With dumpImages set the slot's previous face is written to "itmp/img%03d.pgm" first;
    // a file that cannot be written is ignored.
    int NormaliseFrame(BasicImageFile* frame, BasicImageFile* colourFrame, PartsPosition* parts,
                       unsigned char* out64x64);

    // Replaces the snapshot by an empty-content 24-bit image of the new frame size (same limits
    // as the constructor); the ring is untouched.
    void ReplaceFrameSnapshot(int width, int height);

    // Cropping settings, kept for the host's settings interface; the crop does not consult them.
    void Set_RecogCroppingShift(int shift) { recogCroppingShift = shift; }
    int Get_RecogCroppingShift() const { return recogCroppingShift; }
    void Set_CroppingRangeMode(int mode) { croppingRangeMode = mode; }
    int Get_CroppingRangeMode() const { return croppingRangeMode; }
    void Set_FreeCroppingRange(double low, double high);
    // Writes through each non-null pointer.
    void Get_FreeCroppingRange(double* low, double* high) const;

    // patternSlots[i][j]: vector j (256 floats) of slot i.
    float*** patternSlots;
    BasicImageFile workImages[2];  // not used by the per-frame step
    int32_t slotIndex;             // the slot the next frame fills; also the gather counter
    BasicImageFile* normImages[kSlotCount];
    BasicImageFile* frameSnapshot;
    int32_t lastNormaliseOk;
    int32_t dumpImages;
    int32_t dimension;
    int32_t vectorsPerFrame;
    int32_t reserved0;
    int32_t recogCroppingShift;
    int32_t reserved1;
    int32_t croppingRangeMode;
    double freeCroppingRange[2];
    FaceShapeModel* shapeModel;
    CFilterProcessing* filters;

  private:
    void StorePatterns(const unsigned char* face);
    void RefreshSnapshot(const BasicImageFile& frame, const BasicImageFile* colourFrame);

    std::vector<float> patternStore_;
    std::vector<float*> vectorTable_;
    std::vector<float**> slotTable_;
    std::array<std::unique_ptr<BasicImageFile>, kSlotCount> normImageOwners_;
    std::unique_ptr<BasicImageFile> snapshotOwner_;
    std::unique_ptr<FaceShapeModel> shapeModelOwner_;
    std::unique_ptr<CFilterProcessing> filtersOwner_;
    float map_[32 * 32];
};

#endif  // MSMFACE_NORMALISE_FEATURE_EXTRACTION_H
