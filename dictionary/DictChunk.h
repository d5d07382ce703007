// A list of vector sets and its ".dck" file: a person's dictionary (one set per pattern
// channel), a constraint space's basis, or a column of eigenvalues (".dckev", one-element
// vectors).
//
// File layout, little-endian: "DCK", int32 P, then P records of
//   int32 S = 12 + 4*N*D (bytes that follow this field), int32 writer's mode, int32 N, int32 D,
//   N*D float32 values, vector after vector.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_DICTIONARY_DICTCHUNK_H
#define MSMFACE_DICTIONARY_DICTCHUNK_H

#include <cstddef>
#include <cstdint>

#include "dictionary/DicPrim.h"

class DictChunk {
  public:
    int32_t count = 0;         // number of primitives
    DicPrim* prims = nullptr;  // count primitives, owned
    int32_t* tags = nullptr;   // one int per primitive for the callers; copied, never read here
    int32_t mode = kDicPrimAlignedFloat;  // storage mode used by reads
    int32_t limit = 0;            // at most this many vectors kept per primitive on read; 0 = all
    int32_t* nanFlags = nullptr;  // 1 for a primitive whose read met a NaN

    DictChunk() = default;
    virtual ~DictChunk();
    DictChunk(const DictChunk&) = delete;
    DictChunk& operator=(const DictChunk&) = delete;

    // Sets count and creates count empty primitives, zeroed tags and zeroed NaN flags. Arrays of
    // the same count that already exist are kept as they are (with their contents); a different
    // count releases them first. Returns 1, or 0 for a negative count or when memory runs out
    // (then the chunk is released).
    int Allocate(int count);
    // Releases every primitive and the arrays; count becomes 0, mode and limit are kept.
    void Release();
    void SetModeAndLimit(int mode, int limit);

    // how = 1: reads every record of the file into prims (with this chunk's mode and limit).
    // how = 2: steps over `skip` records, then reads the next one into prims[index]; the other
    // primitives stay empty.
    // Returns 1 on success; 0 when the file cannot be opened, does not start with "DCK", or any
    // count, size or index does not fit the file (then the chunk is released, count 0). A NaN
    // met in a record sets that primitive's NaN flag and still succeeds.
    int Read(const char* path, int how, int skip, int index);
    int ReadAll(const char* path);
    // Read from bytes already in memory (the file readers and the fuzzers share it).
    int ReadBytes(const unsigned char* data, std::size_t size, int how, int skip, int index);

    // Writes the file atomically (a temporary beside the target, flushed to disk, renamed over
    // it): either the whole new file is there, or the old one untouched. Records as
    // DicPrim::WriteRecord(limit, mode). Returns 1, or 0 (no temporary is left behind).
    int Write(const char* path, int limit, int mode) const;

    // Deep copy of other's primitives and tags (mode, limit and NaN flags are not copied); a
    // self-copy does nothing. Returns 1, or 0 when memory runs out (the chunk is then released).
    int CopyFrom(const DictChunk& other);
};

#endif  // MSMFACE_DICTIONARY_DICTCHUNK_H
