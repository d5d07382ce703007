// One set of equal-length vectors (a channel's basis, a constraint space's eigenvectors, a column
// of eigenvalues), held in one of four storage layouts, and its record in a ".dck" file.
//
// Threads. No locks: one thread at a time per object; distinct objects are independent.
#ifndef MSMFACE_DICTIONARY_DICPRIM_H
#define MSMFACE_DICTIONARY_DICPRIM_H

#include <cstdint>
#include <cstdio>

namespace msm {
class ByteReader;
}

// Storage layouts. Only the rows of the current mode exist; the others stay null.
enum DicPrimMode : int32_t {
    kDicPrimDouble = 1,  // drows: count rows of dim doubles
    kDicPrimFloat = 2,   // frows: count rows of dim floats
    kDicPrimShort = 3,   // srows: Q14 values, rows 32-byte aligned, zero-filled to paddedLength
    kDicPrimAlignedFloat = 7,  // arows: rows 16-byte aligned, zero-filled to paddedLength
};

class DicPrim {
  public:
    int32_t dim = 0;    // vector length
    int32_t count = 0;  // number of vectors
    // Row arrays hold count + 1 pointers, the last one null, so each can be handed to the numeric
    // toolkit as a matrix.
    double** drows = nullptr;
    float** frows = nullptr;
    short** srows = nullptr;    // multiple-of-32 row length (what mmxdotp walks)
    float** arows = nullptr;    // multiple-of-16 row length
    int32_t allocatedRows = 0;  // rows that exist in the current mode's array
    int32_t paddedLength = 0;   // row length as allocated (dim for modes 1 and 2)
    int32_t mode = 0;           // 1, 2, 3 or 7; 0 when nothing is allocated
    int32_t nanFlag = 0;        // 1 when the last read met a NaN (the rows were then zeroed)

    // Fixed-point shadow of the float rows, made once when a person's dictionary is loaded so
    // that recognition converts only the input side per frame: count rows of qLength Q14 values
    // (value x 16384 truncated toward zero), 32-byte aligned, zero beyond dim. Null until
    // PrepareQ14Rows; released and copied with the rows.
    short** qrows = nullptr;
    int32_t qLength = 0;

    DicPrim() = default;
    // As Allocate(dim, count, mode).
    DicPrim(int dim, int count, int mode);
    virtual ~DicPrim();
    DicPrim(const DicPrim&) = delete;
    DicPrim& operator=(const DicPrim&) = delete;

    // Releases, then sets dim, count and mode and allocates the rows of that mode (their
    // contents are zero). An unknown mode allocates nothing and returns 1 (the mode is kept).
    // Returns 0 for negative sizes and, after printing "cannot malloc.", when memory runs out; the
    // object is then released.
    int Allocate(int dim, int count, int mode);
    // Frees every row array and the Q14 shadow; allocatedRows, paddedLength, mode and nanFlag
    // become 0, dim and count keep their values.
    void Release();
    // Deep copy of other's rows (dim values for modes 1 and 2, paddedLength for 3 and 7) and of
    // its Q14 shadow. Copying an object onto itself does nothing. Returns 1, or 0 when memory
    // runs out (this object is then released).
    int CopyFrom(const DicPrim& other);
    // The float rows of modes 2 and 7; null in the other modes.
    float* const* FloatRows() const {
        return mode == kDicPrimFloat ? frows : mode == kDicPrimAlignedFloat ? arows : nullptr;
    }
    // Builds qrows from the rows of modes 1, 2 or 7. Returns 1, or 0 for another mode or when
    // memory runs out.
    int PrepareQ14Rows();

    // Reads one record body (stored mode, N, D, N x D floats) at the reader's position, keeping
    // the first min(limit, N) vectors (all when limit <= 0) in the given mode and stepping over
    // the rest. Returns 1, 2 when a NaN zeroed the kept rows (modes 2 and 7), or 0 when the
    // record does not fit in what is left of the input, has negative sizes, or memory runs out;
    // on 0 the object is released with count 0.
    int ReadRecord(msm::ByteReader& in, int limit, int mode);
    // Writes one record, size field included, of min(limit, count) vectors (all when
    // limit <= 0) converted from the rows of the given mode. Returns 1, or 0 when the mode is not
    // one of the four, its rows do not hold the vectors to write, or the stream fails.
    int WriteRecord(std::FILE* f, int limit, int mode) const;
};

#endif  // MSMFACE_DICTIONARY_DICPRIM_H
