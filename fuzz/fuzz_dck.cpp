// Hostile ".dck" bytes: whole-file and single-record reads in every storage mode, with and
// without a vector limit.
#include <cstddef>
#include <cstdint>

#include "dictionary/DictChunk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int kModes[] = {1, 2, 3, 7};
    DictChunk chunk;
    for (int mode : kModes) {
        chunk.SetModeAndLimit(mode, mode == 2 ? 20 : 0);
        if (chunk.ReadBytes(data, size, 1, 0, 0) == 1) {
            volatile float sink = 0;
            for (int p = 0; p < chunk.count; ++p) {
                DicPrim& prim = chunk.prims[p];
                if (prim.count > 0 && prim.dim > 0 && prim.frows != nullptr)
                    sink = sink + prim.frows[prim.count - 1][prim.dim - 1];
                prim.PrepareQ14Rows();
            }
        }
        chunk.ReadBytes(data, size, 2, 1, 1);
    }
    return 0;
}
