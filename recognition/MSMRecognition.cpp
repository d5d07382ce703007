#include "recognition/MSMRecognition.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"
#include "recognition/dictionary_prefetch.h"
#include "recognition/person_value.h"

namespace {

constexpr std::size_t kShortAlign = 32;

}  // namespace

MSMRecognition::MSMRecognition(int /*dimension*/, int channels)
    : channelCount(std::clamp(channels, 1, msm::kMaxChannels)) {
    inputs = new (std::nothrow) InputSubspace[channelCount];
    if (inputs == nullptr) msm::reportNoMemory();
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) {
        inputs[c].frameCount = 0;
        inputs[c].Allocate(basisCount, dimension);
    }
    results.Reset(msm::kMinRankingLength);
    AllocateBasisWork();
}

MSMRecognition::~MSMRecognition() {
    ReleaseBasisWork();
    delete[] inputs;
}

void MSMRecognition::ReleaseBasisWork() {
    msm::freeRows(angleMatrix);
    std::free(eigenvalues);
    std::free(offDiagonal);
    std::free(work_.gram);
    msm::freeRows(inputQ14_);
    eigenvalues = nullptr;
    offDiagonal = nullptr;
    work_ = msm::SimilarityWork{};
    inputBases.Release();
}

bool MSMRecognition::AllocateBasisWork() {
    ReleaseBasisWork();
    const int K = basisCount;
    angleMatrix = msm::allocateRows<float>(K, K);
    eigenvalues = static_cast<float*>(std::calloc(K, sizeof(float)));
    offDiagonal = static_cast<float*>(std::calloc(K, sizeof(float)));
    work_.gram =
        static_cast<int32_t*>(std::calloc(static_cast<std::size_t>(msm::gramEntries(K)), 4));
    inputQ14_ = msm::allocateRows<short>(channelCount * K, paddedDim, kShortAlign);
    bool ok = angleMatrix != nullptr && eigenvalues != nullptr && offDiagonal != nullptr &&
              work_.gram != nullptr && inputQ14_ != nullptr && inputBases.Allocate(channelCount);
    for (int c = 0; ok && c < channelCount; ++c)
        ok = inputBases.prims[c].Allocate(dimension, K, kDicPrimFloat) == 1;
    ok = ok && batch_.Reserve(K, msm::kPersonsPerBatch * channelCount);
    try {
        pendingPersons_.resize(msm::kPersonsPerBatch);
        pendingSlots_.resize(static_cast<std::size_t>(msm::kPersonsPerBatch) * channelCount);
    } catch (const std::bad_alloc&) {
        ok = false;
    }
    if (!ok) {
        msm::reportNoMemory();
        ReleaseBasisWork();
        return false;
    }
    work_.K = K;
    work_.angle = angleMatrix;
    work_.eigenvalues = eigenvalues;
    work_.offDiagonal = offDiagonal;
    return true;
}

int MSMRecognition::Change_need_eigen_num(int k) {
    if (k < msm::kMinBasisCount || k > msm::kMaxBasisCount) return 0;
    basisCount = k;
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) {
        inputs[c].Allocate(k, dimension);
        // The autocorrelation and basis are new: what was accumulated is gone.
        inputs[c].Refresh();
    }
    AllocateBasisWork();
    return 1;
}

void MSMRecognition::Change_SubspaceDistNum(int n) {
    if (n > basisCount)
        subspaceDistNum = basisCount;
    else
        subspaceDistNum = n < 0 ? 1 : n;
}

void MSMRecognition::Change_InputSS_MAXSEGNUM(int n) {
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) inputs[c].ChangeMaxSegments(n);
}

void MSMRecognition::Set_RecognitionResultMode(int mode, int n) {
    if (mode == 0) {
        results.Reset(msm::kMinRankingLength);
    } else if (mode >= 1 && mode <= 3) {
        results.Reset(std::clamp(n, msm::kMinRankingLength, msm::kMaxRankingLength));
    } else {
        return;
    }
    resultMode = mode;
}

void MSMRecognition::Set_EVPsi(float w) {
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) inputs[c].updateWeight = w;
}

float MSMRecognition::Get_EVPsi() const {
    return inputs != nullptr ? inputs[0].updateWeight : 0.0f;
}

void MSMRecognition::Refresh_input() {
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) inputs[c].Refresh();
}

void MSMRecognition::NoticeCompleteRecognition() {
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) inputs[c].KeepFrames();
}

int MSMRecognition::GetMulCount() const {
    return inputs != nullptr ? inputs[0].frameCount : 0;
}

int MSMRecognition::GetBufferCount() const {
    return inputs != nullptr ? inputs[0].keptCount : 0;
}

int MSMRecognition::UpdateInputSubspaces(float* const* patterns, bool checkReady) {
    for (int c = 0; inputs != nullptr && c < channelCount; ++c) {
        if (patterns != nullptr) inputs[c].Update(patterns[c]);
        if (checkReady && ready == 0) return 0;
    }
    return 1;
}

void MSMRecognition::PrepareInputRows() {
    if (inputQ14_ == nullptr || inputs == nullptr) return;
    const int K = basisCount;
    for (int c = 0; c < channelCount; ++c)
        msm::inputBasisRows(inputs[c], K, dimension, inputBases.prims[c].frows, inputQ14_ + c * K,
                            paddedDim);
}

float MSMRecognition::SubspaceSimilarity(short* const* a, int aRows, short* const* u) {
    return msm::q14SubspaceSimilarity(a, aRows, u, paddedDim, subspaceDistNum, work_);
}

int MSMRecognition::AddPair(short* const* a, int aRows, short* const* u) {
    int slot = -1;
    float* x = batch_.Add(&slot);
    if (x == nullptr) return -1;
    msm::formSimilarityMatrix(a, aRows, u, paddedDim, work_, x);
    return slot;
}

int MSMRecognition::AddChannel(DictChunk& person, int c) {
    if (c >= person.count || person.prims == nullptr) return -1;
    DicPrim& prim = person.prims[c];
    if (prim.dim != dimension) return -1;
    // Dictionaries read by the database come prepared; one made elsewhere is prepared once here.
    if (prim.qrows == nullptr && prim.PrepareQ14Rows() != 1) return -1;
    if (prim.qLength < paddedDim) return -1;
    int rows = std::min(prim.count, prim.allocatedRows);
    return AddPair(prim.qrows, rows, InputRows(c));
}

void MSMRecognition::ScorePending(msm::RankingPass& pass) {
    msm::offerSubspaceBatch(batch_, pendingPersons_.data(), pendingSlots_.data(), pendingCount_,
                            channelCount, subspaceDistNum, pass);
    batch_.Clear();
    pendingCount_ = 0;
}

int MSMRecognition::RecognizeByInputSubspaces(float* const* patterns, DictChunk* persons,
                                              int personCount, int* bestScore,
                                              const unsigned char* mask) {
    if (UpdateInputSubspaces(patterns, true) == 0) return -1;
    if (work_.gram == nullptr || results.length == 0) return -1;
    PrepareInputRows();
    msm::RankingStyle style;
    msm::RankingPass pass(results, resultMode, personCount, style);
    int scored = 0;
    const msm::DictionaryPrefetcher prefetch(&DicPrim::qrows, channelCount, basisCount,
                                             paddedDim * static_cast<int>(sizeof(short)));
    auto chunkAt = [persons](int i) -> const DictChunk* { return persons + i; };
    // Each person's matrices are formed when its turn comes, so that the prefetch stays one
    // person ahead of the reads; their eigenvalues wait for a batch of persons.
    batch_.Clear();
    pendingCount_ = 0;
    for (int p = 0; persons != nullptr && p < personCount; ++p) {
        prefetch.Ahead(p, personCount, chunkAt);
        if (mask != nullptr && mask[p] == 0) continue;
        if (pendingCount_ == msm::kPersonsPerBatch) ScorePending(pass);
        int* slots = pendingSlots_.data() + pendingCount_ * channelCount;
        for (int c = 0; c < channelCount; ++c) slots[c] = AddChannel(persons[p], c);
        pendingPersons_[pendingCount_++] = p;
        ++scored;
    }
    ScorePending(pass);
    pass.Finish();
    int32_t best = results.length > 0 ? results.candidates[0].similarity : 0;
    if (bestScore != nullptr) *bestScore = best;
    if (scored == 0 || results.length == 0) return -1;
    return best > identifyThreshold ? results.candidates[0].id : -1;
}

int32_t MSMRecognition::SinglePatternScore(int dim, float* const* rows, int rowCount,
                                           const float* x) {
    double norm = 0.0;
    for (int k = 0; k < dim; ++k) norm += static_cast<double>(x[k]) * x[k];
    double sum = 0.0;
    int n = std::min(rowCount, msm::kSinglePatternVectors);
    for (int i = 0; i < n; ++i) {
        double dot = 0.0;
        for (int k = 0; k < dim; ++k) dot += static_cast<double>(x[k]) * rows[i][k];
        sum += dot * dot;
    }
    return msm::truncScore(1000.0 * sum / norm);
}

int MSMRecognition::RecognizeBySinglePattern(float* const* patterns, DictChunk* persons,
                                             int personCount, int* bestScore) {
    UpdateInputSubspaces(patterns, false);
    if (results.length == 0) return -1;
    msm::RankingStyle style;
    style.topThreeScale = 1.0;
    style.allPersonsCopy = 0;
    msm::RankingPass pass(results, resultMode, personCount, style);
    int scored = 0;
    for (int p = 0; persons != nullptr && patterns != nullptr && p < personCount; ++p) {
        msm::PatternScoreMean mean;
        for (int c = 0; c < channelCount; ++c) {
            int32_t channelScore = 0;
            if (c < persons[p].count && patterns[c] != nullptr) {
                const DicPrim& prim = persons[p].prims[c];
                float* const* rows = prim.FloatRows();
                if (rows != nullptr && prim.dim == dimension)
                    channelScore = SinglePatternScore(
                        dimension, rows, std::min(prim.count, prim.allocatedRows), patterns[c]);
            }
            mean.Add(channelScore);
        }
        const int32_t score = mean.Score(channelCount);
        pass.Offer(p, score, score, mean.Last());
        ++scored;
    }
    pass.Finish();
    // Reallocating for all persons may have failed and left no lists.
    int32_t best = results.length > 0 ? results.candidates[0].similarity : 0;
    if (bestScore != nullptr) *bestScore = best;
    return scored == 0 || results.length == 0 ? -1 : results.candidates[0].id;
}
