#include "mean_face.h"

#include "synth_face.h"

namespace msmsynth {

// Compiled from the committed table rather than taken from the library, whose copy is not
// exported: the generator is linked into a host that sees only the public interface.
const float kMeanFaceDepth[256 * 256] = {
#include "data/face_depth_map.inc"
};

const int kGridPoints[kPointCount][2] = {
    {85, 109},   // 0 eye centre, image left
    {171, 109},  // 1 eye centre, image right
    {113, 161},  // 2 nostril, left
    {143, 161},  // 3 nostril, right
    {94, 194},   // 4 mouth corner, left
    {162, 194},  // 5 mouth corner, right
    {63, 113},   // 6 outer corner of the left eye
    {103, 114},  // 7 inner corner of the left eye
    {153, 114},  // 8 inner corner of the right eye
    {193, 113},  // 9 outer corner of the right eye
    {110, 85},   // 10 inner eyebrow end, left
    {146, 85},   // 11 inner eyebrow end, right
    {127, 148},  // 12 nose tip
    {127, 192},  // 13 mouth centre
};

}  // namespace msmsynth
