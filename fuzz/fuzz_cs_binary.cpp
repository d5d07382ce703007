// Hostile "CS" vector files in the binary form, read into every layout.
#include <cstddef>
#include <cstdint>

#include "dictionary/CCSDImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CCSDImage image;
    for (int mode = 1; mode <= 10; ++mode) image.ReadBytes(data, size, mode % 3, mode);
    return 0;
}
