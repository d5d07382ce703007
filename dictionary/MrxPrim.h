// A packed symmetric matrix (a person's accumulated autocorrelation, a constraint space's class
// data) and its record in a ".mck" file.
//
// Record layout, little-endian: int32 S = 28 + 4*E, 24 header characters, E float32 elements.
// S counts four bytes more than follow it: kept, files in the field carry this value and
// readers that skip records honour it.
// Header: "%05d%05d%8d%6d" of number, order, date, time, each character raised by 40 and the 24
// characters stored in reverse order.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_DICTIONARY_MRXPRIM_H
#define MSMFACE_DICTIONARY_MRXPRIM_H

#include <cstdint>
#include <cstdio>

namespace msm {
class ByteReader;
}

class MrxPrim {
  public:
    int32_t number = 0;        // set by the caller before writing (patterns accumulated)
    int32_t order = 0;         // n
    int32_t elementCount = 0;  // n(n+1)/2
    int32_t date = 0;          // yyyymmdd, stamped when written
    int32_t time = 0;          // hhmmss, stamped when written
    // Upper triangle row by row: (0,0), (0,1) ... (0,n-1), (1,1) ... (n-1,n-1).
    float* elements = nullptr;

    MrxPrim() = default;
    virtual ~MrxPrim();
    MrxPrim(const MrxPrim&) = delete;
    MrxPrim& operator=(const MrxPrim&) = delete;

    // Releases, then allocates elementCount uninitialised elements for the order. Returns 1, or 0
    // for a negative order, one whose element count does not fit, or when memory runs out.
    int Allocate(int order);
    void Release();

    // Stamps date and time with the local clock, then writes the record. Returns 1, or 0 when
    // number does not fit five characters (-9999..99999), the elements are missing, or the
    // stream fails.
    int WriteRecord(std::FILE* f);
    // Reads the record after its size field S (passed in, already read): header, then elements.
    // Returns 1, or 0 when the header does not parse, the order is negative, S is not 28 + 4*E
    // or the elements do not fit in what is left (the object is then released).
    int ReadRecord(msm::ByteReader& in, int32_t sizeField);
};

#endif  // MSMFACE_DICTIONARY_MRXPRIM_H
