#include "recognition/InputSubspace.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <msmface/numeric.h>

#include "data/initial_basis.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"

namespace {

constexpr std::size_t kShortAlign = 32;

template <typename T>
T** rowsOrReport(int count, int length, std::size_t align = 0) {
    T** rows = msm::allocateRows<T>(count, length, align);
    if (rows == nullptr) msm::reportNoMemory();
    return rows;
}

// The 32-bit product of two 32-bit values as the hardware forms it (wrapping), without the
// undefined behaviour of a signed overflow.
inline int32_t wrappingSquare(int32_t v) {
    auto u = static_cast<uint32_t>(v);
    return static_cast<int32_t>(u * u);
}

}  // namespace

InputSubspace::InputSubspace() = default;

InputSubspace::~InputSubspace() {
    ReleaseAll();
}

void InputSubspace::ReleaseAll() {
    msm::freeRows(frames);
    msm::freeRows(keptFrames);
    msm::freeRows(covariance);
    msm::freeRows(basis);
    msm::freeRows(autocorrelation);
    msm::freeRows(fixedBasis);
    msm::freeRows(iterated_);
    std::free(inverseNorms);
    inverseNorms = nullptr;
}

int InputSubspace::Allocate(int K, int D) {
    ReleaseAll();
    basisCount = K;
    dim = D;
    frames = rowsOrReport<float>(maxSegments, D);
    keptFrames = rowsOrReport<float>(maxSegments, D);
    keptValid = 0;
    keptCount = 0;
    autocorrelation = rowsOrReport<short>(paddedDim, paddedDim, kShortAlign);
    fixedBasis = rowsOrReport<short>(K, paddedDim, kShortAlign);
    covariance = rowsOrReport<float>(D, D);
    basis = rowsOrReport<float>(D, D);
    iterated_ = rowsOrReport<float>(K, D);
    inverseNorms = static_cast<float*>(std::calloc(static_cast<std::size_t>(D), sizeof(float)));
    if (inverseNorms == nullptr) msm::reportNoMemory();
    return Usable() && covariance != nullptr ? 1 : 0;
}

int InputSubspace::ChangeMaxSegments(int n) {
    if (n < 1 || n > msm::kMaxInputSegments) return 0;
    msm::freeRows(frames);
    msm::freeRows(keptFrames);
    maxSegments = n;
    frames = rowsOrReport<float>(n, dim);
    keptFrames = rowsOrReport<float>(n, dim);
    // The kept patterns went with the old buffer.
    keptValid = 0;
    keptCount = 0;
    return frames != nullptr && keptFrames != nullptr ? 1 : 0;
}

bool InputSubspace::Usable() const {
    return frames != nullptr && basis != nullptr && autocorrelation != nullptr &&
           fixedBasis != nullptr && iterated_ != nullptr && inverseNorms != nullptr &&
           basisCount >= 1 && basisCount <= msm::kInitialBasisRows && dim >= 1 &&
           dim <= paddedDim && maxSegments >= 1;
}

void InputSubspace::Refresh() {
    frameCount = 0;
    state = 0;
}

void InputSubspace::KeepFrames() {
    if (frames == nullptr || keptFrames == nullptr) return;
    int rows = std::clamp(frameCount, 0, maxSegments);
    for (int k = 0; k < rows; ++k) std::memcpy(keptFrames[k], frames[k], dim * sizeof(float));
    keptCount = rows;
    keptValid = 1;
}

void InputSubspace::ResetToInitialBasis() {
    // Row stride 225 with 256-value reads: the vectors overlap the next row on purpose.
    for (int i = 0; i < basisCount; ++i) {
        const double* src = msm::kInitialBasisTable + i * msm::kInitialBasisStride;
        for (int k = 0; k < dim; ++k) basis[i][k] = static_cast<float>(src[k]);
    }
}

void InputSubspace::BuildAutocorrelation() {
    const int K = basisCount;
    for (int i = 0; i < dim; ++i) {
        for (int j = i; j < dim; ++j) {
            float sum = 0.0f;
            for (int k = 0; k < K; ++k) sum += frames[k][i] * frames[k][j];
            short c = msm::truncToShort(16384.0 * static_cast<double>(sum) / K);
            autocorrelation[i][j] = c;
            autocorrelation[j][i] = c;
        }
    }
}

void InputSubspace::FoldIn(const float* x) {
    const float newWeight = updateWeight * 16384.0f;
    const float oldWeight = 1.0f - updateWeight;
    for (int i = 0; i < dim; ++i) {
        short* row = autocorrelation[i];
        for (int j = i; j < dim; ++j) {
            float v = x[i] * x[j] * newWeight + static_cast<float>(row[j]) * oldWeight;
            short c = msm::truncToShort(v);
            row[j] = c;
            autocorrelation[j][i] = c;
        }
    }
}

void InputSubspace::IterateOnce() {
    const int K = basisCount;
    for (int i = 0; i < K; ++i)
        for (int k = 0; k < dim; ++k) fixedBasis[i][k] = msm::toQ14(basis[i][k]);
    for (int i = 0; i < K; ++i) {
        float* v = iterated_[i];
        float s = 0.0f;
        for (int l = 0; l < dim; ++l) {
            int32_t y = mmxdotp(autocorrelation[l], fixedBasis[i], paddedDim) >> 14;
            s += static_cast<float>(wrappingSquare(y));
            v[l] = static_cast<float>(y);
        }
        // A vector the matrix annihilates stays zero instead of becoming 0 * inf = NaN; the
        // orthonormalisation then fails and the fallback below keeps the set.
        float n = s > 0.0f ? 1.0f / std::sqrt(s) : 0.0f;
        inverseNorms[i] = n;
        for (int l = 0; l < dim; ++l) v[l] *= n;
    }
    if (GSO(dim, K, iterated_, basis) == 0)
        for (int i = 0; i < K; ++i) std::memcpy(basis[i], iterated_[i], dim * sizeof(float));
}

int InputSubspace::Update(const float* x) {
    if (!Usable() || x == nullptr) return 1;
    state = 2;
    if (frameCount <= 0) {
        frameCount = 0;
        ResetToInitialBasis();
        state = 0;
    }
    // Once the buffer is full every new pattern overwrites its last row.
    if (frameCount > maxSegments - 1) frameCount = maxSegments - 1;
    std::memcpy(frames[frameCount], x, dim * sizeof(float));
    ++frameCount;
    if (frameCount == basisCount) {
        BuildAutocorrelation();
        ResetToInitialBasis();
    }
    if (frameCount > basisCount) {
        FoldIn(frames[frameCount - 1]);
        IterateOnce();
        state = 1;
    }
    return 1;
}

namespace msm {

void inputBasisRows(const InputSubspace& in, int K, int D, float* const* copy, short* const* q,
                    int paddedLength) {
    for (int i = 0; i < K; ++i) {
        if (in.basis == nullptr || in.basisCount != K) {
            std::memset(q[i], 0, paddedLength * sizeof(short));
            continue;
        }
        std::memcpy(copy[i], in.basis[i], D * sizeof(float));
        for (int k = 0; k < D; ++k) q[i][k] = toQ14(copy[i][k]);
    }
}

}  // namespace msm
