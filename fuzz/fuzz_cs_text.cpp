// Hostile "CS" vector files in the text form (anything not starting with "CSF"/"CSD").
#include <cstddef>
#include <cstdint>

#include "dictionary/CCSDImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CCSDImage image;
    image.ReadBytes(data, size, 0, 2);
    image.ReadBytes(data, size, 1, 9);
    image.ReadBytes(data, size, 0, 4);
    return 0;
}
