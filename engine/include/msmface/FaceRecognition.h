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
    // 1024 bytes; after a registration or addition with SetReturnedEigenValueFlag(1) the last
    // channel's 256 eigenvalues divided by their sum, as floats.
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
    // A setter stores its argument as it is unless its comment names a range, and the getter
    // returns what was stored. "Stored only": kept for the getter and read by nothing, so no
    // score and no file changes with it. The others say when the value is read.

    // What the frame call does with a face, from the next call on: 0 idle (returns 0),
    // 1 recognise (13), 2 register, 3 add (12). Any other value acts as idle: faces return 0 and
    // face-less frames are not counted. A registration or addition sets it itself: 0 while it
    // runs, 1 once it ended, whether it succeeded or not.
    void Set_RecogORRegist(int mode);
    int Get_RecogORRegist();
    // How the next recognition frames compare (default 1): 0 per-pattern MSM, 1 MSM, 2/6
    // constrained in the first space, 4/7 in all spaces; 3, 5 and any other value compute nothing
    // (the frame still returns 13). FrameProcessMasking knows 1, 2, 4 and 7 only. DicConvert,
    // DicConvertID and UpdateCMSMDictionary read it too: they project the persons for 4 and 7.
    void Set_recognitionmethod(int method);
    int Get_recognitionmethod();
    // Frames a registration or addition is built from (default 50), read when it runs. A frame
    // call in mode 2 or 3 starts it on the face that brings the gather counter to exactly this
    // value; the counter runs 0..500 and wraps to 0, so a value outside 0..500 never starts it and
    // 0 starts it only after a wrap. The operation itself (also when called directly) fails,
    // writing nothing, for a value outside 1..501.
    void Set_DICACQUISITIONNUM(int frames);
    int Get_DICACQUISITIONNUM();
    // The count of consecutive face-less frames in recognition mode; the next face-less frame in
    // mode 1 counts on from the stored value, a face sets it back to 0.
    void Set_NullFrames(int n);
    int Get_NullFrames();
    // Face-less frames tolerated in recognition mode (default 5), read by every face-less frame:
    // the one that brings the count above this value clears the input and the ranked list (ids
    // -1). Negative: face-less frames never clear the input.
    void Set_RefreshTime(int frames);
    int Get_RefreshTime();
    // Stored only: the outcome of the last registration or addition, which overwrites it (false
    // when it starts, true when it succeeded).
    void Set_RegistCondition(bool ok);
    bool Get_RegistCondition();
    // The person (an inside number) that Addition adds to, read when it runs (directly or from a
    // mode-3 frame); outside 0..GetAllNum()-1 the addition fails and writes nothing.
    // AdditionFromPrevRecog stores its own argument here.
    void Set_Addition_id(int inside);
    int Get_Addition_id();
    // At most this many vectors per channel (default 256) in the ".dck" files that later
    // registrations and additions write, and in the dictionaries that
    // RecalcCMSMforImportUserDictionary and RecalcCMSMforReplaceUserDictionary read; 0 or
    // negative: every vector.
    void Set_LimitWriteVectNum(int n);
    int Get_LimitWriteVectNum();
    // true (default): registration, addition, deletion, import and replacement update the current
    // constraint space at once (when one is loaded); false: they leave the space as it is until
    // UpdateCMSMDictionary. Read by each of those operations when it runs.
    void Set_IncrementalCMSMspaceUpdate(bool on);
    bool Get_IncrementalCMSMspaceUpdate();
    // true: later additions (Addition, AdditionFromPrevRecog) replace the person's picture with
    // the frame snapshot as ".bmp" (the first of ".jpg", ".fpi", ".bmp" that exists is deleted
    // first); false (default): additions leave the picture.
    void SetRenewDicFaceImage(bool on);
    bool GetRenewDicFaceImage();
    // Stored only, with no getter (default 100): no picture is written as JPEG.
    void Set_imagesavejpegratio(int quality);
    // Exactly 1 (default): each later registration or addition leaves its eigenvalues in
    // workBuffer (see there); any other value leaves workBuffer alone. The files are the same
    // either way.
    void SetReturnedEigenValueFlag(int flag);
    int GetReturnedEigenValueFlag();
    // Exactly 1: later registrations and additions screen their frames first (one '1' or '0' per
    // frame in screeningSelection) and are built from the kept ones only; any other value
    // (default 0): every frame is used and screeningSelection is left alone.
    void SetBScreeningFlag(int flag);
    int GetBScreeningFlag();
    // The screening's bar (default 1000), read only with SetBScreeningFlag(1): a frame is kept
    // when its edge directions agree with the run's mean face at this many positions or more.
    // 0 or below keeps every frame; a bar that no frame reaches keeps none, and the registration
    // or addition fails.
    void SetBScreeningThres(int threshold);
    int GetBScreeningThres();
    // SequenceCheck's bar (default 0.985), read when it runs: a face whose correlation with the
    // mean face is above it is a near copy. Values below 0 or above 1 are replaced by 0.985; 0
    // and 1 are kept.
    void Set_SequenceCheckSimThreshold(float threshold);
    float Get_SequenceCheckSimThreshold();
    // The next FaceCropping fills ring slot 0: a registration run counts its frames from here.
    void Reset_gather_counter();
    int Get_gather_counter();  // the ring slot the next FaceCropping fills, 0..500
    // Stored only (defaults: shift 0, range mode 1, free range 3.0 .. 9.0): the cropping does not
    // consult them.
    void Set_RecogCroppingShift(int shift);
    int Get_RecogCroppingShift();
    void Set_CroppingRangeMode(int mode);
    int Get_CroppingRangeMode();
    void Set_FreeCroppingRange(double low, double high);
    void Get_FreeCroppingRange(double* low, double* high);
    // Stored only for this engine (default 850): the frame call ranks every person whatever the
    // value; whether the best score identifies someone is the host's decision.
    void Set_Identify_thresvalue(int threshold);
    int Get_Identify_thresvalue();
    // Basis vectors of every input subspace and of every compared dictionary (default 7). 3..20
    // accepted: returns 1 and clears the input (the next face starts a new one); anything else
    // returns 0 and changes nothing. A registration or addition fails while a channel's
    // dictionary has fewer vectors than this.
    int Change_need_eigen_num(int n);
    int Get_need_eigen_num();
    // Canonical angles averaged in a similarity, from the next frame on (default 1). Above
    // need_eigen_num stores need_eigen_num; negative stores 1; 0 is kept.
    void Change_SubspaceDistNum(int n);
    int Get_SubspaceDistNum();
    // Patterns each channel's input subspace buffers (default 25). 1..501: the buffers are
    // reallocated at once and what NoticeCompleteRecognition kept is dropped (GetBufferCount 0);
    // anything else changes nothing. No getter.
    void Change_InputSS_MAXSEGNUM(int n);
    // Weight of the newest pattern in every channel's input subspace update, from the next frame
    // on (default 0.125).
    void Set_EVPsi(float weight);
    float Get_EVPsi();
    // How later recognitions fill the ranked list. mode 0 (default): the best three in a list of
    // ten; 1: a ranked list of n; 2: every person sorted (each recognition makes the list as long
    // as the person count, at least ten); 3: the best three in a list of n; n is brought into
    // 10..2000. Modes 0..3 reallocate the
    // lists at once (every entry id 0, similarity -999; Get_ResultRecog moves); any other mode
    // changes nothing.
    void Set_RecognitionResultMode(int mode, int n);
    int Get_RecognitionResultMode();
    // false holds recognition from the next frame on (default true): method 1 only feeds channel
    // 0's input and ranks nothing, methods 2, 4, 6 and 7 do nothing; method 0 is not affected.
    void Set_SimCalcControl(bool on);
    bool Get_SimCalcControl();
    // Stored only (default 16).
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
