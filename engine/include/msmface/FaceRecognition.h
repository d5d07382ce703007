// The engine a host drives: one object per camera, fed frame by frame.
//
// Per frame with a face: FaceCropping (normalises the face and stores its patterns in the next
// ring slot), then FrameProcess(2). In recognition mode (Set_RecogORRegist(1)) the call returns
// 13 and the ranked persons are read from Get_ResultRecog(); in registration (2) or addition (3)
// mode it returns 12 and, on the frame that brings the gather counter to Get_DICACQUISITIONNUM(),
// builds and writes the person's dictionary. A frame without a face is FrameProcess(0).
//
// Enrolment of a new person, in this order (docs/host-guide.md shows it in full):
//   1. idDatabase->CheckIDNum(id) and CheckIDName(name) are true; idDatabase->SetNewKeyname(name)
//   2. Set_RecogORRegist(2); Reset_gather_counter(); then FaceCropping + FrameProcess(2) per frame
//      (or Registration() directly once the frames are gathered)
//   3. the registration has run once Get_RecogORRegist() is no longer 2. If Get_RegistCondition():
//      idDatabase->AddNewDictionary(&record) with record = {id, name} (kept alive by the host),
//      idDatabase->ReadIdDictionaries(), and DicConvertID(GetAllNum() - 1) for the constraint-space
//      methods; else idDatabase->FreeNewKeyname() (nothing was written).
// After an addition that succeeded: idDatabase->ReplaceIdDictionary(id), then DicConvertID(id).
//
// Numbering: the person arguments of Addition, AdditionFromPrevRecog, Deletion and DicConvertID
// are inside numbers (0 .. GetAllNum()-1, the dictionary order), not the host's ID numbers; use
// idDatabase->ConvertIDNumToInsidenum.
//
// Constraint spaces: after a registration, addition, deletion, import or replacement changed the
// current ("CMSML") space's files, recognition uses the new space once the engine reloads it; the
// engine does so itself (and re-projects every person for methods 4 and 7), so no host step is
// needed beyond the DicConvertID of a newly entered person.
//
// Threads. No locks: one thread at a time per FaceRecognition. Two engines may run on two threads
// at once; they share nothing but the process-wide image counter, which is locked.
#ifndef MSMFACE_FACERECOGNITION_H
#define MSMFACE_FACERECOGNITION_H

#include <cstdint>

#include <msmface/BasicImage.h>
#include <msmface/IDDatabase.h>
#include <msmface/PartsPosition.h>
#include <msmface/RecogResult.h>
#include <msmface/export.h>

class RecognitionEngine;

class MSMFACE_API FaceRecognition {
  public:
    // Copies taken once at construction and never refreshed: after Set_RecognitionResultMode(0, n)
    // the two result arrays below are stale (kept: hosts compare them with the current ones to
    // see that the lists moved). Read results through Get_ResultRecog().
    IDDatabase* idDatabase;
    int32_t* rankedSimilarities;
    int32_t* rankedIndices;
    BasicImageFile* faceImage;  // the last cropped 64 x 64 grey face
    // 1024 bytes; after a registration with SetReturnedEigenValueFlag(1) the last channel's 256
    // eigenvalues divided by their sum, as floats.
    unsigned char* workBuffer;
    // '1' / '0' per gathered frame of the last screening (SetBScreeningFlag(1)).
    char* screeningSelection;
    RecognitionEngine* engine;  // owned

    // width x height: the camera frame size (the snapshot written as the person's picture).
    FaceRecognition(int width, int height);
    // Destroys the engine, also when it is shared with a copy made by operator=.
    ~FaceRecognition();
    FaceRecognition(const FaceRecognition&) = delete;
    // Bitwise copy of the seven members: both objects then share one engine, and the first one
    // destroyed frees it (the other must then not be used or destroyed). No deep copy exists.
    FaceRecognition& operator=(const FaceRecognition& other);

    // --- Frame cycle ------------------------------------------------------------------------
    // event 0: no face; 1, 4: nothing to do; 2, 3: a face was gathered by FaceCropping.
    // Returns 10 (event 0), 11 (events 1, 4), 12 (event 2/3 in mode 2 or 3), 13 (event 2/3 in mode
    // 1 with at least one person), 0 otherwise (unknown event, idle mode, empty database).
    int FrameProcess(int event);
    // The same with the database's mask bytes: a person whose byte is 0 is not scored. Methods 1,
    // 2, 4 and 7 only; any other method computes nothing (the call still returns 13).
    int FrameProcessMasking(int event);
    // The ranked list, best first (Get_RecognitionResultMode decides its length, 10 by default).
    // id -999: no person filled the entry; -1: the input was cleared by face-less frames.
    // Valid until Set_RecognitionResultMode reallocates it.
    RECOGRESULT* Get_ResultRecog();
    void NoticeCompleteRecognition();  // keeps the current input for AdditionFromPrevRecog
    void Refresh_input();              // the next face starts a new input subspace
    int GetMulCount();                 // frames in the current input (channel 0)
    int GetBufferCount();              // frames kept by the last NoticeCompleteRecognition

    // --- Registration and addition (always return 1; the outcome is Get_RegistCondition) -----
    // Builds the new person (the pending key name of the database) from the last
    // Get_DICACQUISITIONNUM() gathered frames and writes its ".mck", ".dck" and ".bmp" files.
    // Leaves recognition mode (1). Fails, writing nothing, without a pending name, with a gather
    // count outside 1..501, or when a channel's dictionary has fewer than Get_need_eigen_num()
    // vectors.
    int Registration();
    // Merges the last gathered frames into person Get_Addition_id() (an inside number); fails,
    // writing nothing, when that person or its ".mck" file does not exist.
    int Addition();
    // The same from the frames that NoticeCompleteRecognition kept; returns 0 when none were kept.
    int AdditionFromPrevRecog(int inside);

    // --- Deletion and maintenance (1 success, 0 failure unless said otherwise) ---------------
    // Removes person `inside` from the database (its files too with deleteFiles) and from the
    // constraint space; later persons move down by one. Returns the database's result.
    int Deletion(int inside, bool deleteFiles);
    // Removes every person. The current constraint space is then reset: a "CMSML" space's files
    // are rewritten from its default (second) files and reloaded; without those, or for a list
    // without a "CMSML" space, the class data are cleared (and a "CMSML" space's files rewritten
    // for no person). Afterwards the space holds nothing of a deleted person.
    int AllDeletion(bool deleteFiles);
    // Regenerates the current constraint space from every registered person's files (mode 1: on
    // top of the sums stored in the space's ".mck"), reloads it, rereads the dictionaries and
    // projects them. 0 when there is no current space or the files cannot be written.
    int UpdateCMSMDictionary(int mode);
    // Project every person (one person) into every loaded space: only for methods 4 and 7, else
    // 1 at once.
    int DicConvert();
    int DicConvertID(int inside);
    // Loads the constraint-space list: the load status (> 0 success; 0 or negative, with
    // "Initialize C failed" on standard error, failure).
    int InitConstraintMSM(const char* listPath);
    int ReloadConstraintMSM();  // the current space's files again: its status, 0 without one
    // Discards every projected dictionary and loads another list; "ReloadMultiCS C failed" on a
    // status that is not positive.
    int ReloadMultiConstraintSpace(const char* listPath);
    // Adds a dictionary file from outside to the constraint space; 1 when it was read.
    int RecalcCMSMforImportUserDictionary(const char* dictionaryPath);
    // Swaps one person's contribution (the old files for the new dictionary); the first argument
    // is not used. 1 when the new dictionary was read.
    int RecalcCMSMforReplaceUserDictionary(int unused, const char* oldDictionaryPath,
                                           const char* oldMatrixPath,
                                           const char* newDictionaryPath);
    // True when fewer than three of the recent faces are near copies of their mean face (a
    // correlation above Get_SequenceCheckSimThreshold); false also when screening keeps none.
    bool SequenceCheck();

    // --- Image --------------------------------------------------------------------------------
    // New camera size: the snapshot image is replaced.
    void image_size_set(int width, int height);
    // Normalises the face of `frame` (8-bit) at `parts` into `out` and the next ring slot;
    // `colourFrame` (24-bit, camera size, may be null) is what a registration saves as the
    // picture. Returns 1, or 4 when the frame cannot be used or `out` is not a 64 x 64 8-bit
    // image (the face image is then untouched).
    int FaceCropping(BasicImageFile* frame, BasicImageFile* colourFrame, PartsPosition* parts,
                     BasicImageFile* out);
    // The normalised face of ring slot i. requires: 0 <= i <= 500.
    BasicImageFile* Get_NormImagesPtr(int i);

    // --- Settings -----------------------------------------------------------------------------
    void Set_RecogORRegist(int mode);  // 0 idle, 1 recognise, 2 register, 3 add
    int Get_RecogORRegist();
    // 0 per-pattern MSM, 1 MSM, 2/6 constrained in the first space, 4/7 in all spaces, 3/5 none.
    void Set_recognitionmethod(int method);
    int Get_recognitionmethod();
    void Set_DICACQUISITIONNUM(int frames);
    int Get_DICACQUISITIONNUM();
    void Set_NullFrames(int n);
    int Get_NullFrames();
    void Set_RefreshTime(int frames);  // negative: face-less frames never clear the input
    int Get_RefreshTime();
    void Set_RegistCondition(bool ok);
    bool Get_RegistCondition();
    void Set_Addition_id(int inside);
    int Get_Addition_id();
    void Set_LimitWriteVectNum(int n);
    int Get_LimitWriteVectNum();
    void Set_IncrementalCMSMspaceUpdate(bool on);
    bool Get_IncrementalCMSMspaceUpdate();
    void SetRenewDicFaceImage(bool on);
    bool GetRenewDicFaceImage();
    void Set_imagesavejpegratio(int quality);  // stored only
    void SetReturnedEigenValueFlag(int flag);
    int GetReturnedEigenValueFlag();
    void SetBScreeningFlag(int flag);
    int GetBScreeningFlag();
    void SetBScreeningThres(int threshold);
    int GetBScreeningThres();
    // Values below 0 or above 1 are replaced by 0.985.
    void Set_SequenceCheckSimThreshold(float threshold);
    float Get_SequenceCheckSimThreshold();
    void Reset_gather_counter();
    int Get_gather_counter();
    void Set_RecogCroppingShift(int shift);
    int Get_RecogCroppingShift();
    void Set_CroppingRangeMode(int mode);
    int Get_CroppingRangeMode();
    void Set_FreeCroppingRange(double low, double high);
    void Get_FreeCroppingRange(double* low, double* high);
    void Set_Identify_thresvalue(int threshold);
    int Get_Identify_thresvalue();
    // 3..20 accepted (1, input cleared); anything else returns 0 and changes nothing.
    int Change_need_eigen_num(int n);
    int Get_need_eigen_num();
    // Above need_eigen_num stores need_eigen_num; negative stores 1; 0 is kept.
    void Change_SubspaceDistNum(int n);
    int Get_SubspaceDistNum();
    void Change_InputSS_MAXSEGNUM(int n);
    void Set_EVPsi(float weight);
    float Get_EVPsi();
    // mode 0: ten entries, lists reallocated; 1..3: n entries by that mode; others: nothing.
    void Set_RecognitionResultMode(int mode, int n);
    int Get_RecognitionResultMode();
    void Set_SimCalcControl(bool on);
    bool Get_SimCalcControl();
    void Set_2stagepickrange(int range);
    int Get_2stagepickrange();
    // The "CMSML" space's file header / default file header with its zero into buf; 1, or 0 with
    // an empty string. requires: buf holds 4096 characters.
    int Get_CMSML_FileHeader(char* buf);
    int Get_CMSML_defaultFileHeader(char* buf);
    int32_t GetTime_recog();  // milliseconds spent in the last frame call
    int32_t GetTime_prev();
};

#endif  // MSMFACE_FACERECOGNITION_H
