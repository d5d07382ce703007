// A frame and its points turned into the patterns the recognition core compares: the frame in
// grey, its face normalised, the face's pattern channels. One per stream, one per gallery.
#ifndef MSMFACE_GALLERY_FACE_READER_H
#define MSMFACE_GALLERY_FACE_READER_H

#include <vector>

#include <msmface/BasicImage.h>
#include <msmface/frame.h>

#include "core/snapshot.h"
#include "normalise/face_cropping.h"
#include "normalise/face_patterns.h"

namespace msmface::detail {

enum class FaceRead { Face, NoFace, NoMemory };

class FaceReader {
  public:
    // Patterns of the shape the face filters make (the directory's); throws std::bad_alloc.
    explicit FaceReader(core::PatternShape shape);
    FaceReader(const FaceReader&) = delete;
    FaceReader& operator=(const FaceReader&) = delete;

    // The frame's face as patterns(): NoFace when no point is present or the face does not
    // normalise, NoMemory when the grey frame cannot be allocated. requires: checkFrame(frame)
    // is empty.
    FaceRead read(const FrameView& frame, const FacePoints& points);
    // One pointer per channel to its dimension values, valid until the next read.
    const float* const* patterns() const { return rows_.data(); }

  private:
    msm::FacePatterns faces_;
    BasicImageFile grey_;
    unsigned char face_[kNormalisedFaceSize * kNormalisedFaceSize] = {};
    std::vector<float> values_;
    std::vector<float*> rows_;
};

}  // namespace msmface::detail

#endif  // MSMFACE_GALLERY_FACE_READER_H
