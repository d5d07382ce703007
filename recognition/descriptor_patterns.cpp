#include "recognition/descriptor_patterns.h"

#include <cfloat>
#include <cmath>
#include <cstdio>

namespace msm {

std::string descriptorPattern(const msmface::FaceDescriptor& descriptor, float* pattern,
                              const float* centre) {
    // In double: the squares of values near the float limit must not overflow before they are
    // refused, nor those of tiny values vanish before their direction is taken.
    double values[msmface::kDescriptorSize];
    double squares = 0.0;
    for (std::size_t i = 0; i < descriptor.size(); ++i) {
        const float v = descriptor[i];
        if (!std::isfinite(v)) {
            char text[16];
            std::snprintf(text, sizeof text, "%g", static_cast<double>(v));
            return "descriptor value " + std::to_string(i + 1) + " of " +
                   std::to_string(descriptor.size()) + " is " + text + ", expected a finite number";
        }
        values[i] = v;
        squares += values[i] * values[i];
    }
    if (squares == 0.0)
        return "descriptor: every value is 0, expected a direction (a non-zero length)";
    // The recognition works on squared values in float: a descriptor whose squared length
    // does not fit one is no face any finder gives.
    if (squares > static_cast<double>(FLT_MAX))
        return "descriptor: its length is too large (its square exceeds the float range)";
    // The centre is a point among unit descriptors: a host's descriptor of any length is first
    // brought to unit length, so that its scale never moves it relative to the centre.
    double length = std::sqrt(squares);
    if (centre != nullptr) {
        squares = 0.0;
        for (std::size_t i = 0; i < descriptor.size(); ++i) {
            values[i] = values[i] / length - centre[i];
            squares += values[i] * values[i];
        }
        if (!(squares > 1e-12))
            return "descriptor: its direction is the centre's, expected a face's direction";
        length = std::sqrt(squares);
    }
    for (std::size_t i = 0; i < descriptor.size(); ++i)
        pattern[i] = static_cast<float>(values[i] / length);
    return {};
}

}  // namespace msm
