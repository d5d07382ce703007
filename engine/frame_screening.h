// Frame screening: which of a run of grey faces follow the run's common edge structure. A face
// whose horizontal and vertical brightness steps (rise, flat, fall between neighbours) agree with
// those of the run's mean image at `threshold` positions or more is kept; the others (a blink, a
// turned head, a face that is not there) are dropped.
#ifndef MSMFACE_ENGINE_FRAME_SCREENING_H
#define MSMFACE_ENGINE_FRAME_SCREENING_H

namespace msm {

// flags[i] = '1' (kept) or '0' for each of the n images; returns the number kept (0 for n < 1 or
// an image size below 1 x 1).
// requires: images[0..n) hold width x height bytes each; flags holds n characters.
int screenFrames(const unsigned char* const* images, int n, int width, int height, int threshold,
                 char* flags);

// Pearson correlation of two n-pixel grey images, in float; not a number when either is flat.
float correlationCoefficient(const unsigned char* a, const unsigned char* b, int n);

}  // namespace msm

#endif  // MSMFACE_ENGINE_FRAME_SCREENING_H
