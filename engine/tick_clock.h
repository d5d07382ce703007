// The frame timer: a monotonic millisecond count that wraps at 2^32, so durations are taken as
// unsigned differences.
#ifndef MSMFACE_ENGINE_TICK_CLOCK_H
#define MSMFACE_ENGINE_TICK_CLOCK_H

#include <cstdint>

namespace msm {

uint32_t tickMilliseconds();

// Milliseconds from start to end across a wrap of the counter.
inline int32_t elapsedMilliseconds(uint32_t start, uint32_t end) {
    return static_cast<int32_t>(end - start);
}

}  // namespace msm

#endif  // MSMFACE_ENGINE_TICK_CLOCK_H
