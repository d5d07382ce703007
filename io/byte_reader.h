// The one place where sizes read from files are checked against what the file can hold, so that
// a truncated or hostile file is rejected before it drives a read past the end or an allocation
// larger than itself.
#ifndef MSMFACE_IO_BYTE_READER_H
#define MSMFACE_IO_BYTE_READER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace msm {

// Files above this size are refused outright: no container of the engine comes near it.
constexpr std::size_t kMaxFileBytes = std::size_t{1} << 30;

// True when count items of unitBytes each fit in `available` bytes (negative values never fit).
bool countFits(int64_t count, int64_t unitBytes, std::size_t available);

// What a file of this mode is instead of a regular file, in a few words ("is a FIFO, not a file").
const char* kindOfNonFile(mode_t mode);

// Reads the whole regular file at path into out. It is opened without blocking and its kind and
// size are checked before a byte is read. False when it cannot be opened, is not a regular file (a
// pipe or a device would block or never end), holds more than maxBytes or reads short; why (when
// given) then says which in a few words ("is a FIFO", "Permission denied", "3000000000 bytes,
// more than 1 GiB"), for a message that names the file first.
bool readWholeFile(const char* path, std::vector<unsigned char>& out, std::string* why = nullptr,
                   std::size_t maxBytes = kMaxFileBytes);

// Reads the file as readWholeFile does and hands its bytes to parse(data, size); 0 when the file
// cannot be read, else what parse returns. Every container's Read(path) is this over its
// ReadBytes.
template <typename Parse>
int parseWholeFile(const char* path, Parse parse) {
    std::vector<unsigned char> bytes;
    if (!readWholeFile(path, bytes)) return 0;
    return parse(bytes.data(), bytes.size());
}

// Little-endian cursor over bytes in memory; every read checks what is left and fails instead of
// going past the end (the position is then unchanged).
class ByteReader {
  public:
    ByteReader(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}

    std::size_t remaining() const { return size_ - pos_; }
    std::size_t position() const { return pos_; }
    bool fits(int64_t count, int64_t unitBytes) const {
        return countFits(count, unitBytes, remaining());
    }

    bool readBytes(void* dst, std::size_t n);
    // Consumes n bytes when they equal `expected` (a file signature); otherwise fails unmoved.
    bool expect(const char* expected, std::size_t n);
    bool readInt32(int32_t& v);
    bool readFloats(float* dst, std::size_t n);
    bool readDoubles(double* dst, std::size_t n);
    bool skip(std::size_t n);

  private:
    const unsigned char* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// Cursor over a text file's characters in the manner of "%d" and "%lf": leading white space is
// skipped, a number that does not parse (or an integer out of the int32 range) fails.
class TextReader {
  public:
    TextReader(const unsigned char* data, std::size_t size);

    // Bytes not yet consumed: each further number needs at least one of them.
    std::size_t remaining() const;
    bool readInt(int32_t& v);
    bool readDouble(double& v);
    bool readFloat(float& v);

  private:
    std::string text_;
    std::size_t pos_ = 0;
};

}  // namespace msm

#endif  // MSMFACE_IO_BYTE_READER_H
