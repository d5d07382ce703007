#include "recognition/class_data.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "dictionary/MtrxChunk.h"
#include "dictionary/rows.h"
#include "io/atomic_file.h"
#include "numeric/eigen_steps.h"
#include "recognition/kl_expansion.h"

namespace msm {

namespace {

constexpr float kShortestFirstVector = 1e-7f;

// The float rows of a channel's dictionary when they can enter sums of dimension D, else null.
float* const* usableRows(const DicPrim& prim, int D) {
    if (prim.dim != D || prim.mode != kDicPrimFloat || prim.frows == nullptr) return nullptr;
    return prim.frows;
}

// row i of P = sum_{k<B} phi_k phi_kᵀ for columns [from, D), each element summed over k in float.
void projectorRow(float* const* phi, int B, int D, int i, int from, float* out) {
    for (int j = from; j < D; ++j) out[j] = 0.0f;
    for (int k = 0; k < B; ++k) {
        const float a = phi[k][i];
        const float* row = phi[k];
        for (int j = from; j < D; ++j) out[j] += a * row[j];
    }
}

void accumulateClassData(const DictChunk& set, int B, const ClassStore& store, float sign) {
    const int D = store.dimension;
    if (set.count < 1 || set.prims == nullptr || set.prims[0].dim != D) return;
    std::vector<float> p(D);
    for (int c = 0; c < set.count && c < store.channels; ++c) {
        float* const* phi = usableRows(set.prims[c], D);
        if (phi == nullptr) continue;
        int rows = std::min(B, std::min(set.prims[c].count, set.prims[c].allocatedRows));
        float** m = store.matrices[c];
        for (int i = 0; i < D; ++i) {
            projectorRow(phi, rows, D, i, 0, p.data());
            if (sign > 0)
                for (int j = 0; j < D; ++j) m[i][j] += p[j];
            else
                for (int j = 0; j < D; ++j) m[i][j] -= p[j];
        }
    }
}

// Eigenvectors (rows, descending) and eigenvalues of the symmetric matrix whose upper triangle
// is given, into channel c of the two chunks.
bool diagonalise(int D, float** upper, float** work, DicPrim& vectors, DicPrim& values) {
    for (int i = 0; i < D; ++i)
        for (int j = i; j < D; ++j) work[i][j] = work[j][i] = upper[i][j];
    std::vector<float> d(D), e(D);
    tridiagonalize(D, work, d.data(), e.data());
    // A non-converged iteration still leaves an orthogonal basis; the files are written with
    // what it reached, as before.
    (void)qlImplicit(D, d.data(), e.data(), work);
    sortDescending(D, d.data(), work);
    if (vectors.Allocate(D, D, kDicPrimFloat) != 1 || values.Allocate(1, D, kDicPrimFloat) != 1)
        return false;
    for (int i = 0; i < D; ++i) {
        std::memcpy(vectors.frows[i], work[i], D * sizeof(float));
        values.frows[i][0] = d[i];
    }
    return true;
}

int writeMatrices(const ClassStore& store, int classCount, const std::string& path) {
    const int D = store.dimension;
    MtrxChunk chunk;
    if (chunk.Allocate(store.channels) != 1) return 0;
    for (int c = 0; c < store.channels; ++c) {
        MrxPrim& m = chunk.prims[c];
        if (m.Allocate(D) != 1) return 0;
        m.number = classCount;
        float* out = m.elements;
        for (int i = 0; i < D; ++i)
            for (int j = i; j < D; ++j) *out++ = store.matrices[c][i][j];
    }
    return chunk.Write(path.c_str());
}

struct SpaceFiles {
    DictChunk vectors;
    DictChunk values;
};

bool prepareSpaceFiles(int channels, SpaceFiles& files) {
    return files.vectors.Allocate(channels) == 1 && files.values.Allocate(channels) == 1;
}

int writeVectorsAndMatrices(const SpaceFiles& files, const ClassStore& store, int classCount,
                            const char* stem) {
    std::string base = stem;
    (void)files.vectors.Write((base + ".dck").c_str(), 0, kDicPrimFloat);
    return writeMatrices(store, classCount, base + ".mck");
}

int writeEigenvalues(const SpaceFiles& files, const char* evStem) {
    return files.values.Write((std::string(evStem) + ".dckev").c_str(), 0, kDicPrimFloat);
}

// Person p's channel-c dictionary as the rebuild reads it: the file is read again for every
// channel. False when the file does not read or the channel cannot be expanded.
bool readPersonChannel(const char* path, int c, int sourceKind, DictChunk& set) {
    set.Release();
    if (path == nullptr) return false;
    if (sourceKind != 1) {
        set.SetModeAndLimit(kDicPrimFloat, 0);
        return set.ReadAll(path) == 1 && c < set.count;
    }
    MtrxChunk records;
    if (records.ReadAll(path) != 1 || c >= records.count) return false;
    if (set.Allocate(c + 1) != 1) return false;
    return expandAutocorrelation(records.prims[c], set.prims[c], nullptr) == 0;
}

}  // namespace

void addClassData(const DictChunk& set, int B, const ClassStore& store) {
    accumulateClassData(set, B, store, 1.0f);
}

void removeClassData(const DictChunk& set, int B, const ClassStore& store) {
    accumulateClassData(set, B, store, -1.0f);
}

int recomputeAndWrite(const ClassStore& store, int classCount, const char* stem,
                      const char* evStem) {
    if (stem == nullptr) return 0;
    const int D = store.dimension;
    SpaceFiles files;
    float** work = allocateRows<float>(D, D);
    bool ok = work != nullptr && prepareSpaceFiles(store.channels, files);
    for (int c = 0; ok && c < store.channels; ++c)
        ok = diagonalise(D, store.matrices[c], work, files.vectors.prims[c], files.values.prims[c]);
    freeRows(work);
    if (!ok) {
        reportNoMemory();
        return 0;
    }
    int decides = evStem != nullptr ? writeEigenvalues(files, evStem) : classCount;
    if (decides == 0) return 0;
    return writeVectorsAndMatrices(files, store, classCount, stem);
}

int readClassSet(const char* path, int sourceKind, DictChunk& out) {
    out.Release();
    if (path == nullptr) return 0;
    if (sourceKind != 1) {
        out.SetModeAndLimit(kDicPrimFloat, 0);
        return out.ReadAll(path);
    }
    MtrxChunk records;
    if (records.ReadAll(path) != 1 || out.Allocate(records.count) != 1) return 0;
    for (int c = 0; c < records.count; ++c) {
        if (expandAutocorrelation(records.prims[c], out.prims[c], nullptr) != 0) {
            // What was expanded before the failure is kept; the rest stays empty.
            for (int r = c; r < records.count; ++r) out.prims[r].Release();
            break;
        }
    }
    return 1;
}

int rebuildFromFiles(int n, const char* const* paths, int B, const char* stem, const char* evStem,
                     const ClassStore& store, int sourceKind) {
    if (stem == nullptr || B < 1) return 0;
    const int D = store.dimension;
    SpaceFiles files;
    float** sum = allocateRows<float>(D, D);
    float** work = allocateRows<float>(D, D);
    bool ok = sum != nullptr && work != nullptr && prepareSpaceFiles(store.channels, files);
    std::vector<float> p(D);
    DictChunk set;
    for (int c = 0; ok && c < store.channels; ++c) {
        for (int i = 0; i < D; ++i) std::memset(sum[i], 0, D * sizeof(float));
        for (int person = 0; paths != nullptr && person < n; ++person) {
            if (!readPersonChannel(paths[person], c, sourceKind, set)) continue;
            const DicPrim& prim = set.prims[c];
            float* const* phi = usableRows(prim, D);
            if (phi == nullptr || std::min(prim.count, prim.allocatedRows) < B) continue;
            float first = 0.0f;
            for (int k = 0; k < D; ++k) first += phi[0][k] * phi[0][k];
            first = std::sqrt(first);
            if (!(first >= kShortestFirstVector && first > 0.0f)) continue;
            for (int i = 0; i < D; ++i) {
                projectorRow(phi, B, D, i, i, p.data());
                for (int j = i; j < D; ++j) sum[i][j] += p[j];
            }
        }
        float** m = store.matrices[c];
        for (int i = 0; i < D; ++i)
            for (int j = i; j < D; ++j) m[i][j] += sum[i][j];
        ok = diagonalise(D, m, work, files.vectors.prims[c], files.values.prims[c]);
    }
    freeRows(sum);
    freeRows(work);
    if (!ok) {
        reportNoMemory();
        return 0;
    }
    if (evStem != nullptr && writeEigenvalues(files, evStem) == 0) return 0;
    return writeVectorsAndMatrices(files, store, n, stem);
}

int regenerateFromFiles(int n, const char* const* paths, int B, const char* stem,
                        const ClassStore& store, int sourceKind) {
    const int D = store.dimension;
    for (int c = 0; c < store.channels; ++c)
        for (int i = 0; i < D; ++i) std::memset(store.matrices[c][i], 0, D * sizeof(float));
    return rebuildFromFiles(n, paths, B, stem, stem, store, sourceKind);
}

msmface::Status generateConstraintSpace(const std::vector<std::string>& personFiles, int sourceKind,
                                        int channels, const std::string& stem, int dimension,
                                        int basisCount) {
    const int D = dimension;
    if (D < 1 || D > kClassDataDim)
        return msmface::Status::failure(msmface::ErrorKind::Argument,
                                        "constraint space of dimension " + std::to_string(D) +
                                            ": expected 1.." + std::to_string(kClassDataDim));
    std::vector<float**> matrices(static_cast<std::size_t>(std::max(channels, 0)), nullptr);
    const auto release = [&matrices] {
        for (float**& m : matrices) freeRows(m);
    };
    for (float**& m : matrices)
        if ((m = allocateRows<float>(D, D)) == nullptr) {
            release();
            return msmface::Status::failure(msmface::ErrorKind::Internal,
                                            "out of memory for the constraint space");
        }
    std::vector<const char*> paths;
    for (const std::string& f : personFiles) paths.push_back(f.c_str());
    clearWriteFailure();
    const int written =
        regenerateFromFiles(static_cast<int>(paths.size()), paths.data(), basisCount, stem.c_str(),
                            ClassStore{matrices.data(), channels, D}, sourceKind);
    release();
    if (written == 1) return {};
    const std::string noted = lastWriteFailure();
    return msmface::Status::failure(msmface::ErrorKind::File,
                                    !noted.empty() ? noted
                                                   : stem +
                                                         ": the constraint space could not be "
                                                         "generated or written");
}

}  // namespace msm
