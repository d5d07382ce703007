// A fixed moment for the date and time stamps that files written meanwhile carry, so that two
// writes of the same content compare byte for byte.
#ifndef MSMFACE_TESTS_COMMON_FIXED_CLOCK_H
#define MSMFACE_TESTS_COMMON_FIXED_CLOCK_H

#include "dictionary/stamp.h"

namespace msmtest {

// The clock reads source while this lives; local time again after.
class FixedClock {
  public:
    explicit FixedClock(msm::ClockSource source) { msm::setClockSource(source); }
    ~FixedClock() { msm::setClockSource(nullptr); }
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;
};

}  // namespace msmtest

#endif  // MSMFACE_TESTS_COMMON_FIXED_CLOCK_H
