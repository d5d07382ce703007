#include "dictionary/MtrxChunk.h"

#include <new>
#include <vector>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/rows.h"
#include "dictionary/stamp.h"

namespace {

constexpr char kSignature[3] = {'M', 'C', 'K'};
constexpr int kRecordMinBytes = 4 + static_cast<int>(msm::kMatrixHeaderChars);
constexpr int kReadAll = 1;
constexpr int kReadOne = 2;

}  // namespace

MtrxChunk::~MtrxChunk() {
    Release();
}

void MtrxChunk::Release() {
    delete[] prims;
    delete[] tags;
    prims = nullptr;
    tags = nullptr;
    count = 0;
}

int MtrxChunk::Allocate(int n) {
    Release();
    if (n < 0) return 0;
    prims = new (std::nothrow) MrxPrim[n];
    tags = new (std::nothrow) int32_t[n]();
    if (prims == nullptr || tags == nullptr) {
        msm::reportNoMemory();
        Release();
        return 0;
    }
    count = n;
    return 1;
}

int MtrxChunk::Read(const char* path, int how, int skip, int index) {
    return msm::parseWholeFile(path, [&](const unsigned char* data, std::size_t size) {
        return ReadBytes(data, size, how, skip, index);
    });
}

int MtrxChunk::ReadAll(const char* path) {
    return Read(path, kReadAll, 0, 0);
}

int MtrxChunk::ReadBytes(const unsigned char* data, std::size_t size, int how, int skip,
                         int index) {
    msm::ByteReader in(data, size);
    int32_t n = 0;
    if (!in.expect(kSignature, sizeof kSignature)) return 0;
    Release();
    bool ok = in.readInt32(n) && in.fits(n, kRecordMinBytes) && Allocate(n);
    auto readRecordInto = [&](int i) {
        int32_t recordSize = 0;
        return in.readInt32(recordSize) && prims[i].ReadRecord(in, recordSize) == 1;
    };
    if (ok && how == kReadAll) {
        for (int i = 0; ok && i < n; ++i) ok = readRecordInto(i);
    } else if (ok && how == kReadOne) {
        ok = skip >= 0 && index >= 0 && index < n;
        // Skips by the size field as it stands, four bytes past the record's end.
        for (int i = 0; ok && i < skip; ++i) {
            int32_t recordSize = 0;
            ok = in.readInt32(recordSize) && recordSize >= 0 && in.skip(recordSize);
        }
        ok = ok && readRecordInto(index);
    } else {
        ok = false;
    }
    if (!ok) Release();
    return ok ? 1 : 0;
}

int MtrxChunk::Write(const char* path) {
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok = msm::writeAll(f, kSignature, sizeof kSignature) && msm::writeInt32(f, count);
    for (int i = 0; ok && i < count; ++i) ok = prims[i].WriteRecord(f) == 1;
    return ok && file.Commit() ? 1 : 0;
}
