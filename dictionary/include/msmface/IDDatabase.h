// The registry of enrolled persons: their records, their dictionaries read from the dictionary
// directory, the dictionaries projected into the constraint spaces, and one mask byte each.
//
// Numbering. The ID number is the host's (>= 1, in HumanID); the inside number is the dense
// slot 0..GetAllNum()-1. Removing a person shifts the later slots down by one.
//
// Start-up: SetDicPath, InitIdDictionary(n), n x PushIdDictionary, ReadIdDictionaries.
// Enrolment: CheckIDNum / CheckIDName, SetNewKeyname, the person's files are written,
// AddNewDictionary.
//
// Messages go to standard error without a line break: "PushDic Error", "<name>(<id>)" followed by
// the Shift-JIS text that the dictionary file cannot be read, "Cannot find selected ID.",
// "cannot find selected ID.", "Error::SetNewKeyname".
//
// Threads. No locks: one thread at a time per database.
#ifndef MSMFACE_IDDATABASE_H
#define MSMFACE_IDDATABASE_H

#include <cstdint>

#include <msmface/export.h>

class DictChunk;

// The per-person record the host and the engine fill; the database reads only these two members
// and never releases a record.
struct HumanID {
    int32_t id;     // the host's ID number, >= 1
    char* keyname;  // base name of the person's files in the dictionary directory
};

class MSMFACE_API IDDatabase {
  public:
    static constexpr int kMaxPersons = 2000;

    HumanID** humanIds;       // kMaxPersons slots; slot i is the record of inside number i
    int32_t count;            // registered persons (GetAllNum)
    DictChunk* dictionaries;  // kMaxPersons dictionaries, slot i of inside number i
    // kMaxPersons slots, each null or an array of numCS chunks created with new DictChunk[numCS];
    // released here with delete[].
    DictChunk** projected;
    unsigned char* mask;      // kMaxPersons bytes, 1 = on, 0 = off
    int32_t numCS;            // constraint spaces, the length of each projected array
    int32_t maxBasisVectors;  // vectors read per channel from a person's file, 20
    char* newKeyname;         // pending name for the next AddNewDictionary, owned, or null
    char dicPath[256];        // dictionary directory, no trailing separator
    int32_t pushed;           // records entered since the last InitIdDictionary

    IDDatabase();
    virtual ~IDDatabase();
    IDDatabase(const IDDatabase&) = delete;
    IDDatabase& operator=(const IDDatabase&) = delete;

    // Copies at most 255 characters of path.
    void SetDicPath(char* path);
    char* GetDicPath();

    // Declares how many records will be pushed: count = n, pushed = 0, every record slot cleared.
    // Returns 1, or 0 (nothing changed) when n is outside 0..kMaxPersons.
    int InitIdDictionary(int n);
    // Enters h at the next slot. Returns 1, or 0 when kMaxPersons records are already pushed.
    int PushIdDictionary(HumanID* h);
    // Reads "<dicPath>/<keyname>.dck" of inside numbers 0..count-1 as float rows, at most
    // maxBasisVectors vectors per channel, and prepares their fixed-point rows; a slot that
    // already holds a dictionary is kept. Returns 1; 0 with "PushDic Error" when count differs
    // from the pushed records; 0 with the cannot-read message and count = 0 when a file is
    // missing or malformed (the dictionaries read before it stay in memory).
    int ReadIdDictionaries();
    // Releases the dictionaries of 0..count-1; count = pushed = 0. Returns 1, or 0 if count < 1.
    int FreeIdDictionary();
    // Accepts 0 <= inside <= count (inclusive: kept, hosts rely on it; inside = count removes
    // no file and shifts nothing but still drops the last slot). With deleteFiles removes the
    // person's ".dck", ".mck", ".bmp", ".jpg" and ".fpi". Shifts the later dictionaries, mask
    // bytes and projected arrays down by one; the record table is the caller's to reorder.
    // Returns 1, or 0 with "Cannot find selected ID.".
    int RemoveIdFromDictionary(int inside, bool deleteFiles);
    // Reloads one person's dictionary (and drops its projected ones). Accepts 0 <= inside <= count
    // (inclusive, as removal). Returns 1; 0 with "cannot find selected ID." out of range; 0 with
    // the cannot-read message and count = 0 when the file does not read.
    int ReplaceIdDictionary(int inside);
    // With deleteFiles removes every person's files; releases all dictionaries; count = pushed
    // = 0. Returns 1.
    int RemoveAllDictionary(bool deleteFiles);

    // Keeps an owned copy of name. Returns 1, or 0 with "Error::SetNewKeyname" when a name is
    // already pending.
    int SetNewKeyname(char* name);
    void FreeNewKeyname();
    char* GetNewKeyname();
    // Drops inside's dictionary and projected dictionaries. Returns 1, or 0 when inside is
    // outside the table.
    int ResetOneDictionary(int inside);
    // Enrols h after the others and consumes the pending name. Returns 1, or 0 (nothing
    // changed) when the table is full.
    int AddNewDictionary(HumanID* h);

    int GetAllNum();
    // Largest ID number among the registered persons; 0 when there are none or all are below 0.
    int GetMaxIDNum();
    // True when id is free: false for id < 1 or when a registered person holds it.
    bool CheckIDNum(int id);
    // Lowest inside number whose ID number is id, or -1.
    int ConvertIDNumToInsidenum(int id);
    // True when no registered person has this key name (exact, case-sensitive).
    bool CheckIDName(char* name);
    // Mask byte of inside; false outside the table.
    bool CheckMaskArray(int inside);
    // Set the mask byte to 1 / 0; nothing happens outside the table.
    void MaskArrayOn(int inside);
    void MaskArrayOff(int inside);
    void SetNumCS(int n);

    // Conveniences for string literals.
    void SetDicPath(const char* path) { SetDicPath(const_cast<char*>(path)); }
    int SetNewKeyname(const char* name) { return SetNewKeyname(const_cast<char*>(name)); }
    bool CheckIDName(const char* name) { return CheckIDName(const_cast<char*>(name)); }

  private:
    int MallocHumanID(int n);
    void FreeHumanID();
    int ReallocHumanID(int n);
    int ReadPersonDictionary(int inside);
    void ReleaseProjected(int inside);

    int32_t capacity_;  // length of the tables
};

#endif  // MSMFACE_IDDATABASE_H
