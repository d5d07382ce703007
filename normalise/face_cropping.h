// From a grey frame and its feature points to the normalised 64 x 64 face: the warp of the mean
// face into a frontal 256 x 256 view and the crop around the model's eyes.
//
// Threads: each call works only on the objects it is given; one thread at a time per model.
#ifndef MSMFACE_NORMALISE_FACE_CROPPING_H
#define MSMFACE_NORMALISE_FACE_CROPPING_H

#include <algorithm>
#include <cstdint>

#include <msmface/BasicImage.h>
#include <msmface/PartsPosition.h>

#include "normalise/face_shape_model.h"

inline constexpr int kNormalisedFaceSize = 64;
inline constexpr int kWarpSize = 256;

// Fits the pose (robustly when model->robustFit) and renders the mean face, textured from the
// frame, into target256: every target pixel samples the frame bilinearly where the fitted camera
// projects that point of the face; projections outside the frame take the nearest border pixels,
// so no read ever leaves the frame. With model->supersampleWarp each pixel averages four samples
// and its grey value fills every byte of the pixel (1 for an 8-bit target, 3 for a 24-bit one).
//
// referenceOut (28 values, may be null) receives, for each model point, its grid position
// (column, row) when the input point is present and (9999, 9999) when it is absent.
//
// Returns true when the pose was fitted and the target rendered. Returns false, with the target
// cleared to 0, when fewer than four points are present or they admit no camera, or when the
// frame has no pixels or is smaller than 2 x 2. A target that is null or not 256 x 256 is never
// written (the fit still runs).
// requires: framePixels holds frameWidth * frameHeight bytes, rows frameWidth bytes apart.
bool WarpFace(FaceShapeModel* model, const unsigned char* framePixels, int frameWidth,
              int frameHeight, BasicImageData* target256, const int32_t* pointsInModelOrder,
              int32_t* referenceOut);

// Cuts a size x size window out of an 8-bit source by bilinear sampling. The window is placed by
// the two eyes: with centre (cx, cy) their midpoint and d half their distance, output pixel
// (r, c) samples row (cy - d*scaleY) + r * 3*d*scaleY / size and column
// cx + (c - size/2) * (d*scaleX / 9 * 0.5). Samples are truncated to 8 bits; neighbours outside
// the source are clamped to its border. Always returns true; a null target or size < 1 writes
// nothing, a null source or one smaller than 2 x 2 gives an all-zero window.
// requires: target holds size * size bytes; source holds sourceWidth * sourceHeight bytes.
bool CropEyeWindow(const unsigned char* source, int sourceWidth, int sourceHeight,
                   unsigned char* target, float eye1x, float eye1y, float eye2x, float eye2y,
                   float scaleX, float scaleY, int size);

// The whole per-frame normalisation: host points into model order, WarpFace, then the crop
// around the model's eyes (85, 109) and (171, 109) into out64x64 (4096 bytes).
//
// Returns 1, also when fewer than four points are present (the face is then an all-zero image:
// the view is cleared before the crop). Returns 0 and leaves out64x64 untouched when the frame
// cannot be read: framePixels, parts or out64x64 null, or a frame smaller than 2 x 2.
// Coordinates are used as given up to 9998 (points far outside the frame only pull the
// projection toward the border pixels); larger or negative values mark the point absent.
// requires: framePixels holds frameWidth * frameHeight bytes.
int NormaliseFace(FaceShapeModel* model, int frameWidth, int frameHeight,
                  const unsigned char* framePixels, const PartsPosition* parts,
                  unsigned char* out64x64);

namespace msm {

// The rectangle of a 256 x 256 view, rows [rowBegin, rowEnd) and columns [colBegin, colEnd).
struct ViewWindow {
    int rowBegin, rowEnd, colBegin, colEnd;
};

// Renders only the window of the view with the current pose; the rest of target is not written.
// requires: a fitted model, a frame of at least 2 x 2, target of 256 x 256 x bytesPerPixel.
void RenderWarp(const FaceShapeModel& model, const unsigned char* frame, int frameWidth,
                int frameHeight, unsigned char* target, int bytesPerPixel, ViewWindow window);

// The cells of a size x size source that CropEyeWindow reads for the given placement.
ViewWindow CropFootprint(int sourceWidth, int sourceHeight, float eye1x, float eye1y, float eye2x,
                         float eye2y, float scaleX, float scaleY, int size);

// Cell index and fraction of coordinate u for bilinear sampling between cells 0 ... limit + 1:
// trunc(u) clamped to [0, limit] and u minus it clamped to [0, 1]. Non-numbers give cell 0,
// fraction 0, so no input can index outside.
inline void ClampedCell(float u, int limit, int& cell, float& fraction) {
    // Written as min/max with the constant first, so that a non-number falls to 0 and the
    // compiler emits branch-free code for the warp's 65,536 calls.
    const float clamped = std::min(static_cast<float>(limit), std::max(0.0f, u));
    cell = static_cast<int>(clamped);
    fraction = std::min(1.0f, std::max(0.0f, u - static_cast<float>(cell)));
}

}  // namespace msm

#endif  // MSMFACE_NORMALISE_FACE_CROPPING_H
