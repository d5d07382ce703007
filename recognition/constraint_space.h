// A constraint space as the list loads it, and how one of its channels projects a subspace.
#ifndef MSMFACE_RECOGNITION_CONSTRAINT_SPACE_H
#define MSMFACE_RECOGNITION_CONSTRAINT_SPACE_H

#include <cstdint>
#include <string>
#include <vector>

#include "dictionary/DictChunk.h"
#include "recognition/InputSubspace.h"
#include "recognition/constraint_list.h"
#include "recognition/projection.h"

namespace msm {
constexpr int32_t kNotLoaded = -999;
}  // namespace msm

// One entry of the list with what was loaded for it.
struct ConstraintSpace {
    int32_t kind = msm::kKindUnset;  // 1 "MSM", 2 "CMSMF", 3 "CMSML"
    int32_t dimension = 0;           // constraint vectors used
    std::string stem;                // file header: stem.dck, stem.dckev, stem.mck
    std::string stem2;               // default file header ("CMSML" only)
    DictChunk subspace;              // per channel: the constraint vectors, float rows
    std::vector<float> eigenvalues;  // per channel 256 values, in the vectors' order
    int32_t loadStatus = msm::kNotLoaded;

    float* channelEigenvalues(int c) { return eigenvalues.data() + c * msm::kPatternDim; }
    const float* channelEigenvalues(int c) const {
        return eigenvalues.data() + c * msm::kPatternDim;
    }
};

namespace msm {

// Channel c of the space as it projects vectors of D values: unprojected for a space without
// constraint, whitened onto its vectors when the channel holds a basis of D-value vectors, else
// onto nothing. The pointers stay valid while the space is unchanged.
SpaceChannel spaceChannel(const ConstraintSpace& space, int c, int D);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_CONSTRAINT_SPACE_H
