#include "dictionary/DictChunk.h"

#include <new>
#include <vector>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/rows.h"

namespace {

constexpr char kSignature[3] = {'D', 'C', 'K'};
constexpr int kRecordMinBytes = 16;  // size field, mode, N, D
constexpr int kReadAll = 1;
constexpr int kReadOne = 2;

}  // namespace

DictChunk::~DictChunk() {
    Release();
}

void DictChunk::Release() {
    delete[] prims;
    delete[] tags;
    delete[] nanFlags;
    prims = nullptr;
    tags = nullptr;
    nanFlags = nullptr;
    count = 0;
}

int DictChunk::Allocate(int n) {
    if (n < 0) {
        Release();
        return 0;
    }
    // Arrays of another length would be indexed past their end.
    if (n != count) Release();
    count = n;
    if (prims == nullptr) prims = new (std::nothrow) DicPrim[n];
    if (tags == nullptr) tags = new (std::nothrow) int32_t[n]();
    if (nanFlags == nullptr) nanFlags = new (std::nothrow) int32_t[n]();
    if (prims == nullptr || tags == nullptr || nanFlags == nullptr) {
        msm::reportNoMemory();
        Release();
        return 0;
    }
    return 1;
}

void DictChunk::SetModeAndLimit(int m, int l) {
    mode = m;
    limit = l;
}

int DictChunk::Read(const char* path, int how, int skip, int index) {
    return msm::parseWholeFile(path, [&](const unsigned char* data, std::size_t size) {
        return ReadBytes(data, size, how, skip, index);
    });
}

int DictChunk::ReadAll(const char* path) {
    return Read(path, kReadAll, 0, 0);
}

int DictChunk::ReadBytes(const unsigned char* data, std::size_t size, int how, int skip,
                         int index) {
    msm::ByteReader in(data, size);
    int32_t n = 0;
    if (!in.expect(kSignature, sizeof kSignature)) return 0;
    Release();
    bool ok = in.readInt32(n) && in.fits(n, kRecordMinBytes) && Allocate(n);
    auto readRecordInto = [&](int i) {
        int32_t recordSize = 0;
        if (!in.readInt32(recordSize) || !in.fits(recordSize, 1)) return false;
        std::size_t before = in.remaining();
        int result = prims[i].ReadRecord(in, limit, mode);
        if (result == 0) return false;
        if (result == 2) nanFlags[i] = 1;
        // The size field must describe the record that was read, or the file is not what it
        // claims to be.
        return before - in.remaining() == static_cast<std::size_t>(recordSize);
    };
    if (ok && how == kReadAll) {
        for (int i = 0; ok && i < n; ++i) ok = readRecordInto(i);
    } else if (ok && how == kReadOne) {
        ok = skip >= 0 && index >= 0 && index < n;
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

int DictChunk::Write(const char* path, int l, int m) const {
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok = msm::writeAll(f, kSignature, sizeof kSignature) && msm::writeInt32(f, count);
    for (int i = 0; ok && i < count; ++i) ok = prims[i].WriteRecord(f, l, m) == 1;
    return ok && file.Commit() ? 1 : 0;
}

int DictChunk::CopyFrom(const DictChunk& other) {
    if (&other == this) return 1;
    if (count > 0) Release();
    if (!Allocate(other.count)) return 0;
    for (int i = 0; i < count; ++i) {
        if (!prims[i].CopyFrom(other.prims[i])) {
            Release();
            return 0;
        }
        tags[i] = other.tags[i];
    }
    return 1;
}
