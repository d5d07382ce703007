// The mean-face model shipped with the library: a depth map over a frontal 256 x 256 grid and the
// fourteen feature points of that face. Read-only, shared by every engine and thread.
#ifndef MSMFACE_DATA_FACE_MODEL_H
#define MSMFACE_DATA_FACE_MODEL_H

#include <cstdint>

inline constexpr int kFaceGridSize = 256;
inline constexpr int kFacePointCount = 14;

// Height of the mean face above the image plane, index = row * 256 + column. Values lie between
// about -0.0022 and 0.68; they come from a measured mesh and follow no formula.
extern const float FaceDepthMap[kFaceGridSize * kFaceGridSize];

// The fourteen model points as (column, row) of the 256 x 256 grid. Points 0 and 1 are the eye
// centres, around which the normalised face is cut.
extern const int32_t FaceReferencePoints[kFacePointCount][2];

#endif  // MSMFACE_DATA_FACE_MODEL_H
