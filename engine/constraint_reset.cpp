#include "engine/constraint_reset.h"

#include <cstring>
#include <string>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "recognition/MWMSMRecognition.h"

namespace msm {

namespace {

void clearClassData(MWMSMRecognition& r) {
    for (float** m : r.classData)
        for (int i = 0; m != nullptr && i < kPatternDim; ++i)
            std::memset(m[i], 0, kPatternDim * sizeof(float));
}

// Copies the default files over the current ones through the containers, so that what is
// written is what a reload accepts. False (nothing written) unless all three read.
bool restoreDefaultFiles(const std::string& from, const std::string& to) {
    DictChunk basis, values;
    basis.SetModeAndLimit(kDicPrimFloat, 0);
    values.SetModeAndLimit(kDicPrimFloat, 0);
    MtrxChunk sums;
    if (from.empty() || basis.ReadAll((from + ".dck").c_str()) != 1 ||
        values.ReadAll((from + ".dckev").c_str()) != 1 ||
        sums.ReadAll((from + ".mck").c_str()) != 1)
        return false;
    // The sums go last: a space whose ".mck" is new has the rest new as well.
    return basis.Write((to + ".dck").c_str(), 0, kDicPrimFloat) == 1 &&
           values.Write((to + ".dckev").c_str(), 0, kDicPrimFloat) == 1 &&
           sums.Write((to + ".mck").c_str()) == 1;
}

}  // namespace

int resetCurrentConstraintSpace(MWMSMRecognition& r) {
    clearClassData(r);
    if (r.learnedSpace < 0 || r.learnedSpace >= r.spaceCount) return 1;
    const ConstraintSpace& space = r.spaces[r.learnedSpace];
    if (!restoreDefaultFiles(space.stem2, space.stem)) {
        const char* header = space.stem.c_str();
        r.RecomputeAndWrite(0, header, header);
    }
    return r.ReloadConstraintMSM();
}

}  // namespace msm
