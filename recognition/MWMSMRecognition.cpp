#include "recognition/MWMSMRecognition.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include <msmface/IDDatabase.h>

#include "dictionary/MtrxChunk.h"
#include "dictionary/rows.h"
#include "numeric/diagnostics.h"
#include "recognition/dictionary_prefetch.h"
#include "recognition/person_value.h"

namespace {

constexpr std::size_t kShortAlign = 32;
constexpr int kDim = msm::kPatternDim;

// trunc(0.9 x d): fewer vectors than this are not a constraint subspace of d dimensions.
int minimumConstraintVectors(int d) {
    return static_cast<int>(0.9 * d);
}

}  // namespace

MWMSMRecognition::MWMSMRecognition(int dimension, int channels)
    : MSMRecognition(dimension, channels) {
    classData.assign(channelCount, nullptr);
    for (auto& m : classData) {
        m = msm::allocateRows<float>(kDim, kDim);
        if (m == nullptr) msm::reportNoMemory();
    }
}

MWMSMRecognition::~MWMSMRecognition() {
    for (auto& m : classData) msm::freeRows(m);
    msm::freeRows(projectedInput_);
}

// --- Loading ----------------------------------------------------------------------------------

void MWMSMRecognition::ReleaseConstraintSpaces() {
    spaces.reset();
    spaceCount = 0;
    selectedSpace = 0;
    learnedSpace = -1;
}

int MWMSMRecognition::ReadConstraintList(const char* path) {
    msm::ConstraintList list;
    msm::ListRead read = msm::readConstraintList(path, list);
    if (read == msm::ListRead::TooMany || read == msm::ListRead::CannotOpen) return 0;
    ReleaseConstraintSpaces();
    if (read != msm::ListRead::Accepted) return 0;
    const int n = list.declared;
    if (n > 0) {
        spaces.reset(new (std::nothrow) ConstraintSpace[n]);
        if (spaces == nullptr) {
            msm::reportNoMemory();
            return 0;
        }
    }
    for (int s = 0; s < n; ++s) {
        ConstraintSpace& space = spaces[s];
        const msm::ConstraintListEntry& e = list.entries[s];
        space.kind = e.kind;
        space.dimension = e.dimension;
        space.stem = e.stem;
        space.stem2 = e.stem2;
        space.eigenvalues.assign(static_cast<std::size_t>(channelCount) * kDim, 0.0f);
        if (e.kind == msm::kKindLearned) learnedSpace = s;
    }
    spaceCount = n;
    selectedSpace = list.selected;
    return 1;
}

bool MWMSMRecognition::UsableConstraintChunk(const DictChunk& chunk) const {
    if (chunk.count < channelCount) return false;
    for (int c = 0; c < channelCount; ++c)
        if (chunk.prims[c].dim != kDim || chunk.prims[c].frows == nullptr) return false;
    return true;
}

int MWMSMRecognition::LoadConstraintSubspace(int s) {
    ConstraintSpace& space = spaces[s];
    if (space.dimension < 0) return 0;
    DictChunk file;
    file.SetModeAndLimit(kDicPrimFloat, 0);
    if (file.ReadAll((space.stem + ".dck").c_str()) != 1) return 0;
    const int n = file.count > 0 ? file.prims[0].count : 0;
    const int d = file.count > 0 ? file.prims[0].dim : 0;
    if (n < minimumConstraintVectors(d)) return -1;
    if (n < space.dimension) return 0;
    // Every channel must be a 256-value basis of the space's size before it may be projected on.
    if (!UsableConstraintChunk(file)) return 0;
    for (int c = 0; c < channelCount; ++c)
        if (file.prims[c].count < space.dimension) return 0;
    if (space.subspace.CopyFrom(file) != 1) return 0;
    DictChunk values;
    values.SetModeAndLimit(kDicPrimFloat, 0);
    if (values.ReadAll((space.stem + ".dckev").c_str()) != 1) return 0;
    std::fill(space.eigenvalues.begin(), space.eigenvalues.end(), 0.0f);
    for (int c = 0; c < channelCount && c < values.count; ++c) {
        const DicPrim& v = values.prims[c];
        if (v.dim < 1 || v.frows == nullptr) continue;
        int rows = std::min({v.count, v.allocatedRows, kDim});
        for (int r = 0; r < rows; ++r) space.channelEigenvalues(c)[r] = v.frows[r][0];
    }
    return 1;
}

bool MWMSMRecognition::LoadSecondSubspace(int s) {
    ConstraintSpace& space = spaces[s];
    if (space.dimension < 0) return false;
    DictChunk file;
    file.SetModeAndLimit(kDicPrimFloat, 0);
    if (file.ReadAll((space.stem2 + ".dck").c_str()) != 1 || !UsableConstraintChunk(file))
        return false;
    if (space.subspace.CopyFrom(file) != 1) return false;
    for (int c = 0; c < channelCount; ++c)
        if (file.prims[c].count < space.dimension) return false;
    return true;
}

int MWMSMRecognition::LoadMatrix(const std::string& stem) {
    MtrxChunk chunk;
    if (chunk.ReadAll((stem + ".mck").c_str()) != 1) return 0;
    for (int c = 0; c < chunk.count && c < channelCount; ++c) {
        const MrxPrim& m = chunk.prims[c];
        float** dst = classData[c];
        if (dst == nullptr || m.elements == nullptr) continue;
        const float* e = m.elements;
        // Packed upper triangle of m.order; only what lies within the store is kept.
        for (int i = 0; i < m.order; ++i)
            for (int j = i; j < m.order; ++j, ++e)
                if (j < kDim) dst[i][j] = dst[j][i] = *e;
        if (c == 0) loadedClassCount = m.number;
    }
    return 1;
}

int MWMSMRecognition::LoadLearnedSpace(int s) {
    ConstraintSpace& space = spaces[s];
    const int r1 = LoadConstraintSubspace(s);
    auto fromSecond = [&](int ok, int fail, int none) {
        if (!LoadSecondSubspace(s)) return none;
        return LoadMatrix(space.stem2) == 1 ? ok : fail;
    };
    if (r1 >= 1) {
        int r3 = LoadMatrix(space.stem);
        if (r3 >= 1) return r3;
        return fromSecond(4, -4, -5);
    }
    if (r1 == 0) return fromSecond(2, -2, -1);
    if (r1 == -1) return fromSecond(3, -3, -1);
    return -9;
}

int MWMSMRecognition::LoadSpace(int s) {
    ConstraintSpace& space = spaces[s];
    switch (space.kind) {
        case msm::kKindPlain:
            space.loadStatus = 1;
            break;
        case msm::kKindFile:
            space.loadStatus = LoadConstraintSubspace(s);
            break;
        case msm::kKindLearned:
            space.loadStatus = LoadLearnedSpace(s);
            break;
        default:
            space.loadStatus = 0;
            break;
    }
    return space.loadStatus;
}

int MWMSMRecognition::LoadConstraintSpaces() {
    int learnedStatus = 1;
    for (int s = 0; s < spaceCount; ++s) spaces[s].loadStatus = msm::kNotLoaded;
    for (int s = 0; s < spaceCount; ++s) {
        int status = LoadSpace(s);
        if (spaces[s].kind == msm::kKindFile && status < 1) return status - 10;
        if (spaces[s].kind == msm::kKindLearned) {
            if (status < 1) return status;
            learnedStatus = status;
        }
    }
    return learnedStatus;
}

int MWMSMRecognition::InitConstraintMSM(const char* path) {
    int result = ReadConstraintList(path) == 1 ? LoadConstraintSpaces() : 0;
    if (result > 0) return result;
    msm::diagnose("Initialize C failed");
    return result;
}

int MWMSMRecognition::ReloadMultiConstraintSpace(const char* path) {
    ReleaseConstraintSpaces();
    int result = ReadConstraintList(path) == 1 ? LoadConstraintSpaces() : 0;
    if (result <= 0) msm::diagnose("ReloadMultiCS C failed");
    return result;
}

int MWMSMRecognition::ReloadConstraintMSM() {
    if (learnedSpace < 0 || learnedSpace >= spaceCount) return 0;
    return LoadSpace(learnedSpace);
}

int MWMSMRecognition::Get_CMSML_FileHeader(char* buf) const {
    if (buf == nullptr) return 0;
    if (learnedSpace < 0 || learnedSpace >= spaceCount) {
        buf[0] = '\0';
        return 0;
    }
    const std::string& s = spaces[learnedSpace].stem;
    std::memcpy(buf, s.c_str(), s.size() + 1);
    return 1;
}

int MWMSMRecognition::Get_CMSML_defaultFileHeader(char* buf) const {
    if (buf == nullptr) return 0;
    if (learnedSpace < 0 || learnedSpace >= spaceCount) {
        buf[0] = '\0';
        return 0;
    }
    const std::string& s = spaces[learnedSpace].stem2;
    std::memcpy(buf, s.c_str(), s.size() + 1);
    return 1;
}

// --- Projection -------------------------------------------------------------------------------

void MWMSMRecognition::ProjectRows(float* const* u, int rows, int s, int c, short* const* out) {
    msm::projectIntoSpace(msm::spaceChannel(spaces[s], c, kDim), u, rows, basisCount, kDim, out,
                          paddedDim, projectionWork_);
}

int MWMSMRecognition::ProjectDictionary(const DictChunk& dictionary, int s, DictChunk& out) {
    if (s < 0 || s >= spaceCount) return 0;
    if (out.Allocate(channelCount) != 1) return 0;
    for (int c = 0; c < channelCount; ++c) {
        DicPrim& q = out.prims[c];
        if (q.Allocate(kDim, basisCount, kDicPrimShort) != 1) return 0;
        if (c >= dictionary.count) continue;
        const DicPrim& d = dictionary.prims[c];
        float* const* rows = d.FloatRows();
        if (rows == nullptr || d.dim != kDim) continue;
        ProjectRows(rows, std::min(d.count, d.allocatedRows), s, c, q.srows);
    }
    return 1;
}

int MWMSMRecognition::DicConvertID(IDDatabase& db, int person) {
    if (person < 0 || person >= db.count) return 0;
    if (spaceCount == 0) return 1;
    if (db.numCS != spaceCount) {
        // Arrays sized for another list would be read past their end.
        for (int p = 0; p < db.count; ++p) {
            delete[] db.projected[p];
            db.projected[p] = nullptr;
        }
        db.SetNumCS(spaceCount);
    }
    DictChunk*& sets = db.projected[person];
    if (sets == nullptr) sets = new (std::nothrow) DictChunk[spaceCount];
    if (sets == nullptr) {
        msm::reportNoMemory();
        return 0;
    }
    for (int s = 0; s < spaceCount; ++s)
        if (ProjectDictionary(db.dictionaries[person], s, sets[s]) != 1) return 0;
    return 1;
}

int MWMSMRecognition::DicConvert(IDDatabase& db) {
    for (int p = 0; p < db.count; ++p)
        if (DicConvertID(db, p) != 1) return 0;
    return 1;
}

bool MWMSMRecognition::ReserveProjectedInput(int n) {
    if (projectedInput_ != nullptr && n <= projectedSpaces_ && basisCount == projectedBasisCount_)
        return true;
    msm::freeRows(projectedInput_);
    projectedSpaces_ = 0;
    projectedInput_ =
        msm::allocateRows<short>(n * channelCount * basisCount, paddedDim, kShortAlign);
    if (projectedInput_ == nullptr) {
        msm::reportNoMemory();
        return false;
    }
    projectedSpaces_ = n;
    projectedBasisCount_ = basisCount;
    return true;
}

bool MWMSMRecognition::ReserveSpaceBatch(int n) {
    const int slots = msm::kPersonsPerBatch * n * channelCount;
    if (!batch_.Reserve(basisCount, slots)) {
        msm::reportNoMemory();
        return false;
    }
    try {
        if (spacePendingPersons_.size() < static_cast<std::size_t>(msm::kPersonsPerBatch))
            spacePendingPersons_.resize(msm::kPersonsPerBatch);
        if (spacePendingSlots_.size() < static_cast<std::size_t>(slots))
            spacePendingSlots_.resize(slots);
    } catch (const std::bad_alloc&) {
        msm::reportNoMemory();
        return false;
    }
    return true;
}

void MWMSMRecognition::ScorePendingInSpaces(msm::RankingPass& pass, int used) {
    // A person without projected sets has every slot skipped and so the value 0, as before.
    msm::offerSpacesBatch(batch_, spacePendingPersons_.data(), spacePendingSlots_.data(),
                          spacePendingCount_, used, channelCount, subspaceDistNum, pass);
    batch_.Clear();
    spacePendingCount_ = 0;
}

int MWMSMRecognition::RecognizeInConstraintSpaces(float* const* patterns,
                                                  DictChunk* const* projected, int personCount,
                                                  int setsPerPerson, int spacesUsed, int* bestScore,
                                                  const unsigned char* mask) {
    if (ready == 0) return -1;
    UpdateInputSubspaces(patterns, false);
    if (results.length == 0 || inputBases.count != channelCount) return -1;
    PrepareInputRows();
    const int used = std::clamp(spacesUsed, 0, std::min(spaceCount, setsPerPerson));
    if (used > 0 && !ReserveProjectedInput(used)) return -1;
    if (!ReserveSpaceBatch(used)) return -1;
    for (int s = 0; s < used; ++s)
        for (int c = 0; c < channelCount; ++c)
            ProjectRows(inputBases.prims[c].frows, basisCount, s, c, ProjectedInputRows(s, c));
    msm::RankingStyle style;
    style.topThreeTestsLastChannel = false;
    msm::RankingPass pass(results, resultMode, personCount, style);
    int scored = 0;
    const msm::DictionaryPrefetcher prefetch(&DicPrim::srows, channelCount, basisCount,
                                             paddedDim * static_cast<int>(sizeof(short)));
    spacePendingCount_ = 0;
    for (int p = 0; projected != nullptr && p < personCount; ++p) {
        for (int s = 0; s < used; ++s)
            prefetch.Ahead(p, personCount, [projected, s](int i) -> const DictChunk* {
                return projected[i] != nullptr ? projected[i] + s : nullptr;
            });
        if (mask != nullptr && mask[p] == 0) continue;
        if (spacePendingCount_ == msm::kPersonsPerBatch) ScorePendingInSpaces(pass, used);
        int* slots = spacePendingSlots_.data() + spacePendingCount_ * used * channelCount;
        for (int s = 0; s < used; ++s) {
            for (int c = 0; c < channelCount; ++c) {
                int& slot = slots[s * channelCount + c];
                slot = -1;
                if (projected[p] == nullptr) continue;
                DictChunk& sets = projected[p][s];
                if (c >= sets.count) continue;
                const DicPrim& q = sets.prims[c];
                if (q.srows == nullptr || q.dim != kDim || q.paddedLength < paddedDim) continue;
                slot =
                    AddPair(q.srows, std::min(q.count, q.allocatedRows), ProjectedInputRows(s, c));
            }
        }
        spacePendingPersons_[spacePendingCount_++] = p;
        ++scored;
    }
    ScorePendingInSpaces(pass, used);
    pass.Finish();
    // Reallocating for all persons may have failed and left no lists.
    int32_t best = results.length > 0 ? results.candidates[0].similarity : 0;
    if (bestScore != nullptr) *bestScore = best;
    if (scored == 0 || results.length == 0) return -1;
    return best > identifyThreshold ? results.candidates[0].id : -1;
}

// --- Generation -------------------------------------------------------------------------------

void MWMSMRecognition::AddClassData(const DictChunk& set) {
    msm::addClassData(set, generationBasisCount, Store());
}

void MWMSMRecognition::RemoveClassData(const DictChunk& set) {
    msm::removeClassData(set, generationBasisCount, Store());
}

int MWMSMRecognition::RecomputeAndWrite(int classCount, const char* stem, const char* evStem) {
    for (float** m : classData)
        if (m == nullptr) return 0;
    return msm::recomputeAndWrite(Store(), classCount, stem, evStem);
}

int MWMSMRecognition::RecomputeConstraintSpace(int classCount) {
    if (learnedSpace < 0 || learnedSpace >= spaceCount) return 0;
    const char* header = spaces[learnedSpace].stem.c_str();
    return RecomputeAndWrite(classCount, header, header);
}

int MWMSMRecognition::RebuildFromFiles(int n, const char* const* paths, const char* stem,
                                       const char* evStem, int sourceKind) {
    for (float** m : classData)
        if (m == nullptr) return 0;
    return msm::rebuildFromFiles(n, paths, generationBasisCount, stem, evStem, Store(), sourceKind);
}

int MWMSMRecognition::RegenerateFromScratch(int n, const char* const* paths, int sourceKind) {
    if (learnedSpace < 0 || learnedSpace >= spaceCount) return 0;
    for (float** m : classData)
        if (m == nullptr) return 0;
    return msm::regenerateFromFiles(n, paths, generationBasisCount,
                                    spaces[learnedSpace].stem.c_str(), Store(), sourceKind);
}

int MWMSMRecognition::RegenerateOnStoredData(int n, const char* const* paths, int sourceKind) {
    if (learnedSpace < 0 || learnedSpace >= spaceCount) return 0;
    const std::string& header = spaces[learnedSpace].stem;
    if (LoadMatrix(header) != 1) return 0;
    return RebuildFromFiles(n, paths, header.c_str(), header.c_str(), sourceKind);
}

int MWMSMRecognition::ReadPendingSet(const char* path, int sourceKind) {
    return msm::readClassSet(path, sourceKind, pendingSet);
}

int MWMSMRecognition::ReadRemovedSet(const char* path, int sourceKind) {
    return msm::readClassSet(path, sourceKind, removedSet);
}
