// Software prefetch of the persons' fixed-point dictionaries while the persons before them are
// scored. A dictionary row is reached through three dependent pointers (the chunk's primitives,
// a primitive's row array, the row), and each person's rows are separate blocks the hardware
// cannot predict; the scoring loop therefore runs a three-stage pipeline, one pointer level per
// person ahead, so that every load it waits for was requested a person or more earlier.
#ifndef MSMFACE_RECOGNITION_DICTIONARY_PREFETCH_H
#define MSMFACE_RECOGNITION_DICTIONARY_PREFETCH_H

#include <algorithm>

#include "dictionary/DictChunk.h"

namespace msm {

// Which rows of a primitive are scored: the Q14 shadow of a person's own dictionary, or the Q14
// rows of a projected one.
using PrimRows = short** DicPrim::*;

inline void prefetchLine(const char* p) {
#if defined(__x86_64__) || defined(__i386__)
    // volatile: a loop of nothing but __builtin_prefetch counts as free of effects and is
    // deleted by the optimiser.
    __asm__ volatile("prefetcht0 %0" : : "m"(*p));
#elif defined(__GNUC__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

inline void prefetchBlock(const void* p, int bytes) {
    const char* c = static_cast<const char*>(p);
    for (int off = 0; off < bytes; off += 64) prefetchLine(c + off);
}

class DictionaryPrefetcher {
  public:
    // rowBytes: the bytes of each row the scoring reads; rows: how many rows of each primitive.
    DictionaryPrefetcher(PrimRows rowsOf, int channels, int rows, int rowBytes)
        : rowsOf_(rowsOf), channels_(channels), rows_(rows), rowBytes_(rowBytes) {}

    // Call before scoring `current`; chunkAt(i) gives person i's chunk or null.
    template <typename ChunkAt>
    void Ahead(int current, int personCount, ChunkAt chunkAt) const {
        if (current + 3 < personCount) Primitives(chunkAt(current + 3));
        if (current + 2 < personCount) RowArrays(chunkAt(current + 2));
        if (current + 1 < personCount) Rows(chunkAt(current + 1));
    }

  private:
    void Primitives(const DictChunk* chunk) const {
        if (chunk == nullptr || chunk->prims == nullptr) return;
        prefetchBlock(chunk->prims,
                      static_cast<int>(sizeof(DicPrim)) * std::min(chunk->count, channels_));
    }
    void RowArrays(const DictChunk* chunk) const {
        if (chunk == nullptr || chunk->prims == nullptr) return;
        for (int c = 0; c < std::min(chunk->count, channels_); ++c) {
            short** rows = chunk->prims[c].*rowsOf_;
            if (rows != nullptr) prefetchBlock(rows, static_cast<int>(sizeof(short*)) * rows_);
        }
    }
    void Rows(const DictChunk* chunk) const {
        if (chunk == nullptr || chunk->prims == nullptr) return;
        for (int c = 0; c < std::min(chunk->count, channels_); ++c) {
            const DicPrim& prim = chunk->prims[c];
            short** rows = prim.*rowsOf_;
            if (rows == nullptr) continue;
            const int n = std::min({rows_, prim.count, prim.allocatedRows});
            for (int k = 0; k < n; ++k) prefetchBlock(rows[k], rowBytes_);
        }
    }

    PrimRows rowsOf_;
    int channels_;
    int rows_;
    int rowBytes_;
};

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_DICTIONARY_PREFETCH_H
