// Directories of learned face descriptors: how their persons and inputs are compared, and the one
// step that turns a descriptor handed in by a host into the pattern the recognition compares.
// Every number a measurement over real faces decides is a member of DescriptorSettings below: a
// better measured default is one edit here.
#ifndef MSMFACE_RECOGNITION_DESCRIPTOR_PATTERNS_H
#define MSMFACE_RECOGNITION_DESCRIPTOR_PATTERNS_H

#include <string>

#include <msmface/frame.h>

namespace msm {

// A descriptor is one channel of msmface::kDescriptorSize values.
inline constexpr int kDescriptorChannels = 1;

struct DescriptorSettings {
    // Vectors compared per subspace, the person's and the input's alike (the core takes 3..20).
    int basisCount = 3;
    // Canonical angles averaged into a similarity (1..basisCount).
    int distNum = 1;
    // Frames an input subspace buffers, as for the engine's own patterns.
    int inputFrames = 25;
    // Descriptors an enrolment gathers (frames beyond are not used), and the fewest it accepts:
    // one photo is a person.
    int enrolFrames = 50;
    int minEnrolFrames = 1;
    // A person's leading vectors that enter a constraint space's sums.
    int constraintBasisCount = 3;
    // The identify threshold of a directory that stores none.
    int identifyThreshold = 500;
    // kDescriptorSize values taken away from every descriptor, enrolled and recognised alike,
    // before its direction is taken; null: none. A change of it changes every direction, so the
    // dictionaries of directories made before it would have to be enrolled again.
    const float* centre = nullptr;
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
