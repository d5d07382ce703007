// The frame timer: a monotonic millisecond count that wraps at 2^32, so durations are taken as
// unsigned differences.
#ifndef MSMFACE_ENGINE_TICK_CLOCK_H
#define MSMFACE_ENGINE_TICK_CLOCK_H

#include <cstdint>

namespace msm {

uint32_t tickMilliseconds();

// Replaces the steady clock behind tickMilliseconds, so that a test can make time pass by a
// known amount inside a call; nullptr puts the steady clock back.
using TickSource = uint32_t (*)();
void setTickSource(TickSource source);

// Milliseconds from start to end across a wrap of the counter.
inline int32_t elapsedMilliseconds(uint32_t start, uint32_t end) {
    return static_cast<int32_t>(end - start);
}

}  // namespace msm

#endif  // MSMFACE_ENGINE_TICK_CLOCK_H
