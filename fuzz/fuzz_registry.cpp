// Hostile registry files (persons.txt): whatever the parser accepts must write back to text that
// parses to the same persons.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "store/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<msmface::Person> persons;
    if (!msmface::detail::parseRegistry(text, persons).empty()) {
        if (!persons.empty()) __builtin_trap();  // a refused file yields no one
        return 0;
    }
    std::vector<msmface::Person> again;
    if (!msmface::detail::parseRegistry(msmface::detail::formatRegistry(persons), again).empty() ||
        again.size() != persons.size())
        __builtin_trap();
    for (std::size_t i = 0; i < persons.size(); ++i)
        if (again[i].id != persons[i].id || again[i].name != persons[i].name ||
            !msmface::detail::validKeyName(persons[i].name) || persons[i].id < 1)
            __builtin_trap();
    return 0;
}
