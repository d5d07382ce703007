#include "dictionary/DicPrim.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "io/atomic_file.h"
#include "io/byte_reader.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"

namespace {

constexpr std::size_t kShortAlign = 32;  // what the packed 16-bit kernels load
constexpr std::size_t kFloatAlign = 16;
constexpr int kShortBlock = msm::kQ14RowBlock;
constexpr int kFloatBlock = 16;
constexpr int32_t kRecordHeaderBytes = 12;  // mode, N, D after the size field

// n rounded up to a multiple of block, or -1 when that leaves the int range.
int roundUp(int n, int block) {
    int64_t r = (static_cast<int64_t>(n) + block - 1) / block * block;
    return r > std::numeric_limits<int32_t>::max() ? -1 : static_cast<int>(r);
}

int keptCount(int limit, int n) {
    return limit > 0 && limit < n ? limit : n;
}

bool holdsNaN(const float* v, int n) {
    for (int i = 0; i < n; ++i)
        if (std::isnan(v[i])) return true;
    return false;
}

}  // namespace

DicPrim::DicPrim(int d, int n, int m) {
    Allocate(d, n, m);
}

DicPrim::~DicPrim() {
    Release();
}

void DicPrim::Release() {
    msm::freeRows(drows);
    msm::freeRows(frows);
    msm::freeRows(srows);
    msm::freeRows(arows);
    msm::freeRows(qrows);
    allocatedRows = 0;
    paddedLength = 0;
    mode = 0;
    nanFlag = 0;
    qLength = 0;
}

int DicPrim::Allocate(int d, int n, int m) {
    Release();
    if (d < 0 || n < 0) {
        dim = 0;
        count = 0;
        return 0;
    }
    dim = d;
    count = n;
    mode = m;
    bool ok = true;
    switch (m) {
        case kDicPrimDouble:
            drows = msm::allocateRows<double>(n, d);
            ok = drows != nullptr;
            paddedLength = d;
            break;
        case kDicPrimFloat:
            frows = msm::allocateRows<float>(n, d);
            ok = frows != nullptr;
            paddedLength = d;
            break;
        case kDicPrimShort:
            paddedLength = roundUp(d, kShortBlock);
            srows =
                paddedLength < 0 ? nullptr : msm::allocateRows<short>(n, paddedLength, kShortAlign);
            ok = srows != nullptr;
            break;
        case kDicPrimAlignedFloat:
            // Padding is cleared too, so that copies and wide loads never see stale bytes.
            paddedLength = roundUp(d, kFloatBlock);
            arows =
                paddedLength < 0 ? nullptr : msm::allocateRows<float>(n, paddedLength, kFloatAlign);
            ok = arows != nullptr;
            break;
        default:
            return 1;
    }
    if (!ok) {
        msm::reportNoMemory();
        Release();
        return 0;
    }
    allocatedRows = n;
    return 1;
}

int DicPrim::CopyFrom(const DicPrim& other) {
    if (&other == this) return 1;
    if (!Allocate(other.dim, other.count, other.mode)) return 0;
    int rows = std::min(allocatedRows, other.allocatedRows);
    // Bounded by both sides, in case a caller changed dim after allocating.
    auto copyRows = [rows](auto** dst, auto** src, int length) {
        if (dst == nullptr || src == nullptr) return;
        for (int i = 0; i < rows; ++i) std::memcpy(dst[i], src[i], length * sizeof(**dst));
    };
    int length = std::min(paddedLength, other.paddedLength);
    copyRows(drows, other.drows, length);
    copyRows(frows, other.frows, length);
    copyRows(srows, other.srows, length);
    copyRows(arows, other.arows, length);
    if (other.qrows != nullptr) {
        qrows = msm::allocateRows<short>(count, other.qLength, kShortAlign);
        if (qrows == nullptr) {
            msm::reportNoMemory();
            Release();
            return 0;
        }
        qLength = other.qLength;
        int qRows = std::min(count, other.count);
        for (int i = 0; i < qRows && other.qrows[i] != nullptr; ++i)
            std::memcpy(qrows[i], other.qrows[i], qLength * sizeof(short));
    }
    return 1;
}

int DicPrim::PrepareQ14Rows() {
    if (mode != kDicPrimDouble && mode != kDicPrimFloat && mode != kDicPrimAlignedFloat) return 0;
    msm::freeRows(qrows);
    qLength = 0;
    int length = roundUp(dim, kShortBlock);
    if (length < 0) return 0;
    qrows = msm::allocateRows<short>(allocatedRows, length, kShortAlign);
    if (qrows == nullptr) {
        msm::reportNoMemory();
        return 0;
    }
    qLength = length;
    for (int i = 0; i < allocatedRows; ++i) {
        short* q = qrows[i];
        if (mode == kDicPrimDouble)
            for (int k = 0; k < dim; ++k) q[k] = msm::toQ14(drows[i][k]);
        else {
            const float* src = mode == kDicPrimFloat ? frows[i] : arows[i];
            for (int k = 0; k < dim; ++k) q[k] = msm::toQ14(src[k]);
        }
    }
    return 1;
}

int DicPrim::ReadRecord(msm::ByteReader& in, int limit, int m) {
    int32_t storedMode = 0, n = 0, d = 0;
    bool ok = in.readInt32(storedMode) && in.readInt32(n) && in.readInt32(d);
    // A vector of no values is no dictionary; counting them would let a few bytes ask for
    // billions of rows.
    ok = ok && n >= 0 && d >= 0 && !(n > 0 && d == 0) &&
         in.fits(static_cast<int64_t>(n) * d, sizeof(float));
    int kept = keptCount(limit, n);
    if (!ok || !Allocate(d, kept, m)) {
        Release();
        count = 0;
        return 0;
    }
    // Sized only when vectors follow: with none, d is not bounded by the file.
    std::vector<float> row(kept > 0 ? static_cast<std::size_t>(d) : 0);
    int consumed = 0;  // vectors taken off the input
    bool sawNaN = false;
    for (int i = 0; i < kept; ++i) {
        switch (m) {
            case kDicPrimDouble:
                in.readFloats(row.data(), d);
                for (int k = 0; k < d; ++k) drows[i][k] = row[k];
                break;
            case kDicPrimFloat:
                in.readFloats(frows[i], d);
                sawNaN = sawNaN || holdsNaN(frows[i], d);
                break;
            case kDicPrimShort:
                in.readFloats(row.data(), d);
                for (int k = 0; k < d; ++k) srows[i][k] = msm::toQ14(row[k]);
                break;
            case kDicPrimAlignedFloat:
                in.readFloats(arows[i], d);
                sawNaN = sawNaN || holdsNaN(arows[i], d);
                break;
            default:
                // Rows of an unknown mode are not kept, but still stepped over so that the
                // next record is found.
                in.skip(static_cast<std::size_t>(d) * sizeof(float));
                break;
        }
        ++consumed;
    }
    // A NaN poisons every similarity it enters: the whole set is neutralised instead.
    if (sawNaN) {
        nanFlag = 1;
        float** rows = m == kDicPrimFloat ? frows : arows;
        for (int i = 0; i < kept; ++i) std::memset(rows[i], 0, paddedLength * sizeof(float));
    }
    in.skip(static_cast<std::size_t>(n - consumed) * d * sizeof(float));
    return nanFlag ? 2 : 1;
}

int DicPrim::WriteRecord(std::FILE* f, int limit, int m) const {
    int n = keptCount(limit, count);
    int64_t size = kRecordHeaderBytes + int64_t{4} * n * dim;
    if (n < 0 || dim < 0 || size > std::numeric_limits<int32_t>::max()) return 0;
    if (n > 0 && allocatedRows < n) return 0;
    const bool present =
        (m == kDicPrimDouble && drows != nullptr) || (m == kDicPrimFloat && frows != nullptr) ||
        (m == kDicPrimShort && srows != nullptr) || (m == kDicPrimAlignedFloat && arows != nullptr);
    if (n > 0 && !present) return 0;
    std::vector<float> values(static_cast<std::size_t>(n) * dim);
    for (int i = 0; i < n; ++i) {
        float* out = values.data() + static_cast<std::size_t>(i) * dim;
        for (int k = 0; k < dim; ++k) {
            switch (m) {
                case kDicPrimDouble:
                    out[k] = static_cast<float>(drows[i][k]);
                    break;
                case kDicPrimFloat:
                    out[k] = frows[i][k];
                    break;
                case kDicPrimShort:
                    out[k] = msm::fromQ14(srows[i][k]);
                    break;
                default:
                    out[k] = arows[i][k];
                    break;
            }
        }
    }
    int32_t header[4] = {static_cast<int32_t>(size), m, n, dim};
    return msm::writeAll(f, header, sizeof header) &&
           msm::writeAll(f, values.data(), values.size() * sizeof(float));
}
