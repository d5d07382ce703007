#include "recognition/MWMSMRecognition.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include <msmface/IDDatabase.h>

#include "dictionary/MtrxChunk.h"
#include "dictionary/rows.h"
#include "numeric/diagnostics.h"
#include "recognition/constraint_space_loader.h"
#include "recognition/dictionary_prefetch.h"
#include "recognition/person_value.h"

namespace {

constexpr std::size_t kShortAlign = 32;
constexpr int kDim = msm::kPatternDim;

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
    int learned = -1;
    spaces = msm::unloadedSpaces(list, channelCount, &learned);
    if (spaces == nullptr && list.declared > 0) return 0;
    spaceCount = list.declared > 0 ? list.declared : 0;
    learnedSpace = learned;
    selectedSpace = list.selected;
    return 1;
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

int MWMSMRecognition::LoadSpace(int s) {
    return msm::loadConstraintSpace(spaces[s], channelCount,
                                    [this](const std::string& stem) { return LoadMatrix(stem); });
}

int MWMSMRecognition::LoadConstraintSpaces() {
    return msm::loadConstraintSpaces(spaces.get(), spaceCount, channelCount,
                                     [this](const std::string& stem) { return LoadMatrix(stem); });
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
