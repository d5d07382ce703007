// Hostile "COV"/"MOV" matrix files in the binary form.
#include <cstddef>
#include <cstdint>

#include "dictionary/CCOVImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CCOVImage matrix;
    if (matrix.ReadBytes(data, size) == 1 && matrix.elementCount > 0) {
        volatile float sink = matrix.elements[matrix.elementCount - 1];
        (void)sink;
    }
    return 0;
}
