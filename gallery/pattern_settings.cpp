#include "gallery/pattern_settings.h"

#include <algorithm>

#include "recognition/MSMRecognition.h"
#include "recognition/class_data.h"
#include "recognition/descriptor_patterns.h"
#include "recognition/person_dictionary.h"
#include "store/patterns_file.h"

namespace msmface::detail {

namespace {

core::PatternShape shapeOf(PatternKind kind) {
    const msm::DictionaryShape d = personShapeOf(kind);
    return core::PatternShape{d.dimension, d.sets};
}

PatternSettings seedSettings() {
    // The legacy engine's registration and frame cycle, number for number.
    PatternSettings s;
    s.shape = shapeOf(PatternKind::Seed);
    s.enrolFrames = msm::kFacesPerRegistration;
    s.minEnrolFrames = msm::kFacesPerRegistration;
    s.minPersonVectors = std::max(msm::kMinBasisCount, msm::kDefaultBasisCount);
    s.constraintBasisCount = msm::kGenerationBasisCount;
    return s;
}

PatternSettings descriptorSettings() {
    const msm::DescriptorSettings& d = msm::kDescriptorSettings;
    PatternSettings s;
    s.shape = shapeOf(PatternKind::Descriptor);
    s.snapshot.basisCount = d.basisCount;
    s.input.maxSegments = d.inputFrames;
    s.input.distNum = d.distNum;
    // A recognition of descriptors may have a few photos only: the engine's input subspace is
    // its fixed starting basis until the frames after the first basis-count ones move it.
    s.input.solvedBasis = true;
    s.enrolFrames = d.enrolFrames;
    s.minEnrolFrames = d.minEnrolFrames;
    // A person of one photo spans one direction: the similarity compares what it has.
    s.minPersonVectors = 1;
    s.constraintBasisCount = d.constraintBasisCount;
    return s;
}

}  // namespace

const PatternSettings& patternSettings(PatternKind kind) {
    static const PatternSettings seed = seedSettings();
    static const PatternSettings descriptor = descriptorSettings();
    return kind == PatternKind::Descriptor ? descriptor : seed;
}

}  // namespace msmface::detail
