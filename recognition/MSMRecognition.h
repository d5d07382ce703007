// The recogniser: one input subspace per pattern channel, compared every frame with the
// dictionary subspaces of the registered persons by the mutual subspace method, and the ranked
// result of that comparison.
//
// Scores are in thousandths (1000 = similarity 1.0), truncated toward zero; a best score must be
// strictly greater than the identify threshold to identify anyone.
//
// Threads. No locks: one thread at a time per recogniser.
#ifndef MSMFACE_RECOGNITION_MSMRECOGNITION_H
#define MSMFACE_RECOGNITION_MSMRECOGNITION_H

#include <cstdint>
#include <vector>

#include "dictionary/DictChunk.h"
#include "recognition/InputSubspace.h"
#include "recognition/ranking.h"
#include "recognition/similarity_batch.h"
#include "recognition/subspace_similarity.h"

namespace msm {
// Channels a recogniser accepts: the extractor delivers 5; more is a caller's mistake.
constexpr int kMaxChannels = 64;
constexpr int kMinBasisCount = 3;
// Vectors compared per subspace until a host sets another count.
constexpr int kDefaultBasisCount = 7;
constexpr int kMaxBasisCount = 20;
static_assert(kMaxBasisCount <= kMaxSimilarityRows, "the similarity scratch holds every basis");
// Dictionary vectors that the single-pattern method always uses, whatever the basis count.
constexpr int kSinglePatternVectors = 7;
// Persons whose similarity matrices are gathered before their eigenvalues are solved together.
constexpr int kPersonsPerBatch = 8;
}  // namespace msm

class MSMRecognition {
  public:
    int32_t identifyThreshold = 850;
    int32_t basisCount =
        msm::kDefaultBasisCount;  // need_eigen_num: vectors of every input and compared dictionary
    int32_t dimension = msm::kPatternDim;
    int32_t twoStagePickRange = 16;  // stored for the host only
    int32_t reservedSetting = 16;    // stored only
    msm::ResultLists results;        // ranking length (>= 10), candidates, scores, indices
    int32_t resultMode = 0;
    int32_t subspaceDistNum = 1;  // canonical angles averaged in the similarity
    // Work of the similarity, basis count sized: angle matrix, eigenvalues, off-diagonal.
    float** angleMatrix = nullptr;
    float* eigenvalues = nullptr;
    float* offDiagonal = nullptr;
    InputSubspace* inputs = nullptr;  // channelCount records
    int32_t paddedDim = msm::kPaddedDim;
    // Cleared, a recognition step is refused (-1): the subspace path after updating channel 0
    // only, the constraint-space path before touching anything. Set_SimCalcControl.
    int32_t ready = 1;
    int32_t channelCount = 5;
    // Float copies of the channels' input bases, one (256, basis count, float rows) set per
    // channel, the same container as a person's dictionary.
    DictChunk inputBases;

    // dimension is accepted and ignored (patterns are always 256 values); channels outside
    // 1..kMaxChannels are clamped. Allocation failures are reported ("cannot malloc.") and
    // leave the member empty; the recogniser then refuses what needs it.
    MSMRecognition(int dimension, int channels);
    virtual ~MSMRecognition();
    MSMRecognition(const MSMRecognition&) = delete;
    MSMRecognition& operator=(const MSMRecognition&) = delete;

    // --- Settings -------------------------------------------------------------------------
    void Set_Identify_thresvalue(int v) { identifyThreshold = v; }
    int Get_Identify_thresvalue() const { return identifyThreshold; }
    // Accepts 3..20 (else returns 0, nothing changes): rebuilds every channel's input subspace
    // and the similarity work for k vectors and clears the input; returns 1.
    int Change_need_eigen_num(int k);
    int Get_need_eigen_num() const { return basisCount; }
    // Above the basis count stores the basis count; a negative n stores 1; 0 is stored (and
    // makes every similarity a NaN score).
    void Change_SubspaceDistNum(int n);
    int Get_SubspaceDistNum() const { return subspaceDistNum; }
    // Frame buffer rows of every channel; n outside 1..501 changes nothing.
    void Change_InputSS_MAXSEGNUM(int n);
    // mode 0: 10 entries; modes 1-3: n entries (at least 10, at most 2000); lists reallocated.
    // Any other mode changes nothing.
    void Set_RecognitionResultMode(int mode, int n);
    int Get_RecognitionResultMode() const { return resultMode; }
    void Set_SimCalcControl(bool on) { ready = on ? 1 : 0; }
    bool Get_SimCalcControl() const { return ready != 0; }
    void Set_2stagepickrange(int v) { twoStagePickRange = v; }
    int Get_2stagepickrange() const { return twoStagePickRange; }
    // The weight of the newest pattern in every channel's autocorrelation / channel 0's.
    void Set_EVPsi(float w);
    float Get_EVPsi() const;

    // --- Input ----------------------------------------------------------------------------
    // Every channel's next pattern starts a new input subspace.
    void Refresh_input();
    // Keeps every channel's buffered patterns and their count for a later addition.
    void NoticeCompleteRecognition();
    int GetMulCount() const;     // channel 0's frame count
    int GetBufferCount() const;  // channel 0's kept count
    // Runs every channel's update with its pattern (patterns[c], 256 floats; a null pattern
    // leaves its channel as it is). With checkReady, stops after a channel when the ready flag
    // is clear and returns 0; else returns 1.
    int UpdateInputSubspaces(float* const* patterns, bool checkReady);

    // --- Recognition (persons: dictionaries in dictionary order, one set per person with one
    // primitive per channel) -------------------------------------------------------------
    // Method 1: updates the input subspaces, scores every person whose mask byte is not 0 (all
    // when mask is null) and ranks them by the result mode. Writes the best score (the first
    // candidate's) and returns the best person's index when that score exceeds the threshold,
    // else -1; -1 without ranking when the ready flag is clear.
    int RecognizeByInputSubspaces(float* const* patterns, DictChunk* persons, int personCount,
                                  int* bestScore, const unsigned char* mask = nullptr);
    // Method 0: updates the input subspaces and scores each person by the patterns themselves
    // against the first seven dictionary vectors. Returns the best person's index, -1 when there
    // is none; the threshold is the caller's.
    int RecognizeBySinglePattern(float* const* patterns, DictChunk* persons, int personCount,
                                 int* bestScore);

    // trunc(1000 * sum_i (x.phi_i)^2 / |x|^2) over the first seven of the rows (fewer when the
    // dictionary holds fewer), in double. requires: rows hold dim floats each.
    static int32_t SinglePatternScore(int dim, float* const* rows, int rowCount, const float* x);
    // The similarity of the Q14 rows a (aRows of them) to the input rows u, in Q14 units.
    // requires: u holds basisCount rows of paddedDim values.
    float SubspaceSimilarity(short* const* a, int aRows, short* const* u);
    // Channel c's input basis as Q14 rows (after a recognition step prepared them).
    short* const* InputRows(int c) const { return inputQ14_ + c * basisCount; }

  protected:
    // Copies every channel's basis into inputBases and converts it to Q14 rows.
    void PrepareInputRows();
    bool AllocateBasisWork();
    // Forms the similarity matrix of person's channel c dictionary and the input in the next
    // batch slot and returns the slot; -1 when the channel holds no usable dictionary (wrong
    // dimension, missing), whose similarity is 0, or when the batch is full.
    int AddChannel(DictChunk& person, int c);
    // Forms the similarity matrix of the Q14 rows a (aRows of them) and u in the next batch slot;
    // returns the slot, -1 when the batch is full.
    int AddPair(short* const* a, int aRows, short* const* u);

    msm::SimilarityBatch batch_;

  private:
    void ReleaseBasisWork();
    // Solves the batch and offers the pending persons to the ranking in the order they came.
    void ScorePending(msm::RankingPass& pass);

    msm::SimilarityWork work_;
    short** inputQ14_ = nullptr;  // channelCount * basisCount rows of paddedDim
    // Persons formed but not yet scored, and each one's slot per channel (-1: similarity 0).
    std::vector<int> pendingPersons_;
    std::vector<int> pendingSlots_;
    int pendingCount_ = 0;
};

#endif  // MSMFACE_RECOGNITION_MSMRECOGNITION_H
