// Hostile threshold files: an accepted value lies in 0 .. 1000 and writes back to itself for the
// kind it was read for; a refused one gives one line of reason. The first byte picks the kind the
// directory holds.
#include <cstddef>
#include <cstdint>
#include <string>

#include "store/threshold_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using msmface::PatternKind;
    const PatternKind kind =
        size > 0 && (data[0] & 1) != 0 ? PatternKind::Descriptor : PatternKind::Seed;
    const std::string text(reinterpret_cast<const char*>(data), size);
    int value = -7;
    const std::string error = msmface::detail::parseThreshold(text, value, kind);
    if (!error.empty()) {
        if (value != -7 || error.find('\n') != std::string::npos) __builtin_trap();
        return 0;
    }
    int again = -1;
    if (value < 0 || value > 1000 ||
        !msmface::detail::parseThreshold(msmface::detail::formatThreshold(value, kind), again,
                                         kind)
             .empty() ||
        again != value)
        __builtin_trap();
    return 0;
}
