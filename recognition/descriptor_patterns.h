// Directories of learned face descriptors: how their persons and inputs are compared, and the one
// step that turns a descriptor handed in by a host into the pattern the recognition compares.
// Every number a measurement over real faces decides is a member of DescriptorSettings below: a
// better measured default is one edit here.
#ifndef MSMFACE_RECOGNITION_DESCRIPTOR_PATTERNS_H
#define MSMFACE_RECOGNITION_DESCRIPTOR_PATTERNS_H

#include <string>

#include <msmface/frame.h>

#include "data/descriptor_centre.h"

namespace msm {

// A descriptor is one channel of msmface::kDescriptorSize values.
inline constexpr int kDescriptorChannels = 1;

struct DescriptorSettings {
    // Vectors compared per subspace, the person's and the input's alike (the core takes 3..20).
    // Measured on real faces (tools/descriptor_study.py): 2 and 3 alike, 5 and 7 lose 1-4 points
    // of rank-1 once centred; 1 would be the mean-descriptor comparison again.
    int basisCount = 3;
    // Canonical angles averaged into a similarity (1..basisCount). 1: more loses badly, and
    // divides the scores of persons enrolled from fewer faces than it (one photo: one vector).
    int distNum = 1;
    // Frames an input subspace buffers, as for the engine's own patterns.
    int inputFrames = 25;
    // Descriptors an enrolment gathers (frames beyond are not used), and the fewest it accepts:
    // one photo is a person.
    int enrolFrames = 50;
    int minEnrolFrames = 1;
    // A person's leading vectors that enter a constraint space's sums.
    int constraintBasisCount = 3;
    // The identify threshold of a directory that stores none: the equal error point of persons
    // enrolled from a few videos (about 2 % of impostors above it, 98 % of the persons); for
    // persons enrolled from one photo it lets 0.4 % of impostors through and 77 % of the persons.
    int identifyThreshold = 450;
    // kDescriptorSize values taken away from every unit descriptor, enrolled and recognised
    // alike, before its direction is taken; null: none. Without it different persons' cosines sit
    // at 0.8-0.9 and every score between 750 and 950; from the shipped centre impostors score
    // about 160 and the same person about 700, and the equal error rate falls from 3.0 to 2.0 %.
    // A change of it changes every direction: directories made before it would have to be
    // enrolled again.
    const float* centre = kDescriptorCentre;
};

inline constexpr DescriptorSettings kDescriptorSettings{};

// Writes into pattern (kDescriptorSize floats) the descriptor as the recognition compares it: its
// direction, of unit length, after centre (kDescriptorSize values, or null) is taken away.
// Returns an empty string, or one line saying why the values are no descriptor: a value that is
// not finite, no length (left), or a length too large for float arithmetic.
std::string descriptorPattern(const msmface::FaceDescriptor& descriptor, float* pattern,
                              const float* centre = kDescriptorSettings.centre);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_DESCRIPTOR_PATTERNS_H
