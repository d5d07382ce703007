#include "io/byte_reader.h"

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

const char* kindOfNonFile(mode_t mode) {
    if (S_ISDIR(mode)) return "is a folder, not a file";
    if (S_ISFIFO(mode)) return "is a FIFO, not a file";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "is a device, not a file";
    if (S_ISSOCK(mode)) return "is a socket, not a file";
    return "is not a regular file";
}

namespace {

std::string sizeText(uint64_t bytes, std::size_t maxBytes) {
    const std::string limit =
        maxBytes == kMaxFileBytes ? std::string("1 GiB") : std::to_string(maxBytes) + " bytes";
    return std::to_string(bytes) + " bytes, more than " + limit;
}

}  // namespace

bool readWholeFile(const char* path, std::vector<unsigned char>& out, std::string* why,
                   std::size_t maxBytes) {
    out.clear();
    std::string reason;
    if (path == nullptr) {
        if (why != nullptr) *why = "no file name given";
        return false;
    }
    int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (why != nullptr) *why = std::strerror(errno);
        return false;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        reason = std::strerror(errno);
    else if (!S_ISREG(st.st_mode))
        reason = kindOfNonFile(st.st_mode);
    else if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > maxBytes)
        reason = sizeText(static_cast<uint64_t>(st.st_size), maxBytes);
    if (reason.empty()) {
        out.resize(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < out.size()) {
            ssize_t n = ::read(fd, out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) reason = std::strerror(errno);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        // A file that shrank under us is as good as truncated.
        if (reason.empty() && done != out.size()) reason = "shorter than its size while read";
    }
    ::close(fd);
    if (!reason.empty()) out.clear();
    if (why != nullptr) *why = reason;
    return reason.empty();
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
