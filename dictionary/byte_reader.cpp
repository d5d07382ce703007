#include "dictionary/byte_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "file values are copied as little-endian host values");

namespace msm {

bool countFits(int64_t count, int64_t unitBytes, std::size_t available) {
    if (count < 0 || unitBytes < 0) return false;
    if (count == 0 || unitBytes == 0) return true;
    return static_cast<uint64_t>(count) <=
           static_cast<uint64_t>(available) / static_cast<uint64_t>(unitBytes);
}

bool readWholeFile(const char* path, std::vector<unsigned char>& out) {
    out.clear();
    if (path == nullptr) return false;
    int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0 &&
              static_cast<uint64_t>(st.st_size) <= kMaxFileBytes;
    if (ok) {
        out.resize(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < out.size()) {
            ssize_t n = ::read(fd, out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        // A file that shrank under us is as good as truncated.
        if (done != out.size()) ok = false;
    }
    ::close(fd);
    if (!ok) out.clear();
    return ok;
}

bool ByteReader::readBytes(void* dst, std::size_t n) {
    if (n > remaining()) return false;
    if (n != 0) std::memcpy(dst, data_ + pos_, n);
    pos_ += n;
    return true;
}

bool ByteReader::expect(const char* expected, std::size_t n) {
    if (remaining() < n || std::memcmp(data_ + pos_, expected, n) != 0) return false;
    pos_ += n;
    return true;
}

bool ByteReader::readInt32(int32_t& v) {
    return readBytes(&v, sizeof v);
}

bool ByteReader::readFloats(float* dst, std::size_t n) {
    if (!fits(static_cast<int64_t>(n), sizeof(float))) return false;
    return readBytes(dst, n * sizeof(float));
}

bool ByteReader::readDoubles(double* dst, std::size_t n) {
    if (!fits(static_cast<int64_t>(n), sizeof(double))) return false;
    return readBytes(dst, n * sizeof(double));
}

bool ByteReader::skip(std::size_t n) {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
}

TextReader::TextReader(const unsigned char* data, std::size_t size)
    : text_(reinterpret_cast<const char*>(data), size) {}

std::size_t TextReader::remaining() const {
    return text_.size() - pos_;
}

bool TextReader::readInt(int32_t& v) {
    const char* start = text_.c_str() + pos_;
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(start, &end, 10);
    if (end == start || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) return false;
    v = static_cast<int32_t>(value);
    pos_ += static_cast<std::size_t>(end - start);
    return true;
}

bool TextReader::readDouble(double& v) {
    const char* start = text_.c_str() + pos_;
    char* end = nullptr;
    v = std::strtod(start, &end);
    if (end == start) return false;
    pos_ += static_cast<std::size_t>(end - start);
    return true;
}

bool TextReader::readFloat(float& v) {
    const char* start = text_.c_str() + pos_;
    char* end = nullptr;
    v = std::strtof(start, &end);
    if (end == start) return false;
    pos_ += static_cast<std::size_t>(end - start);
    return true;
}

}  // namespace msm
