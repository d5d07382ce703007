#include "recognition/kl_expansion.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "dictionary/rows.h"
#include "numeric/diagnostics.h"
#include "numeric/eigen_steps.h"

namespace msm {

namespace {

constexpr int kAttempts = 4;
constexpr double kRetryScale = 10.0;
constexpr double kEigenvalueFloor = 1e-7;

int fail(const float* spectrum) {
    diagnose(spectrum == nullptr ? "KL expansion error(2)." : "KL Expansion error(3).");
    return 1;
}

// Eigenvalues of the symmetric r (d x d) in descending order, with the eigenvectors as the rows
// of vectors. False when every attempt's QL iteration failed.
bool solveWithRetries(const std::vector<float>& r, int d, double** vectors,
                      std::vector<float>& eigenvalues) {
    std::vector<double> diag(d), off(d);
    double scale = 1.0;
    for (int attempt = 0; attempt < kAttempts; ++attempt, scale *= kRetryScale) {
        for (int i = 0; i < d; ++i)
            for (int j = 0; j < d; ++j) vectors[i][j] = scale * r[i * d + j];
        tridiagonalize(d, vectors, diag.data(), off.data());
        if (qlImplicit(d, diag.data(), off.data(), vectors) != 0) continue;
        sortDescending(d, diag.data(), vectors);
        for (int i = 0; i < d; ++i) eigenvalues[i] = static_cast<float>(diag[i] / scale);
        return true;
    }
    return false;
}

// Basis vectors in use: eigenvalues above the floor, until their running share reaches 1.
int vectorsInUse(const std::vector<float>& eigenvalues) {
    float trace = 0.0f;
    for (float v : eigenvalues) trace += v;
    float ratio = 0.0f;
    int k = 0;
    for (float v : eigenvalues) {
        if (static_cast<double>(v) <= kEigenvalueFloor) break;
        ratio += v / trace;
        ++k;
        if (ratio >= 1.0f) break;
    }
    return k;
}

}  // namespace

int buildAutocorrelationRecord(float* const* patterns, int n, int d, MrxPrim& record) {
    if (n < 0 || d < 1 || (n > 0 && patterns == nullptr)) return -1;
    for (int k = 0; k < n; ++k)
        if (patterns[k] == nullptr) return -1;
    if (record.Allocate(d) != 1) return -1;
    float* e = record.elements;
    std::memset(e, 0, static_cast<std::size_t>(record.elementCount) * sizeof(float));
    for (int k = 0; k < n; ++k) {
        const float* x = patterns[k];
        float* out = e;
        for (int i = 0; i < d; ++i) {
            const float xi = x[i];
            for (int j = i; j < d; ++j) *out++ += xi * x[j];
        }
    }
    record.number = n;
    return 0;
}

int expandAutocorrelation(const MrxPrim& record, DicPrim& dictionary, float* spectrum) {
    const int d = record.order;
    const int n = record.number;
    dictionary.Release();
    if (record.elements == nullptr || d < 1 || d > kMaxExpansionOrder || n < 1 ||
        record.elementCount != d * (d + 1) / 2)
        return fail(spectrum);
    std::vector<float> r(static_cast<std::size_t>(d) * d);
    std::vector<float> eigenvalues(d);
    double** vectors = allocateRows<double>(d, d);
    if (vectors == nullptr) {
        reportNoMemory();
        return 1;
    }
    const float inv = 1.0f / static_cast<float>(n);
    const float* e = record.elements;
    for (int i = 0; i < d; ++i)
        for (int j = i; j < d; ++j) {
            float v = *e++ * inv;
            r[i * d + j] = v;
            r[j * d + i] = v;
        }
    if (!solveWithRetries(r, d, vectors, eigenvalues)) {
        freeRows(vectors);
        return fail(spectrum);
    }
    int inUse = vectorsInUse(eigenvalues);
    if (inUse > n) inUse = n;
    if (dictionary.Allocate(d, inUse, kDicPrimFloat) != 1) {
        freeRows(vectors);
        return 1;
    }
    for (int i = 0; i < inUse; ++i)
        for (int k = 0; k < d; ++k) dictionary.frows[i][k] = static_cast<float>(vectors[i][k]);
    freeRows(vectors);
    if (spectrum != nullptr) {
        float trace = 0.0f;
        for (float v : eigenvalues) trace += v;
        for (int i = 0; i < d; ++i) spectrum[i] = eigenvalues[i] / trace;
    }
    return 0;
}

}  // namespace msm
