#include "dictionary/CCOVImage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/packed_triangle.h"
#include "dictionary/rows.h"
#include "dictionary/stamp.h"

namespace {

constexpr std::size_t kNumberBytes = 5;  // "M%04d"
constexpr int kMaxMatrixNumber = 9999;

unsigned char numberOffset(std::size_t i) {
    return static_cast<unsigned char>(2 * (i + 17));
}

}  // namespace

int movFillerLength(int m) {
    return (m + m / 10 + m / 100 + m / 1000) % 5;
}

CCOVImage::~CCOVImage() {
    Release();
}

void CCOVImage::Release() {
    std::free(elements);
    elements = nullptr;
    elementCount = 0;
}

int CCOVImage::Allocate(int n) {
    Release();
    // Its byte count must fit the 32-bit sizes the readers work with.
    if (!msm::allocatePackedTriangle(n, 0, elements, elementCount)) return 0;
    order = n;
    return 1;
}

int CCOVImage::Read(const char* path) {
    return msm::parseWholeFile(
        path, [&](const unsigned char* data, std::size_t size) { return ReadBytes(data, size); });
}

int CCOVImage::ReadBytes(const unsigned char* data, std::size_t size) {
    bool binary =
        size >= 3 && (data[0] == 'C' || data[0] == 'M') && data[1] == 'O' && data[2] == 'V';
    int result = binary ? ReadBinary(data, size) : ReadText(data, size);
    if (result == 0) Release();
    return result;
}

int CCOVImage::ReadBinary(const unsigned char* data, std::size_t size) {
    msm::ByteReader in(data, size);
    unsigned char signature[3];
    unsigned char header[msm::kMatrixHeaderChars];
    char text[msm::kMatrixHeaderChars];
    int32_t n = 0, o = 0, d = 0, t = 0;
    if (!in.readBytes(signature, 3) || !in.readBytes(header, sizeof header)) return 0;
    msm::unscrambleText(header, sizeof header, text);
    if (!msm::parseMatrixHeader(text, n, o, d, t) || o < 0) return 0;
    int m = 0;
    if (signature[0] == 'M') {
        unsigned char raw[kNumberBytes];
        if (!in.readBytes(raw, sizeof raw)) return 0;
        char digits[kNumberBytes];  // the four characters after the 'M', terminated
        for (std::size_t i = 1; i < kNumberBytes; ++i)
            digits[i - 1] = static_cast<char>(static_cast<unsigned char>(raw[i] - numberOffset(i)));
        digits[kNumberBytes - 1] = '\0';
        if (std::sscanf(digits, "%d", &m) != 1 || m < 0) return 0;
        if (!in.skip(static_cast<std::size_t>(movFillerLength(m)))) return 0;
    }
    int64_t e = msm::packedElements(o);
    if (!in.fits(e, sizeof(float)) || !Allocate(o)) return 0;
    in.readFloats(elements, static_cast<std::size_t>(e));
    number = n;
    date = d;
    time = t;
    matrixNumber = m;
    return 1;
}

int CCOVImage::ReadText(const unsigned char* data, std::size_t size) {
    msm::TextReader in(data, size);
    int32_t n = 0, o = 0, d = 0, t = 0;
    if (!in.readInt(n) || !in.readInt(o) || !in.readInt(d) || !in.readInt(t)) return 0;
    if (n < 0 || o < 0) return 0;
    int64_t e = msm::packedElements(o);
    // Each number takes at least one character.
    if (!msm::countFits(e, 1, in.remaining()) || !Allocate(o)) return 0;
    for (int64_t i = 0; i < e; ++i)
        if (!in.readFloat(elements[i])) return 0;
    number = n;
    date = d;
    time = t;
    matrixNumber = 0;
    return 1;
}

int CCOVImage::WriteBinary(const char* path) {
    msm::DateStamp stamp = msm::currentStamp();
    date = stamp.date;
    time = stamp.time;
    char text[msm::kMatrixHeaderChars];
    if (!msm::formatMatrixHeader(number, order, date, time, text)) return 0;
    if (elementCount != msm::packedElements(order) || (elementCount > 0 && elements == nullptr))
        return 0;
    if (matrixNumber > kMaxMatrixNumber) return 0;
    unsigned char header[msm::kMatrixHeaderChars];
    msm::scrambleText(text, sizeof text, header);
    bool numbered = matrixNumber >= 1;
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok =
        msm::writeAll(f, numbered ? "MOV" : "COV", 3) && msm::writeAll(f, header, sizeof header);
    if (ok && numbered) {
        char digits[8];
        std::snprintf(digits, sizeof digits, "M%04d", matrixNumber);
        unsigned char raw[kNumberBytes];
        for (std::size_t i = 0; i < kNumberBytes; ++i)
            raw[i] =
                static_cast<unsigned char>(static_cast<unsigned char>(digits[i]) + numberOffset(i));
        ok = msm::writeAll(f, raw, sizeof raw) &&
             msm::writeAll(f, header, static_cast<std::size_t>(movFillerLength(matrixNumber)));
    }
    ok = ok && msm::writeAll(f, elements, static_cast<std::size_t>(elementCount) * sizeof(float));
    return ok && file.Commit() ? 1 : 0;
}

int CCOVImage::WriteText(const char* path) const {
    if (number < 0 || order < 0 || elementCount != msm::packedElements(order) ||
        (elementCount > 0 && elements == nullptr))
        return 0;
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok = std::fprintf(f, "%d %d\n%d %d\n", number, order, date, time) > 0;
    for (int32_t i = 0; ok && i < elementCount; ++i)
        ok = std::fprintf(f, "%.9g ", static_cast<double>(elements[i])) > 0;
    ok = ok && std::fputc('\n', f) != EOF;
    return ok && file.Commit() ? 1 : 0;
}
