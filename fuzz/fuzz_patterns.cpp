// Hostile kind files of a dictionary directory: an accepted one names a kind and writes back to
// itself; a refused one gives one line of reason and leaves the kind as it was.
#include <cstddef>
#include <cstdint>
#include <string>

#include "store/patterns_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using msmface::PatternKind;
    const std::string text(reinterpret_cast<const char*>(data), size);
    PatternKind kind = static_cast<PatternKind>(-7);
    const std::string error = msmface::detail::parsePatternKind(text, kind);
    if (!error.empty()) {
        if (kind != static_cast<PatternKind>(-7) || error.find('\n') != std::string::npos)
            __builtin_trap();
        return 0;
    }
    if (kind != PatternKind::Seed && kind != PatternKind::Descriptor) __builtin_trap();
    PatternKind again = static_cast<PatternKind>(-1);
    if (!msmface::detail::parsePatternKind(msmface::detail::formatPatternKind(kind), again)
             .empty() ||
        again != kind)
        __builtin_trap();
    return 0;
}
