// The core's failures, worded once: an argument that does not fit, memory that ran out.
#ifndef MSMFACE_CORE_STATUS_H
#define MSMFACE_CORE_STATUS_H

#include <string>

#include <msmface/result.h>

#include "recognition/MSMRecognition.h"

namespace msmface::core {

inline Status argumentFailure(std::string message) {
    return Status::failure(ErrorKind::Argument, std::move(message));
}

inline Status noMemory(const std::string& what) {
    return Status::failure(ErrorKind::Internal, "out of memory for " + what);
}

// Success, or the refusal of a basis count the similarity cannot take.
inline Status checkBasisCount(int K) {
    if (K >= msm::kMinBasisCount && K <= msm::kMaxBasisCount) return {};
    return argumentFailure("basis count " + std::to_string(K) + ": expected " +
                           std::to_string(msm::kMinBasisCount) + ".." +
                           std::to_string(msm::kMaxBasisCount));
}

}  // namespace msmface::core

#endif  // MSMFACE_CORE_STATUS_H
