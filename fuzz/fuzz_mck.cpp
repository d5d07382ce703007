// Hostile ".mck" bytes: whole-file and single-record reads.
#include <cstddef>
#include <cstdint>

#include "dictionary/MtrxChunk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MtrxChunk chunk;
    if (chunk.ReadBytes(data, size, 1, 0, 0) == 1) {
        volatile float sink = 0;
        for (int i = 0; i < chunk.count; ++i)
            if (chunk.prims[i].elementCount > 0)
                sink = sink + chunk.prims[i].elements[chunk.prims[i].elementCount - 1];
    }
    chunk.ReadBytes(data, size, 2, 1, 0);
    return 0;
}
