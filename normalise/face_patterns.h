// The engine's own pattern of a face: a grey frame and its feature points normalised to the 64 x
// 64 face, and that face filtered into five channels of 256 values (four band-pass bands of the
// 32 x 32 map, and its 2 x 2 block means). The frame cycle of the legacy engine, an enrolment and
// every stream of the modern interface make their patterns here, so that all of them compare the
// same numbers.
//
// Threads. No locks: one thread at a time per object (the pose fit works in the model).
#ifndef MSMFACE_NORMALISE_FACE_PATTERNS_H
#define MSMFACE_NORMALISE_FACE_PATTERNS_H

#include <msmface/BasicImage.h>
#include <msmface/PartsPosition.h>

#include "normalise/face_cropping.h"
#include "normalise/face_shape_model.h"
#include "normalise/filter_processing.h"

namespace msm {

inline constexpr int kFacePatternDimension = 256;
inline constexpr int kFacePatternChannels = 5;

// The patterns of a normalised face (kNormalisedFaceSize^2 bytes) written to out: one vector of
// kFacePatternDimension floats per channel, `channels` of them (5: the bands and the block means;
// 1: the block means alone; any other count writes nothing). map: kMapSize^2 floats of work.
void patternsOfFace(CFilterProcessing& filters, const unsigned char* face, int channels, float* map,
                    float* const* out);

class FacePatterns {
  public:
    // The mean-face model and the initialised filters; throws std::bad_alloc.
    FacePatterns();
    FacePatterns(const FacePatterns&) = delete;
    FacePatterns& operator=(const FacePatterns&) = delete;

    // Normalises the face of an 8-bit frame into face (kNormalisedFaceSize^2 bytes). False, with
    // face untouched, when the frame cannot be read (no pixels, not 8-bit, smaller than 2 x 2).
    // Fewer than four present points make an all-zero face, as the legacy engine's frame cycle
    // does: callers that want no face then test the points first.
    bool normalise(const BasicImageFile& frame, const PartsPosition& parts, unsigned char* face);
    // The five channels of a normalised face. requires: out holds kFacePatternChannels pointers
    // to kFacePatternDimension floats each.
    void patterns(const unsigned char* face, float* const* out);

  private:
    FaceShapeModel model_;
    CFilterProcessing filters_;
    float map_[CFilterProcessing::kMapSize * CFilterProcessing::kMapSize] = {};
};

}  // namespace msm

#endif  // MSMFACE_NORMALISE_FACE_PATTERNS_H
