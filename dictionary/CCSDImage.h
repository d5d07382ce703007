// A set of vectors held in up to five element layouts at once, with a binary "CS" file form and a
// text form; the store of the constraint-space reset.
//
// Binary form: "CS", 'F' (float32 values) or 'D' (float64), ten header characters ("%05d%05d" of
// count and dim, reversed, each raised by 40), then per vector k its dim values followed by
// f(k) = (digit k mod 10 of the header text) + 1 filler bytes.
// Text form: "count dim", then count x dim numbers.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_DICTIONARY_CCSDIMAGE_H
#define MSMFACE_DICTIONARY_CCSDIMAGE_H

#include <cstddef>
#include <cstdint>

class CCSDImage {
  public:
    static constexpr int kMaxVectors = 10000;

    int32_t tag1 = 0;  // set by Allocate, 0 from the readers; the caller's
    int32_t tag2 = 0;
    int32_t dim = 0;
    // Row arrays (pointer arrays null-terminated after count rows):
    double** drows = nullptr;  // modes 1 and 4: dim doubles
    float** frows = nullptr;   // modes 2 and 5: dim floats
    short** srows = nullptr;   // modes 3 and 6: (dim/16 + 1)*16 Q14 values, zero-filled
    float** afrows = nullptr;  // modes 7 and 8: (count/16 + 1)*16 pointers, rows of
                               // (dim/16 + 1)*16 floats, all 16-byte aligned, zero-filled
    short** asrows = nullptr;  // modes 9 and 10: (count/32 + 1)*32 pointers, rows of
                               // (dim/32 + 1)*32 Q14 values, all 32-byte aligned, zero-filled
    // The padded lengths always add a whole block (32 for dim 16): kept, the vectorised reset
    // code reads that layout.
    //
    // Three-level arrays [outer][inner] -> row, filled by the constraint-space reset and released
    // here. requires: every level came from malloc (the last two levels' rows may come from
    // posix_memalign); null entries are allowed.
    double*** dsets = nullptr;
    float*** fsets = nullptr;
    short*** ssets = nullptr;
    float*** afsets = nullptr;
    short*** assets = nullptr;
    int32_t outerCount = 0;
    int32_t count = 0;
    int32_t innerCount = 0;

    CCSDImage() = default;
    virtual ~CCSDImage();
    CCSDImage(const CCSDImage&) = delete;
    CCSDImage& operator=(const CCSDImage&) = delete;

    // Modes 1, 2, 3, 7 and 9 release every row array first; 4, 5, 6, 8 and 10 add their layout
    // beside the existing ones (replacing only their own). Stores the tags, dim and count
    // (innerCount = count). Returns 1, or 0 for a mode outside 1..10, negative sizes or when
    // memory runs out.
    int Allocate(int tag1, int tag2, int dim, int count, int mode);
    // Releases the row arrays and the three-level arrays.
    void Release();

    // Reads the binary form when the file starts with "CSF" or "CSD", the text form otherwise,
    // keeping min(limit, count) vectors (all when limit <= 0) in the given mode. Returns 1, or 0
    // when the file cannot be opened, the count exceeds kMaxVectors, anything does not fit in
    // the file, or the mode is unknown.
    int Read(const char* path, int limit, int mode);
    int ReadBytes(const unsigned char* data, std::size_t size, int limit, int mode);
    // Binary form ("CSF") of min(limit, count) vectors (all when limit <= 0) taken from the rows
    // of the given mode; atomic. Returns 1, or 0 when the rows are missing, more than kMaxVectors
    // vectors or a dim above 99999 would be written, or the write fails.
    int WriteBinary(const char* path, int limit, int mode) const;
    // Text form with every value in full precision; atomic. Same results as WriteBinary.
    int WriteText(const char* path, int limit, int mode) const;

  private:
    void ReleaseRows();
    bool ValueAt(int mode, int k, int i, double& value) const;
    bool StoreAt(int mode, int k, int i, double value);
};

// Filler bytes after vector k of a binary file whose unscrambled header is headerText (ten
// digits).
int csFillerLength(const char* headerText, int k);

#endif  // MSMFACE_DICTIONARY_CCSDIMAGE_H
