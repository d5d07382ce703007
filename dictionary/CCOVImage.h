// A packed symmetric matrix (covariance or correlation) with a binary "COV"/"MOV" file form and a
// text form; the companion of CCSDImage.
//
// Binary form: "COV" or, with a matrix number m >= 1, "MOV"; the 24-character scrambled header of
// a matrix record (MrxPrim.h); only in "MOV": "M%04d" of m with byte i raised by 2(i + 17), then
// (m + m/10 + m/100 + m/1000) mod 5 filler bytes; then the n(n+1)/2 float32 elements.
// Text form: "number order", "date time", then the elements.
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_DICTIONARY_CCOVIMAGE_H
#define MSMFACE_DICTIONARY_CCOVIMAGE_H

#include <cstddef>
#include <cstdint>

class CCOVImage {
  public:
    int32_t number = 0;
    int32_t order = 0;
    int32_t elementCount = 0;   // n(n+1)/2
    int32_t date = 0;           // yyyymmdd
    int32_t time = 0;           // hhmmss
    float* elements = nullptr;  // upper triangle row by row
    int32_t matrixNumber = 0;   // 0 when none

    CCOVImage() = default;
    virtual ~CCOVImage();
    CCOVImage(const CCOVImage&) = delete;
    CCOVImage& operator=(const CCOVImage&) = delete;

    // As MrxPrim::Allocate.
    int Allocate(int order);
    void Release();

    // Binary form when the file starts with "COV" or "MOV", text form otherwise. Returns 1, or 0
    // when the file cannot be opened or does not parse, the order, number or matrix number is
    // negative, or the elements do not fit in the file (the matrix is then released).
    int Read(const char* path);
    int ReadBytes(const unsigned char* data, std::size_t size);
    // Stamps date and time, then writes the binary form atomically. Returns 1, or 0 when the
    // header values or a matrix number above 9999 do not fit their fields, or the write fails.
    int WriteBinary(const char* path);
    // Text form of the members as they are (no stamp); atomic.
    int WriteText(const char* path) const;

  private:
    int ReadBinary(const unsigned char* data, std::size_t size);
    int ReadText(const unsigned char* data, std::size_t size);
};

// Filler bytes after a "MOV" matrix number.
int movFillerLength(int matrixNumber);

#endif  // MSMFACE_DICTIONARY_CCOVIMAGE_H
