// The recogniser with constraint spaces: the subspaces are compared after both are projected
// onto a constraint subspace that suppresses the variation shared by all faces. Several spaces
// can be loaded at once from a list file; one of them ("CMSML", the current space) is learned
// from the registered persons and regenerated when they change.
//
// Threads. No locks: one thread at a time per recogniser.
#ifndef MSMFACE_RECOGNITION_MWMSMRECOGNITION_H
#define MSMFACE_RECOGNITION_MWMSMRECOGNITION_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "recognition/MSMRecognition.h"
#include "recognition/class_data.h"
#include "recognition/constraint_list.h"
#include "recognition/constraint_space.h"
#include "recognition/projection.h"

class IDDatabase;

class MWMSMRecognition : public MSMRecognition {
  public:
    int32_t spaceCount = 0;
    int32_t workDim = msm::kPatternDim;
    // The class-data store: per channel a 256 x 256 float matrix (sums of the persons'
    // projection matrices), filled by loading a space's ".mck" and by the generation.
    std::vector<float**> classData;
    DictChunk pendingSet;  // dictionaries of the person being added
    DictChunk removedSet;  // dictionaries of the person being removed
    int32_t generationBasisCount = 30;
    std::unique_ptr<ConstraintSpace[]> spaces;
    int32_t selectedSpace = 0;     // 0-based
    int32_t learnedSpace = -1;     // the "CMSML" space, the current space; -1 when there is none
    int32_t loadedClassCount = 0;  // class count of the last ".mck" loaded into the store

    MWMSMRecognition(int dimension, int channels);
    ~MWMSMRecognition() override;

    // --- Loading --------------------------------------------------------------------------
    // Reads the list and, when it is accepted, loads the spaces. Returns the load result when it
    // is positive; otherwise prints "Initialize C failed" and returns it (0 when the list was
    // refused or could not be opened).
    int InitConstraintMSM(const char* path);
    // Releases the loaded spaces, then as InitConstraintMSM, printing "ReloadMultiCS C failed" on
    // a result that is not positive. (The persons' projected dictionaries are the caller's to
    // release first.)
    int ReloadMultiConstraintSpace(const char* path);
    // Loads the current space's files again; its status, or 0 when there is no current space.
    int ReloadConstraintMSM();
    // Reads the list: 1 when accepted (the old spaces are then replaced by its unloaded entries),
    // 0 otherwise (a list of more than 100 spaces leaves the old ones in place; any other refusal
    // leaves none).
    int ReadConstraintList(const char* path);
    // Loads every space in order. 1 when no "CMSML" space was loaded, else that space's status;
    // the first status below 1 ends the loading and is returned (a "CMSMF" space's minus 10).
    int LoadConstraintSpaces();
    void ReleaseConstraintSpaces();
    // The current space's file header (stem) / default file header (stem2) with its terminating
    // zero into buf; 1, or 0 with an empty string when there is no current space.
    // requires: buf holds the header (the list's tokens are at most 4095 characters).
    int Get_CMSML_FileHeader(char* buf) const;
    int Get_CMSML_defaultFileHeader(char* buf) const;

    // --- Dictionaries in the constraint spaces ----------------------------------------------
    // out = one mode-3 (Q14) primitive per channel holding the first basis-count vectors of
    // dictionary projected onto space s (kind 1: converted unprojected). Returns 1, or 0 for a
    // bad space index or when memory runs out.
    int ProjectDictionary(const DictChunk& dictionary, int s, DictChunk& out);
    // Projects every registered person's dictionary into every space, creating the per-person
    // arrays (one chunk per space) where they are missing; arrays of another length than the
    // space count are replaced and the database's space count set. Returns 1, or 0 when memory
    // runs out.
    int DicConvert(IDDatabase& db);
    // The same for one person: 0 for an index outside 0..count-1, 1 at once with no spaces.
    int DicConvertID(IDDatabase& db, int person);

    // --- Recognition ------------------------------------------------------------------------
    // Methods 2, 4, 6, 7: -1 at once when the ready flag is clear; otherwise updates the input
    // subspaces, projects them onto the first spacesUsed spaces and scores every person (mask
    // byte not 0) by the mean over channels of the similarities in each space, summed over the
    // spaces and divided by their number when there are several. projected[p] holds
    // setsPerPerson chunks (null: the person scores 0). Ranks by the result mode (top three on
    // the person's value alone), writes the best score and returns the best index when it
    // exceeds the threshold, else -1.
    int RecognizeInConstraintSpaces(float* const* patterns, DictChunk* const* projected,
                                    int personCount, int setsPerPerson, int spacesUsed,
                                    int* bestScore, const unsigned char* mask = nullptr);

    // --- Generation ---------------------------------------------------------------------------
    void AddClassData(const DictChunk& set);
    void RemoveClassData(const DictChunk& set);
    // Writes the current space's files from the store for classCount persons (the file header
    // as both stems). 0 when there is no current space.
    int RecomputeConstraintSpace(int classCount);
    int RecomputeAndWrite(int classCount, const char* stem, const char* evStem);
    int RebuildFromFiles(int n, const char* const* paths, const char* stem, const char* evStem,
                         int sourceKind);
    // Clears the store and rebuilds it from the persons' files (UpdateCMSMDictionary, mode
    // other than 1). 0 when there is no current space.
    int RegenerateFromScratch(int n, const char* const* paths, int sourceKind);
    // Loads the current space's ".mck" into the store and adds the persons on top (mode 1). 0
    // when there is no current space or its ".mck" does not read.
    int RegenerateOnStoredData(int n, const char* const* paths, int sourceKind);
    // Read the pending / removed set from a person's file (".mck" with sourceKind 1, else
    // ".dck"). 1 when the file was read.
    int ReadPendingSet(const char* path, int sourceKind);
    int ReadRemovedSet(const char* path, int sourceKind);

  private:
    // The current space's class data into the store: 1 when its ".mck" was read.
    int LoadMatrix(const std::string& stem);
    int LoadSpace(int s);
    // Projects K rows of u (rows of them exist) onto space s, channel c, as Q14 rows.
    void ProjectRows(float* const* u, int rows, int s, int c, short* const* out);
    short* const* ProjectedInputRows(int s, int c) const {
        return projectedInput_ + (s * channelCount + c) * basisCount;
    }
    bool ReserveProjectedInput(int spaces);
    // Room for a batch of persons scored in `spaces` spaces; allocates only to grow.
    bool ReserveSpaceBatch(int spaces);
    // Solves the batch and offers the pending persons to the ranking in the order they came.
    void ScorePendingInSpaces(msm::RankingPass& pass, int spaces);
    msm::ClassStore Store() const { return {classData.data(), channelCount, msm::kClassDataDim}; }

    msm::ProjectionWork projectionWork_;
    short** projectedInput_ = nullptr;  // spaces x channels x basis count rows
    int projectedSpaces_ = 0;
    int projectedBasisCount_ = 0;
    // Persons formed but not yet scored, and each one's slot per space and channel (-1: skipped).
    std::vector<int> spacePendingPersons_;
    std::vector<int> spacePendingSlots_;
    int spacePendingCount_ = 0;
};

#endif  // MSMFACE_RECOGNITION_MWMSMRECOGNITION_H
