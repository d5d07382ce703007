// The engine behind the host's FaceRecognition: owns the feature extractor, the ID database and
// the recogniser, holds every setting, runs the frame cycle, registration, addition and the
// dictionary maintenance.
//
// Threads. No locks: one thread at a time per engine.
#ifndef MSMFACE_ENGINE_RECOGNITIONENGINE_H
#define MSMFACE_ENGINE_RECOGNITIONENGINE_H

#include <cstdint>
#include <string>

#include <msmface/BasicImage.h>
#include <msmface/IDDatabase.h>
#include <msmface/PartsPosition.h>
#include <msmface/RecogResult.h>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "dictionary/person_files.h"
#include "normalise/feature_extraction.h"
#include "recognition/MWMSMRecognition.h"
#include "recognition/person_dictionary.h"

namespace msm {
constexpr int kEngineDimension = 256;
constexpr int kEngineChannels = 5;
constexpr int kWorkBufferBytes = 1024;
constexpr int kScreeningFlags = 504;
// The ring slot read when the gather counter is 0 (kept: the slot before the one that wraps).
constexpr int kSlotBeforeWrap = 499;
}  // namespace msm

class RecognitionEngine {
  public:
    IDDatabase* idDatabase = nullptr;
    int32_t recogTime = 0;
    int32_t prevTime = 0;
    int32_t* resultValues = nullptr;
    int32_t* resultIds = nullptr;
    int32_t RecogORRegist = 0;
    int32_t recognitionmethod = 1;
    int32_t DICACQUISITIONNUM = msm::kFacesPerRegistration;
    int32_t NullFrames = 0;
    int32_t RefreshTime = 5;
    int32_t imageWidth = 0;
    int32_t imageHeight = 0;
    int32_t Addition_id = 0;
    int32_t LimitWriteVectNum = msm::kPersonDictionaryVectors;
    int32_t constraintUpdateMode = 0;  // 1: persons' dictionaries come from their ".mck" records
    bool IncrementalCMSMspaceUpdate = true;
    BasicImageFile* faceImage = nullptr;
    bool RegistCondition = true;
    uint32_t frameStartTick = 0;
    uint32_t frameEndTick = 0;
    int32_t imageFileMode = 0;
    int32_t imagesavejpegratio = 100;
    bool RenewDicFaceImage = false;
    int32_t additionLimit = 50000;
    float additionRatio = 0.5f;
    unsigned char* workBuffer = nullptr;
    int32_t ReturnedEigenValueFlag = 1;
    int32_t BScreeningFlag = 0;
    int32_t BScreeningThres = 1000;
    char screeningSelection[msm::kScreeningFlags] = {};
    int32_t screeningCount = 0;
    int32_t channelCount = msm::kEngineChannels;
    float SequenceCheckSimThreshold = 0.985f;
    FeatureExtraction* featureExtraction = nullptr;
    MWMSMRecognition* recognizer = nullptr;

    // A component that cannot be allocated stays null; every operation then refuses what needs
    // it (0, or no effect) instead of failing later.
    RecognitionEngine(int width, int height);
    ~RecognitionEngine();
    RecognitionEngine(const RecognitionEngine&) = delete;
    RecognitionEngine& operator=(const RecognitionEngine&) = delete;

    // Frame cycle (frame_cycle.cpp).
    int FrameProcess(int event);
    int FrameProcessMasking(int event);
    RECOGRESULT* Get_ResultRecog();
    void Refresh_input();
    void NoticeCompleteRecognition();
    int GetMulCount();
    int GetBufferCount();
    int FaceCropping(BasicImageFile* frame, BasicImageFile* colourFrame, PartsPosition* parts,
                     BasicImageFile* out);
    void image_size_set(int width, int height);
    void Set_RecognitionResultMode(int mode, int n);

    // Registration and addition (registration.cpp).
    int Registration();
    int Addition();
    int AdditionFromPrevRecog(int inside);

    // Maintenance (maintenance.cpp).
    int Deletion(int inside, bool deleteFiles);
    int AllDeletion(bool deleteFiles);
    int UpdateCMSMDictionary(int mode);
    int DicConvert();
    int DicConvertID(int inside);
    int InitConstraintMSM(const char* path);
    int ReloadConstraintMSM();
    int ReloadMultiConstraintSpace(const char* path);
    int RecalcCMSMforImportUserDictionary(const char* path);
    int RecalcCMSMforReplaceUserDictionary(int unused, const char* oldDictionaryPath,
                                           const char* oldMatrixPath,
                                           const char* newDictionaryPath);

    // Sequence check (sequence_check.cpp).
    bool SequenceCheck();

    // The newest ring slot: counter - 1, or 499 when the counter is 0.
    int NewestSlot() const;
    // True when there is a current ("CMSML") constraint space.
    bool HasCurrentSpace() const;

  private:
    enum class FrameFamily { Plain, Masked };
    int RunFrame(int event, FrameFamily family);
    void ClearRecognition();
    void RecognisePlain(int slot);
    void RecogniseMasked(int slot);

    // The person's file stem "<directory>/<name>".
    std::string PersonStem(const char* name) const;
    // Builds one record per channel from n patterns (patterns(c, k), k oldest first), screening
    // the n faces first when screening is on. 0, or -1 when a record cannot be built.
    template <typename PatternAt, typename FaceAt>
    int BuildRecords(int n, PatternAt patterns, FaceAt faces, MtrxChunk& records);
    // Expands every channel's record into dictionaries and checks their size.
    bool ExpandRecords(const MtrxChunk& records, DictChunk& dictionaries);
    // Merges new into stored (fading stored first once it reached additionLimit).
    bool MergeRecords(MtrxChunk& stored, const MtrxChunk& added) const;
    bool WritePersonFiles(const std::string& stem, MtrxChunk& records,
                          const DictChunk& dictionaries);
    void RenewFaceImage(const std::string& stem);
    // The merge, expansion, writes and space update that every addition shares.
    void CompleteAddition(int inside, const MtrxChunk& added);
    // An addition of n patterns (patterns(c, k), k oldest first) to person inside, the faces of
    // the newest n ring slots screened when screening is on.
    template <typename PatternAt>
    void AddPatterns(int inside, int n, PatternAt patterns);
    void FailRegistration();
    // After the class data changed: rewrites the current space for classCount persons, reloads it
    // and re-projects the persons.
    void RecomputeCurrentSpace(int classCount);
    void ReprojectAfterReload();
    void ReleaseProjectedDictionaries();
};

#endif  // MSMFACE_ENGINE_RECOGNITIONENGINE_H
