// Hostile threshold files: an accepted value lies in 0 .. 1000 and writes back to itself; a
// refused one gives one line of reason.
#include <cstddef>
#include <cstdint>
#include <string>

#include "store/threshold_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    int value = -7;
    const std::string error = msmface::detail::parseThreshold(text, value);
    if (!error.empty()) {
        if (value != -7 || error.find('\n') != std::string::npos) __builtin_trap();
        return 0;
    }
    int again = -1;
    if (value < 0 || value > 1000 ||
        !msmface::detail::parseThreshold(msmface::detail::formatThreshold(value), again).empty() ||
        again != value)
        __builtin_trap();
    return 0;
}
