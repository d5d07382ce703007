#include "dictionary/MrxPrim.h"

#include <cstdlib>
#include <limits>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/packed_triangle.h"
#include "dictionary/rows.h"
#include "dictionary/stamp.h"

namespace {

// The size field counts the header and the elements plus four bytes more than follow it.
constexpr int64_t kSizeFieldExtra = 4 + static_cast<int64_t>(msm::kMatrixHeaderChars);

}  // namespace

MrxPrim::~MrxPrim() {
    Release();
}

void MrxPrim::Release() {
    std::free(elements);
    elements = nullptr;
    elementCount = 0;
}

int MrxPrim::Allocate(int n) {
    Release();
    // The record's size field must still fit an int32.
    if (!msm::allocatePackedTriangle(n, kSizeFieldExtra, elements, elementCount)) return 0;
    order = n;
    return 1;
}

int MrxPrim::WriteRecord(std::FILE* f) {
    msm::DateStamp stamp = msm::currentStamp();
    date = stamp.date;
    time = stamp.time;
    char text[msm::kMatrixHeaderChars];
    if (!msm::formatMatrixHeader(number, order, date, time, text)) return 0;
    if (elementCount != msm::packedElements(order) || (elementCount > 0 && elements == nullptr))
        return 0;
    unsigned char header[msm::kMatrixHeaderChars];
    msm::scrambleText(text, sizeof text, header);
    auto size = static_cast<int32_t>(kSizeFieldExtra + int64_t{4} * elementCount);
    return msm::writeInt32(f, size) && msm::writeAll(f, header, sizeof header) &&
           msm::writeAll(f, elements, static_cast<std::size_t>(elementCount) * sizeof(float));
}

int MrxPrim::ReadRecord(msm::ByteReader& in, int32_t sizeField) {
    unsigned char header[msm::kMatrixHeaderChars];
    char text[msm::kMatrixHeaderChars];
    int32_t n = 0, o = 0, d = 0, t = 0;
    bool ok = in.readBytes(header, sizeof header);
    if (ok) msm::unscrambleText(header, sizeof header, text);
    ok = ok && msm::parseMatrixHeader(text, n, o, d, t) && o >= 0;
    int64_t e = ok ? msm::packedElements(o) : 0;
    ok = ok && sizeField == kSizeFieldExtra + 4 * e && in.fits(e, sizeof(float)) && Allocate(o);
    ok = ok && in.readFloats(elements, static_cast<std::size_t>(e));
    if (!ok) {
        Release();
        return 0;
    }
    number = n;
    date = d;
    time = t;
    return 1;
}
