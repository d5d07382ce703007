// A list of packed symmetric matrices and its ".mck" file: "MCK", int32 M, then M records
// (MrxPrim.h).
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_DICTIONARY_MTRXCHUNK_H
#define MSMFACE_DICTIONARY_MTRXCHUNK_H

#include <cstddef>
#include <cstdint>

#include "dictionary/MrxPrim.h"

class MtrxChunk {
  public:
    int32_t count = 0;
    MrxPrim* prims = nullptr;  // count matrices, owned
    int32_t* tags = nullptr;   // count ints for the callers, zeroed; not used by the file code

    MtrxChunk() = default;
    virtual ~MtrxChunk();
    MtrxChunk(const MtrxChunk&) = delete;
    MtrxChunk& operator=(const MtrxChunk&) = delete;

    // Releases, then creates count empty matrices and zeroed tags. Returns 1, or 0 for a
    // negative count or when memory runs out.
    int Allocate(int count);
    void Release();

    // how = 1: every record; how = 2: steps over `skip` records by their size field (which
    // counts four bytes too many, so this only finds a record that was laid out that way), then
    // reads one into prims[index]. Returns 1, or 0 when the file cannot be opened, lacks "MCK",
    // or anything does not fit (the chunk is then released).
    int Read(const char* path, int how, int skip, int index);
    int ReadAll(const char* path);
    int ReadBytes(const unsigned char* data, std::size_t size, int how, int skip, int index);
    // Atomic write of every matrix (each stamped with the current date and time). Returns 1, or 0
    // with the old file untouched and no temporary left behind.
    int Write(const char* path);
};

#endif  // MSMFACE_DICTIONARY_MTRXCHUNK_H
