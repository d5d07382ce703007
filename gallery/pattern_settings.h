// How a gallery recognises the patterns of its directory's kind: the engine's own as the legacy
// engine does, descriptors as msm::kDescriptorSettings says (where the measured defaults live).
#ifndef MSMFACE_GALLERY_PATTERN_SETTINGS_H
#define MSMFACE_GALLERY_PATTERN_SETTINGS_H

#include <msmface/store.h>

#include "core/input.h"
#include "core/snapshot.h"

namespace msmface::detail {

struct PatternSettings {
    core::PatternShape shape;
    core::SnapshotOptions snapshot;  // the basis count compared
    core::InputOptions input;        // frames an input buffers, canonical angles averaged
    int enrolFrames = 0;             // faces an enrolment gathers; frames beyond are not used
    int minEnrolFrames = 0;          // the fewest faces an enrolment makes a person of
    int minPersonVectors = 0;        // directions a new person's faces must span
    int constraintBasisCount = 0;    // a person's leading vectors in a constraint space's sums
};

const PatternSettings& patternSettings(PatternKind kind);

}  // namespace msmface::detail

#endif  // MSMFACE_GALLERY_PATTERN_SETTINGS_H
