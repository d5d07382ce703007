#include <msmface/FaceRecognition.h>

#include <new>

#include "engine/RecognitionEngine.h"

FaceRecognition::FaceRecognition(int width, int height)
    : idDatabase(nullptr),
      rankedSimilarities(nullptr),
      rankedIndices(nullptr),
      faceImage(nullptr),
      workBuffer(nullptr),
      screeningSelection(nullptr),
      engine(new (std::nothrow) RecognitionEngine(width, height)) {
    if (engine == nullptr) return;
    idDatabase = engine->idDatabase;
    rankedSimilarities = engine->rankedScores;
    rankedIndices = engine->rankedIds;
    faceImage = engine->faceImage;
    workBuffer = engine->workBuffer;
    screeningSelection = engine->screeningSelection;
}

FaceRecognition::~FaceRecognition() {
    idDatabase = nullptr;
    rankedSimilarities = nullptr;
    rankedIndices = nullptr;
    faceImage = nullptr;
    workBuffer = nullptr;
    screeningSelection = nullptr;
    delete engine;
    engine = nullptr;
}

FaceRecognition& FaceRecognition::operator=(const FaceRecognition& other) {
    if (this == &other) return *this;
    // Our own engine would be unreachable after the copy.
    if (engine != other.engine) delete engine;
    idDatabase = other.idDatabase;
    rankedSimilarities = other.rankedSimilarities;
    rankedIndices = other.rankedIndices;
    faceImage = other.faceImage;
    workBuffer = other.workBuffer;
    screeningSelection = other.screeningSelection;
    engine = other.engine;
    return *this;
}

// --- Forwarded operations ---------------------------------------------------------------------

int FaceRecognition::FrameProcess(int event) {
    if (engine == nullptr) return 0;
    return msm::toNumber(engine->FrameProcess(msm::fromNumber<msm::FrameEvent>(event)));
}

int FaceRecognition::FrameProcessMasking(int event) {
    if (engine == nullptr) return 0;
    return msm::toNumber(engine->FrameProcessMasking(msm::fromNumber<msm::FrameEvent>(event)));
}

RECOGRESULT* FaceRecognition::Get_ResultRecog() {
    return engine != nullptr ? engine->Get_ResultRecog() : nullptr;
}

void FaceRecognition::NoticeCompleteRecognition() {
    if (engine != nullptr) engine->NoticeCompleteRecognition();
}

void FaceRecognition::Refresh_input() {
    if (engine != nullptr) engine->Refresh_input();
}

int FaceRecognition::GetMulCount() {
    return engine != nullptr ? engine->GetMulCount() : 0;
}

int FaceRecognition::GetBufferCount() {
    return engine != nullptr ? engine->GetBufferCount() : 0;
}

int FaceRecognition::Registration() {
    return engine != nullptr ? engine->Registration() : 1;
}

int FaceRecognition::Addition() {
    return engine != nullptr ? engine->Addition() : 1;
}

int FaceRecognition::AdditionFromPrevRecog(int inside) {
    return engine != nullptr ? engine->AdditionFromPrevRecog(inside) : 0;
}

int FaceRecognition::Deletion(int inside, bool deleteFiles) {
    return engine != nullptr ? engine->Deletion(inside, deleteFiles) : 0;
}

int FaceRecognition::AllDeletion(bool deleteFiles) {
    return engine != nullptr ? engine->AllDeletion(deleteFiles) : 0;
}

int FaceRecognition::UpdateCMSMDictionary(int mode) {
    return engine != nullptr ? engine->UpdateCMSMDictionary(mode) : 0;
}

int FaceRecognition::DicConvert() {
    return engine != nullptr ? engine->DicConvert() : 0;
}

int FaceRecognition::DicConvertID(int inside) {
    return engine != nullptr ? engine->DicConvertID(inside) : 0;
}

int FaceRecognition::InitConstraintMSM(const char* listPath) {
    return engine != nullptr ? engine->InitConstraintMSM(listPath) : 0;
}

int FaceRecognition::ReloadConstraintMSM() {
    return engine != nullptr ? engine->ReloadConstraintMSM() : 0;
}

int FaceRecognition::ReloadMultiConstraintSpace(const char* listPath) {
    return engine != nullptr ? engine->ReloadMultiConstraintSpace(listPath) : 0;
}

int FaceRecognition::RecalcCMSMforImportUserDictionary(const char* dictionaryPath) {
    return engine != nullptr ? engine->RecalcCMSMforImportUserDictionary(dictionaryPath) : 0;
}

int FaceRecognition::RecalcCMSMforReplaceUserDictionary(int unused, const char* oldDictionaryPath,
                                                        const char* oldMatrixPath,
                                                        const char* newDictionaryPath) {
    return engine != nullptr ? engine->RecalcCMSMforReplaceUserDictionary(
                                   unused, oldDictionaryPath, oldMatrixPath, newDictionaryPath)
                             : 0;
}

bool FaceRecognition::SequenceCheck() {
    return engine != nullptr ? engine->SequenceCheck() : false;
}

void FaceRecognition::image_size_set(int width, int height) {
    if (engine != nullptr) engine->image_size_set(width, height);
}

int FaceRecognition::FaceCropping(BasicImageFile* frame, BasicImageFile* colourFrame,
                                  PartsPosition* parts, BasicImageFile* out) {
    return engine != nullptr ? engine->FaceCropping(frame, colourFrame, parts, out) : 4;
}

BasicImageFile* FaceRecognition::Get_NormImagesPtr(int i) {
    if (engine == nullptr || engine->featureExtraction == nullptr || i < 0 ||
        i >= FeatureExtraction::kSlotCount)
        return nullptr;
    return engine->featureExtraction->normImages[i];
}

// --- Engine settings --------------------------------------------------------------------------

void FaceRecognition::Set_RecogORRegist(int v) {
    if (engine != nullptr) engine->operatingMode = msm::fromNumber<msm::OperatingMode>(v);
}

int FaceRecognition::Get_RecogORRegist() {
    return engine != nullptr ? msm::toNumber(engine->operatingMode) : 0;
}

void FaceRecognition::Set_recognitionmethod(int v) {
    if (engine != nullptr) engine->recognitionMethod = msm::fromNumber<msm::RecognitionMethod>(v);
}

int FaceRecognition::Get_recognitionmethod() {
    return engine != nullptr ? msm::toNumber(engine->recognitionMethod) : 0;
}

void FaceRecognition::Set_DICACQUISITIONNUM(int v) {
    if (engine != nullptr) engine->framesToGather = v;
}

int FaceRecognition::Get_DICACQUISITIONNUM() {
    return engine != nullptr ? engine->framesToGather : 0;
}

void FaceRecognition::Set_NullFrames(int v) {
    if (engine != nullptr) engine->facelessFrames = v;
}

int FaceRecognition::Get_NullFrames() {
    return engine != nullptr ? engine->facelessFrames : 0;
}

void FaceRecognition::Set_RefreshTime(int v) {
    if (engine != nullptr) engine->facelessFramesTolerated = v;
}

int FaceRecognition::Get_RefreshTime() {
    return engine != nullptr ? engine->facelessFramesTolerated : 0;
}

void FaceRecognition::Set_RegistCondition(bool v) {
    if (engine != nullptr) engine->registrationSucceeded = v;
}

bool FaceRecognition::Get_RegistCondition() {
    return engine != nullptr ? engine->registrationSucceeded : false;
}

void FaceRecognition::Set_Addition_id(int v) {
    if (engine != nullptr) engine->additionPerson = v;
}

int FaceRecognition::Get_Addition_id() {
    return engine != nullptr ? engine->additionPerson : 0;
}

void FaceRecognition::Set_LimitWriteVectNum(int v) {
    if (engine != nullptr) engine->writtenVectorLimit = v;
}

int FaceRecognition::Get_LimitWriteVectNum() {
    return engine != nullptr ? engine->writtenVectorLimit : 0;
}

void FaceRecognition::Set_IncrementalCMSMspaceUpdate(bool v) {
    if (engine != nullptr) engine->updateSpaceAtOnce = v;
}

bool FaceRecognition::Get_IncrementalCMSMspaceUpdate() {
    return engine != nullptr ? engine->updateSpaceAtOnce : false;
}

void FaceRecognition::SetRenewDicFaceImage(bool v) {
    if (engine != nullptr) engine->renewPictureOnAddition = v;
}

bool FaceRecognition::GetRenewDicFaceImage() {
    return engine != nullptr ? engine->renewPictureOnAddition : false;
}

void FaceRecognition::SetReturnedEigenValueFlag(int v) {
    if (engine != nullptr) engine->keepSpectrumFlag = v;
}

int FaceRecognition::GetReturnedEigenValueFlag() {
    return engine != nullptr ? engine->keepSpectrumFlag : 0;
}

void FaceRecognition::SetBScreeningFlag(int v) {
    if (engine != nullptr) engine->screeningFlag = v;
}

int FaceRecognition::GetBScreeningFlag() {
    return engine != nullptr ? engine->screeningFlag : 0;
}

void FaceRecognition::SetBScreeningThres(int v) {
    if (engine != nullptr) engine->screeningThreshold = v;
}

int FaceRecognition::GetBScreeningThres() {
    return engine != nullptr ? engine->screeningThreshold : 0;
}

void FaceRecognition::Set_imagesavejpegratio(int quality) {
    if (engine != nullptr) engine->jpegQuality = quality;
}

void FaceRecognition::Set_SequenceCheckSimThreshold(float threshold) {
    if (engine == nullptr) return;
    engine->stillFaceCorrelation = threshold < 0.0f || threshold > 1.0f ? 0.985f : threshold;
}

float FaceRecognition::Get_SequenceCheckSimThreshold() {
    return engine != nullptr ? engine->stillFaceCorrelation : 0.0f;
}

int32_t FaceRecognition::GetTime_recog() {
    return engine != nullptr ? engine->frameMilliseconds : 0;
}

int32_t FaceRecognition::GetTime_prev() {
    return engine != nullptr ? engine->prevMilliseconds : 0;
}

// --- Extractor settings -----------------------------------------------------------------------

namespace {
FeatureExtraction* extractorOf(RecognitionEngine* engine) {
    return engine != nullptr ? engine->featureExtraction : nullptr;
}
MWMSMRecognition* recogniserOf(RecognitionEngine* engine) {
    return engine != nullptr ? engine->recognizer : nullptr;
}
}  // namespace

void FaceRecognition::Reset_gather_counter() {
    if (FeatureExtraction* fx = extractorOf(engine)) fx->slotIndex = 0;
}

int FaceRecognition::Get_gather_counter() {
    FeatureExtraction* fx = extractorOf(engine);
    return fx != nullptr ? fx->slotIndex : 0;
}

void FaceRecognition::Set_RecogCroppingShift(int shift) {
    if (FeatureExtraction* fx = extractorOf(engine)) fx->Set_RecogCroppingShift(shift);
}

int FaceRecognition::Get_RecogCroppingShift() {
    FeatureExtraction* fx = extractorOf(engine);
    return fx != nullptr ? fx->Get_RecogCroppingShift() : 0;
}

void FaceRecognition::Set_CroppingRangeMode(int mode) {
    if (FeatureExtraction* fx = extractorOf(engine)) fx->Set_CroppingRangeMode(mode);
}

int FaceRecognition::Get_CroppingRangeMode() {
    FeatureExtraction* fx = extractorOf(engine);
    return fx != nullptr ? fx->Get_CroppingRangeMode() : 0;
}

void FaceRecognition::Set_FreeCroppingRange(double low, double high) {
    if (FeatureExtraction* fx = extractorOf(engine)) fx->Set_FreeCroppingRange(low, high);
}

void FaceRecognition::Get_FreeCroppingRange(double* low, double* high) {
    if (FeatureExtraction* fx = extractorOf(engine)) fx->Get_FreeCroppingRange(low, high);
}

// --- Recogniser settings ----------------------------------------------------------------------

void FaceRecognition::Set_Identify_thresvalue(int threshold) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Set_Identify_thresvalue(threshold);
}

int FaceRecognition::Get_Identify_thresvalue() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_Identify_thresvalue() : 0;
}

int FaceRecognition::Change_need_eigen_num(int n) {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Change_need_eigen_num(n) : 0;
}

int FaceRecognition::Get_need_eigen_num() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_need_eigen_num() : 0;
}

void FaceRecognition::Change_SubspaceDistNum(int n) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Change_SubspaceDistNum(n);
}

int FaceRecognition::Get_SubspaceDistNum() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_SubspaceDistNum() : 0;
}

void FaceRecognition::Change_InputSS_MAXSEGNUM(int n) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Change_InputSS_MAXSEGNUM(n);
}

void FaceRecognition::Set_EVPsi(float weight) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Set_EVPsi(weight);
}

float FaceRecognition::Get_EVPsi() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_EVPsi() : 0.0f;
}

void FaceRecognition::Set_RecognitionResultMode(int mode, int n) {
    if (engine != nullptr)
        engine->Set_RecognitionResultMode(msm::fromNumber<msm::ResultMode>(mode), n);
}

int FaceRecognition::Get_RecognitionResultMode() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_RecognitionResultMode() : 0;
}

void FaceRecognition::Set_SimCalcControl(bool on) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Set_SimCalcControl(on);
}

bool FaceRecognition::Get_SimCalcControl() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr && r->Get_SimCalcControl();
}

void FaceRecognition::Set_2stagepickrange(int range) {
    if (MWMSMRecognition* r = recogniserOf(engine)) r->Set_2stagepickrange(range);
}

int FaceRecognition::Get_2stagepickrange() {
    MWMSMRecognition* r = recogniserOf(engine);
    return r != nullptr ? r->Get_2stagepickrange() : 0;
}

int FaceRecognition::Get_CMSML_FileHeader(char* buf) {
    MWMSMRecognition* r = recogniserOf(engine);
    if (r != nullptr) return r->Get_CMSML_FileHeader(buf);
    if (buf != nullptr) buf[0] = '\0';
    return 0;
}

int FaceRecognition::Get_CMSML_defaultFileHeader(char* buf) {
    MWMSMRecognition* r = recogniserOf(engine);
    if (r != nullptr) return r->Get_CMSML_defaultFileHeader(buf);
    if (buf != nullptr) buf[0] = '\0';
    return 0;
}
