// The mean face the persons are made from: the same depth table the library is built with.
#ifndef MSMFACE_TOOLS_SYNTH_MEAN_FACE_H
#define MSMFACE_TOOLS_SYNTH_MEAN_FACE_H

namespace msmsynth {

// 256 x 256 heights, index row * 256 + column.
extern const float kMeanFaceDepth[256 * 256];

}  // namespace msmsynth

#endif  // MSMFACE_TOOLS_SYNTH_MEAN_FACE_H
