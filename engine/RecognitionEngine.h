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
#include "engine/frame_protocol.h"
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
    int32_t frameMilliseconds = 0;
    int32_t prevMilliseconds = 0;  // GetTime_prev's value: nothing writes it
    // The recogniser's current lists (the façade's copies are taken once).
    int32_t* rankedScores = nullptr;
    int32_t* rankedIds = nullptr;
    msm::OperatingMode operatingMode = msm::OperatingMode::Idle;
    msm::RecognitionMethod recognitionMethod = msm::RecognitionMethod::Msm;
    int32_t framesToGather = msm::kFacesPerRegistration;
    int32_t facelessFrames = 0;
    int32_t facelessFramesTolerated = 5;  // negative: face-less frames never clear the input
    int32_t cameraWidth = 0;
    int32_t cameraHeight = 0;
    int32_t additionPerson = 0;
    int32_t writtenVectorLimit =
        msm::kPersonDictionaryVectors;  // per channel; below 1: every vector
    int32_t spaceSourceMode = 0;        // 1: persons' dictionaries come from their ".mck" records
    bool updateSpaceAtOnce = true;
    BasicImageFile* faceImage = nullptr;
    bool registrationSucceeded = true;
    uint32_t frameStartTick = 0;
    uint32_t frameEndTick = 0;
    int32_t imageFileMode = 0;  // read by nothing
    int32_t jpegQuality = 100;  // stored only
    bool renewPictureOnAddition = false;
    // An addition first scales a record of this many patterns or more by fadeFactor.
    int32_t fadeFromPatterns = 50000;
    float fadeFactor = 0.5f;
    unsigned char* workBuffer = nullptr;
    int32_t keepSpectrumFlag = 1;  // exactly 1: the eigenvalues go into workBuffer
    int32_t screeningFlag = 0;     // exactly 1: the gathered frames are screened
    int32_t screeningThreshold = 1000;
    char screeningSelection[msm::kScreeningFlags] = {};
    int32_t screeningCount = 0;
    int32_t channelCount = msm::kEngineChannels;
    float stillFaceCorrelation = 0.985f;
    FeatureExtraction* featureExtraction = nullptr;
    MWMSMRecognition* recognizer = nullptr;

    // A component that cannot be allocated stays null; every operation then refuses what needs
    // it (0, or no effect) instead of failing later.
    RecognitionEngine(int width, int height);
    ~RecognitionEngine();
    RecognitionEngine(const RecognitionEngine&) = delete;
    RecognitionEngine& operator=(const RecognitionEngine&) = delete;

    // Frame cycle (RecognitionEngine.cpp).
    msm::FrameResult FrameProcess(msm::FrameEvent event);
    msm::FrameResult FrameProcessMasking(msm::FrameEvent event);
    RECOGRESULT* Get_ResultRecog();
    void Refresh_input();
    void NoticeCompleteRecognition();
    int GetMulCount();
    int GetBufferCount();
    int FaceCropping(BasicImageFile* frame, BasicImageFile* colourFrame, PartsPosition* parts,
                     BasicImageFile* out);
    void image_size_set(int width, int height);
    void Set_RecognitionResultMode(msm::ResultMode mode, int n);

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
    msm::FrameResult RunFrame(msm::FrameEvent event, FrameFamily family);
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
    // Merges new into stored (fading stored first once it reached fadeFromPatterns).
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
