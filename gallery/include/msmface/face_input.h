// What a host hands the library about a face, in the library's terms: the fourteen points as
// FacePoints from the doubles a list file or a detector gives, the engine's whole pixels and its
// "absent" value, and the 64 x 64 normalised face a frame's points make.
//
// Threads. Any number of threads at once (normalisedFace keeps one face model per thread).
#ifndef MSMFACE_FACE_INPUT_H
#define MSMFACE_FACE_INPUT_H

#include <array>
#include <cstdint>
#include <vector>

#include <msmface/PartsPosition.h>
#include <msmface/export.h>
#include <msmface/frame.h>
#include <msmface/result.h>

namespace msmface {

// The side of the normalised face, in pixels.
inline constexpr int kNormalisedFaceSide = 64;

// The points as the library takes them: each coordinate rounded to the nearest float. A point
// whose x or y is not finite or negative stays absent.
MSMFACE_API FacePoints toFacePoints(const std::array<double, 2 * kFacePointCount>& xy);

// The engine's whole pixel of a coordinate, halves rounded away from zero; kAbsentCoordinate for
// a coordinate that is not finite, negative, or beyond the engine's largest pixel (9998).
MSMFACE_API int32_t toEnginePixel(float v);
// Every coordinate as toEnginePixel gives it, for the legacy interface's frame calls.
MSMFACE_API PartsPosition toPartsPosition(const FacePoints& points);
// False when no point has both its coordinates present: such a frame has no face.
MSMFACE_API bool anyPointPresent(const PartsPosition& parts);

// The 64 x 64 grey normalised face (row by row, kNormalisedFaceSide squared bytes) of a frame
// with its points: what enrolment and recognition make their patterns from. Fewer than four
// present points give an all-zero face, as in the engine's frame cycle. Fails (Argument) when
// the frame is not a readable view ("frame: ...") or no point is present ("points: ...");
// (Internal) when memory runs out. The frame is read during the call and not kept.
MSMFACE_API Result<std::vector<unsigned char>> normalisedFace(const FrameView& frame,
                                                              const FacePoints& points);

}  // namespace msmface

#endif  // MSMFACE_FACE_INPUT_H
