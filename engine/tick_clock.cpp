#include "engine/tick_clock.h"

#include <chrono>

namespace msm {

uint32_t tickMilliseconds() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    return static_cast<uint32_t>(static_cast<uint64_t>(ms));
}

}  // namespace msm
