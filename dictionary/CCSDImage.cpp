#include "dictionary/CCSDImage.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"
#include "dictionary/stamp.h"

namespace {

constexpr std::size_t kHeaderChars = 10;
constexpr int kMaxDim = 99999;  // five header digits

enum Layout { kNone, kDouble, kFloat, kShort, kAlignedFloat, kAlignedShort };

Layout layoutOf(int mode) {
    switch (mode) {
        case 1:
        case 4:
            return kDouble;
        case 2:
        case 5:
            return kFloat;
        case 3:
        case 6:
            return kShort;
        case 7:
        case 8:
            return kAlignedFloat;
        case 9:
        case 10:
            return kAlignedShort;
        default:
            return kNone;
    }
}

// A whole block is always added, also to a length that is already a multiple.
int blockPadded(int n, int block) {
    return (n / block + 1) * block;
}

template <typename T>
void freeSets(T***& sets, int outer, int inner) {
    if (sets == nullptr) return;
    for (int o = 0; o < outer; ++o) {
        if (sets[o] == nullptr) continue;
        for (int i = 0; i < inner; ++i) std::free(sets[o][i]);
        std::free(sets[o]);
    }
    std::free(sets);
    sets = nullptr;
}

bool allDigits(const char* text, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

int fieldValue(const char* text) {
    int v = 0;
    for (int i = 0; i < 5; ++i) v = v * 10 + (text[i] - '0');
    return v;
}

}  // namespace

// One more than the (k mod 10)-th header digit.
int csFillerLength(const char* headerText, int k) {
    return headerText[k % 10] - '0' + 1;
}

CCSDImage::~CCSDImage() {
    Release();
}

void CCSDImage::ReleaseRows() {
    msm::freeRows(drows);
    msm::freeRows(frows);
    msm::freeRows(srows);
    msm::freeRows(afrows);
    msm::freeRows(asrows);
}

void CCSDImage::Release() {
    ReleaseRows();
    freeSets(dsets, outerCount, innerCount);
    freeSets(fsets, outerCount, innerCount);
    freeSets(ssets, outerCount, innerCount);
    freeSets(afsets, outerCount, innerCount);
    freeSets(assets, outerCount, innerCount);
    outerCount = 0;
}

int CCSDImage::Allocate(int t1, int t2, int d, int n, int mode) {
    Layout layout = layoutOf(mode);
    if (layout == kNone || d < 0 || n < 0 || d > kMaxDim * 16) return 0;
    if (mode == 1 || mode == 2 || mode == 3 || mode == 7 || mode == 9) ReleaseRows();
    tag1 = t1;
    tag2 = t2;
    dim = d;
    count = n;
    innerCount = n;
    bool ok = false;
    switch (layout) {
        case kDouble:
            msm::freeRows(drows);
            ok = (drows = msm::allocateRows<double>(n, d)) != nullptr;
            break;
        case kFloat:
            msm::freeRows(frows);
            ok = (frows = msm::allocateRows<float>(n, d)) != nullptr;
            break;
        case kShort:
            msm::freeRows(srows);
            ok = (srows = msm::allocateRows<short>(n, blockPadded(d, 16))) != nullptr;
            break;
        case kAlignedFloat:
            msm::freeRows(afrows);
            afrows = msm::allocateRows<float>(n, blockPadded(d, 16), 16, blockPadded(n, 16), true);
            ok = afrows != nullptr;
            break;
        case kAlignedShort:
            msm::freeRows(asrows);
            asrows = msm::allocateRows<short>(n, blockPadded(d, 32), 32, blockPadded(n, 32), true);
            ok = asrows != nullptr;
            break;
        case kNone:
            break;
    }
    if (!ok) msm::reportNoMemory();
    return ok ? 1 : 0;
}

bool CCSDImage::ValueAt(int mode, int k, int i, double& value) const {
    switch (layoutOf(mode)) {
        case kDouble:
            if (!drows) return false;
            value = drows[k][i];
            return true;
        case kFloat:
            if (!frows) return false;
            value = frows[k][i];
            return true;
        case kShort:
            if (!srows) return false;
            value = msm::fromQ14(srows[k][i]);
            return true;
        case kAlignedFloat:
            if (!afrows) return false;
            value = afrows[k][i];
            return true;
        case kAlignedShort:
            if (!asrows) return false;
            value = msm::fromQ14(asrows[k][i]);
            return true;
        case kNone:
            break;
    }
    return false;
}

bool CCSDImage::StoreAt(int mode, int k, int i, double value) {
    switch (layoutOf(mode)) {
        case kDouble:
            drows[k][i] = value;
            return true;
        case kFloat:
            frows[k][i] = static_cast<float>(value);
            return true;
        case kShort:
            srows[k][i] = msm::toQ14(value);
            return true;
        case kAlignedFloat:
            afrows[k][i] = static_cast<float>(value);
            return true;
        case kAlignedShort:
            asrows[k][i] = msm::toQ14(value);
            return true;
        case kNone:
            break;
    }
    return false;
}

int CCSDImage::Read(const char* path, int limit, int mode) {
    return msm::parseWholeFile(path, [&](const unsigned char* data, std::size_t size) {
        return ReadBytes(data, size, limit, mode);
    });
}

int CCSDImage::ReadBytes(const unsigned char* data, std::size_t size, int limit, int mode) {
    if (layoutOf(mode) == kNone) return 0;
    bool binary =
        size >= 3 && data[0] == 'C' && data[1] == 'S' && (data[2] == 'F' || data[2] == 'D');
    int n = 0, d = 0;
    if (binary) {
        msm::ByteReader in(data + 3, size - 3);
        unsigned char header[kHeaderChars];
        char text[kHeaderChars];
        if (!in.readBytes(header, sizeof header)) return 0;
        msm::unscrambleText(header, sizeof header, text);
        // Only digits can give filler lengths; anything else is not a file we wrote.
        if (!allDigits(text, sizeof text)) return 0;
        n = fieldValue(text);
        d = fieldValue(text + 5);
        if (n > kMaxVectors) return 0;
        int kept = limit > 0 && limit < n ? limit : n;
        std::size_t valueBytes = data[2] == 'D' ? sizeof(double) : sizeof(float);
        if (!in.fits(kept, static_cast<int64_t>(d) * valueBytes + 1)) return 0;
        if (!Allocate(0, 0, d, kept, mode)) return 0;
        std::vector<unsigned char> record(static_cast<std::size_t>(d) * valueBytes);
        for (int k = 0; k < kept; ++k) {
            if (!in.readBytes(record.data(), record.size()) || !in.skip(csFillerLength(text, k))) {
                ReleaseRows();
                return 0;
            }
            for (int i = 0; i < d; ++i) {
                double v;
                if (valueBytes == sizeof(double)) {
                    std::memcpy(&v, record.data() + i * sizeof(double), sizeof v);
                } else {
                    float f;
                    std::memcpy(&f, record.data() + i * sizeof(float), sizeof f);
                    v = f;
                }
                StoreAt(mode, k, i, v);
            }
        }
        return 1;
    }
    msm::TextReader in(data, size);
    int32_t n32 = 0, d32 = 0;
    if (!in.readInt(n32) || !in.readInt(d32) || n32 < 0 || n32 > kMaxVectors || d32 < 0) return 0;
    n = n32;
    d = d32;
    int kept = limit > 0 && limit < n ? limit : n;
    // Each number takes at least one character.
    if (!msm::countFits(static_cast<int64_t>(kept) * d, 1, in.remaining())) return 0;
    if (!Allocate(0, 0, d, kept, mode)) return 0;
    for (int k = 0; k < kept; ++k) {
        for (int i = 0; i < d; ++i) {
            double v;
            if (!in.readDouble(v)) {
                ReleaseRows();
                return 0;
            }
            StoreAt(mode, k, i, v);
        }
    }
    return 1;
}

int CCSDImage::WriteBinary(const char* path, int limit, int mode) const {
    int n = limit > 0 && limit < count ? limit : count;
    double probe;
    if (n > kMaxVectors || dim < 0 || dim > kMaxDim ||
        (n > 0 && dim > 0 && !ValueAt(mode, 0, 0, probe)))
        return 0;
    if (n > 0 && layoutOf(mode) == kNone) return 0;
    char text[32];
    std::snprintf(text, sizeof text, "%05d%05d", n, dim);
    char digits[kHeaderChars];
    std::memcpy(digits, text, kHeaderChars);
    unsigned char header[kHeaderChars];
    msm::scrambleText(text, kHeaderChars, header);
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok = msm::writeAll(f, "CSF", 3) && msm::writeAll(f, header, sizeof header);
    std::vector<float> values(static_cast<std::size_t>(dim));
    // The filler repeats the start of the vector's own bytes; zeros where a short vector ends.
    std::vector<unsigned char> filler(10);
    for (int k = 0; ok && k < n; ++k) {
        for (int i = 0; i < dim; ++i) {
            double v = 0;
            ValueAt(mode, k, i, v);
            values[i] = static_cast<float>(v);
        }
        std::fill(filler.begin(), filler.end(), 0);
        std::memcpy(filler.data(), values.data(),
                    std::min(filler.size(), values.size() * sizeof(float)));
        ok = msm::writeAll(f, values.data(), values.size() * sizeof(float)) &&
             msm::writeAll(f, filler.data(), csFillerLength(digits, k));
    }
    return ok && file.Commit() ? 1 : 0;
}

int CCSDImage::WriteText(const char* path, int limit, int mode) const {
    int n = limit > 0 && limit < count ? limit : count;
    double probe;
    if (n > kMaxVectors || dim < 0 || (n > 0 && dim > 0 && !ValueAt(mode, 0, 0, probe))) return 0;
    if (n > 0 && layoutOf(mode) == kNone) return 0;
    msm::AtomicFile file(path);
    std::FILE* f = file.stream();
    if (f == nullptr) return 0;
    bool ok = std::fprintf(f, "%d %d\n", n, dim) > 0;
    for (int k = 0; ok && k < n; ++k) {
        for (int i = 0; ok && i < dim; ++i) {
            double v = 0;
            ValueAt(mode, k, i, v);
            ok = std::fprintf(f, "%.17g ", v) > 0;
        }
        ok = ok && std::fputc('\n', f) != EOF;
    }
    return ok && file.Commit() ? 1 : 0;
}
