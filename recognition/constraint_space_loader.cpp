#include "recognition/constraint_space_loader.h"

#include <algorithm>
#include <new>

#include "dictionary/MtrxChunk.h"
#include "numeric/diagnostics.h"

namespace msm {

namespace {

// trunc(0.9 x d): fewer vectors than this are not a constraint subspace of d dimensions.
int minimumConstraintVectors(int d) {
    return static_cast<int>(0.9 * d);
}

bool usableChunk(const DictChunk& chunk, int channels, int dimension) {
    if (chunk.count < channels) return false;
    for (int c = 0; c < channels; ++c)
        if (chunk.prims[c].dim != dimension || chunk.prims[c].frows == nullptr) return false;
    return true;
}

int loadSubspace(ConstraintSpace& space, int channels, int dimension) {
    if (space.dimension < 0) return 0;
    DictChunk file;
    file.SetModeAndLimit(kDicPrimFloat, 0);
    if (file.ReadAll((space.stem + ".dck").c_str()) != 1) return 0;
    const int n = file.count > 0 ? file.prims[0].count : 0;
    const int d = file.count > 0 ? file.prims[0].dim : 0;
    if (n < minimumConstraintVectors(d)) return -1;
    if (n < space.dimension) return 0;
    // Every channel must be a basis of the patterns' length and the space's size before it may
    // be projected on.
    if (!usableChunk(file, channels, dimension)) return 0;
    for (int c = 0; c < channels; ++c)
        if (file.prims[c].count < space.dimension) return 0;
    if (space.subspace.CopyFrom(file) != 1) return 0;
    DictChunk values;
    values.SetModeAndLimit(kDicPrimFloat, 0);
    if (values.ReadAll((space.stem + ".dckev").c_str()) != 1) return 0;
    std::fill(space.eigenvalues.begin(), space.eigenvalues.end(), 0.0f);
    for (int c = 0; c < channels && c < values.count; ++c) {
        const DicPrim& v = values.prims[c];
        if (v.dim < 1 || v.frows == nullptr) continue;
        int rows = std::min({v.count, v.allocatedRows, kPatternDim});
        for (int r = 0; r < rows; ++r) space.channelEigenvalues(c)[r] = v.frows[r][0];
    }
    return 1;
}

bool loadSecondSubspace(ConstraintSpace& space, int channels, int dimension) {
    if (space.dimension < 0) return false;
    DictChunk file;
    file.SetModeAndLimit(kDicPrimFloat, 0);
    if (file.ReadAll((space.stem2 + ".dck").c_str()) != 1 ||
        !usableChunk(file, channels, dimension))
        return false;
    if (space.subspace.CopyFrom(file) != 1) return false;
    for (int c = 0; c < channels; ++c)
        if (file.prims[c].count < space.dimension) return false;
    return true;
}

int loadLearnedSpace(ConstraintSpace& space, int channels, const MatrixLoader& matrix,
                     int dimension) {
    const int r1 = loadSubspace(space, channels, dimension);
    auto fromSecond = [&](int ok, int fail, int none) {
        if (!loadSecondSubspace(space, channels, dimension)) return none;
        return matrix(space.stem2) == 1 ? ok : fail;
    };
    if (r1 >= 1) {
        int r3 = matrix(space.stem);
        if (r3 >= 1) return r3;
        return fromSecond(4, -4, -5);
    }
    if (r1 == 0) return fromSecond(2, -2, -1);
    if (r1 == -1) return fromSecond(3, -3, -1);
    return -9;
}

}  // namespace

std::unique_ptr<ConstraintSpace[]> unloadedSpaces(const ConstraintList& list, int channels,
                                                  int* learned) {
    *learned = -1;
    const int n = list.declared;
    if (n < 1) return nullptr;
    std::unique_ptr<ConstraintSpace[]> spaces(new (std::nothrow) ConstraintSpace[n]);
    if (spaces == nullptr) {
        reportNoMemory();
        return nullptr;
    }
    for (int s = 0; s < n; ++s) {
        ConstraintSpace& space = spaces[s];
        const ConstraintListEntry& e = list.entries[s];
        space.kind = e.kind;
        space.dimension = e.dimension;
        space.stem = e.stem;
        space.stem2 = e.stem2;
        space.eigenvalues.assign(static_cast<std::size_t>(channels) * kPatternDim, 0.0f);
        if (e.kind == kKindLearned) *learned = s;
    }
    return spaces;
}

int matrixReads(const std::string& stem) {
    MtrxChunk chunk;
    return chunk.ReadAll((stem + ".mck").c_str()) == 1 ? 1 : 0;
}

int loadConstraintSpace(ConstraintSpace& space, int channels, const MatrixLoader& matrix,
                        int dimension) {
    switch (space.kind) {
        case kKindPlain:
            space.loadStatus = 1;
            break;
        case kKindFile:
            space.loadStatus = loadSubspace(space, channels, dimension);
            break;
        case kKindLearned:
            space.loadStatus = loadLearnedSpace(space, channels, matrix, dimension);
            break;
        default:
            space.loadStatus = 0;
            break;
    }
    return space.loadStatus;
}

int loadConstraintSpaces(ConstraintSpace* spaces, int count, int channels,
                         const MatrixLoader& matrix, int dimension) {
    int learnedStatus = 1;
    for (int s = 0; s < count; ++s) spaces[s].loadStatus = kNotLoaded;
    for (int s = 0; s < count; ++s) {
        int status = loadConstraintSpace(spaces[s], channels, matrix, dimension);
        if (spaces[s].kind == kKindFile && status < 1) return status - 10;
        if (spaces[s].kind == kKindLearned) {
            if (status < 1) return status;
            learnedStatus = status;
        }
    }
    return learnedStatus;
}

}  // namespace msm
