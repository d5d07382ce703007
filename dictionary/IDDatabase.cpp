#include <msmface/IDDatabase.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "dictionary/DictChunk.h"
#include "dictionary/dictionary_check.h"
#include "numeric/diagnostics.h"

namespace {

// "の辞書ファイルが読み込めません。" in the Shift-JIS code page: hosts of this registry show it as
// it stands.
constexpr char kCannotReadDictionary[] =
    "%s(%d)\x82\xcc\x8e\xab\x8f\x91\x83\x74\x83\x40\x83\x43\x83\x8b\x82\xaa\x93\xc7\x82\xdd\x8d"
    "\x9e\x82\xdf\x82\xdc\x82\xb9\x82\xf1\x81\x42";

constexpr const char* kSiblingExtensions[] = {"dck", "mck", "bmp", "jpg", "fpi"};

std::string dictionaryPath(const char* dicPath, const char* keyname) {
    return std::string(dicPath) + "/" + keyname + ".dck";
}

std::string siblingPath(const std::string& dck, const char* extension) {
    return dck.substr(0, dck.size() - 3) + extension;
}

}  // namespace

IDDatabase::IDDatabase()
    : humanIds(nullptr),
      count(0),
      dictionaries(nullptr),
      projected(nullptr),
      mask(nullptr),
      numCS(0),
      maxBasisVectors(msm::kRecognisedVectors),
      newKeyname(nullptr),
      dicPath{},
      pushed(0),
      capacity_(0) {
    MallocHumanID(kMaxPersons);
}

IDDatabase::~IDDatabase() {
    FreeNewKeyname();
    FreeHumanID();
    count = 0;
    pushed = 0;
}

int IDDatabase::MallocHumanID(int n) {
    FreeHumanID();
    if (n < 0 || n > kMaxPersons) return 0;
    if (n == 0) return 1;
    humanIds = new (std::nothrow) HumanID*[n]();
    dictionaries = new (std::nothrow) DictChunk[n];
    mask = new (std::nothrow) unsigned char[n]();
    projected = new (std::nothrow) DictChunk*[n]();
    if (humanIds == nullptr || dictionaries == nullptr || mask == nullptr || projected == nullptr) {
        msm::reportNoMemory();
        FreeHumanID();
        return 0;
    }
    capacity_ = n;
    return 1;
}

void IDDatabase::FreeHumanID() {
    for (int i = 0; i < capacity_ && projected != nullptr; ++i) ReleaseProjected(i);
    delete[] humanIds;
    delete[] dictionaries;
    delete[] mask;
    delete[] projected;
    humanIds = nullptr;
    dictionaries = nullptr;
    mask = nullptr;
    projected = nullptr;
    capacity_ = 0;
}

int IDDatabase::ReallocHumanID(int) {
    return 1;
}

void IDDatabase::ReleaseProjected(int inside) {
    delete[] projected[inside];
    projected[inside] = nullptr;
}

void IDDatabase::SetDicPath(char* path) {
    if (path == nullptr) path = const_cast<char*>("");
    std::snprintf(dicPath, sizeof dicPath, "%s", path);
}

char* IDDatabase::GetDicPath() {
    return dicPath;
}

int IDDatabase::InitIdDictionary(int n) {
    if (n < 0 || n > capacity_) return 0;
    // Records of an earlier session may be gone; the slots are refilled by the pushes.
    for (int i = 0; i < capacity_; ++i) humanIds[i] = nullptr;
    count = n;
    pushed = 0;
    return 1;
}

int IDDatabase::PushIdDictionary(HumanID* h) {
    if (pushed < 0 || pushed >= capacity_) return 0;
    humanIds[pushed] = h;
    ++pushed;
    return 1;
}

int IDDatabase::ReadPersonDictionary(int inside) {
    HumanID* h = humanIds[inside];
    const char* name = h != nullptr && h->keyname != nullptr ? h->keyname : "";
    DictChunk& chunk = dictionaries[inside];
    bool ok = h != nullptr && h->keyname != nullptr;
    if (ok && chunk.count != 0) return 1;
    if (ok) {
        chunk.SetModeAndLimit(kDicPrimFloat, maxBasisVectors);
        ok = chunk.ReadAll(dictionaryPath(dicPath, name).c_str()) == 1;
    }
    for (int c = 0; ok && c < chunk.count; ++c) ok = chunk.prims[c].PrepareQ14Rows() == 1;
    if (!ok) {
        chunk.Release();
        msm::diagnose(kCannotReadDictionary, name, h != nullptr ? h->id : 0);
        count = 0;
        return 0;
    }
    return 1;
}

int IDDatabase::ReadIdDictionaries() {
    if (count != pushed) {
        msm::diagnose("PushDic Error");
        return 0;
    }
    for (int i = 0; i < count; ++i)
        if (!ReadPersonDictionary(i)) return 0;
    return 1;
}

int IDDatabase::FreeIdDictionary() {
    if (count < 1) return 0;
    for (int i = 0; i < count; ++i) dictionaries[i].Release();
    count = 0;
    pushed = 0;
    return 1;
}

int IDDatabase::RemoveIdFromDictionary(int inside, bool deleteFiles) {
    if (inside < 0 || inside > count) {
        msm::diagnose("Cannot find selected ID.");
        return 0;
    }
    if (count == 0) return 1;
    if (deleteFiles && inside < count && humanIds[inside] != nullptr &&
        humanIds[inside]->keyname != nullptr) {
        std::string dck = dictionaryPath(dicPath, humanIds[inside]->keyname);
        for (const char* extension : kSiblingExtensions)
            ::unlink(siblingPath(dck, extension).c_str());
    }
    if (inside < capacity_) {
        dictionaries[inside].Release();
        ReleaseProjected(inside);
    }
    for (int j = inside + 1; j < count; ++j) {
        dictionaries[j - 1].CopyFrom(dictionaries[j]);
        mask[j - 1] = mask[j];
        projected[j - 1] = projected[j];
        projected[j] = nullptr;
    }
    int last = count - 1;
    dictionaries[last].Release();
    // Null after a shift; still the last person's own array when inside = count shifted nothing.
    ReleaseProjected(last);
    --count;
    if (pushed > 0) --pushed;
    return 1;
}

int IDDatabase::ReplaceIdDictionary(int inside) {
    if (inside < 0 || inside > count || inside >= capacity_) {
        msm::diagnose("cannot find selected ID.");
        return 0;
    }
    dictionaries[inside].Release();
    ReleaseProjected(inside);
    return ReadPersonDictionary(inside);
}

int IDDatabase::RemoveAllDictionary(bool deleteFiles) {
    for (int i = 0; deleteFiles && i < count; ++i) {
        if (humanIds[i] == nullptr || humanIds[i]->keyname == nullptr) continue;
        std::string dck = dictionaryPath(dicPath, humanIds[i]->keyname);
        for (const char* extension : kSiblingExtensions)
            ::unlink(siblingPath(dck, extension).c_str());
    }
    for (int i = 0; i < count; ++i) dictionaries[i].Release();
    count = 0;
    pushed = 0;
    return 1;
}

int IDDatabase::SetNewKeyname(char* name) {
    if (newKeyname != nullptr) {
        msm::diagnose("Error::SetNewKeyname");
        return 0;
    }
    if (name == nullptr) return 0;
    newKeyname = strdup(name);
    if (newKeyname == nullptr) {
        msm::reportNoMemory();
        return 0;
    }
    return 1;
}

void IDDatabase::FreeNewKeyname() {
    std::free(newKeyname);
    newKeyname = nullptr;
}

char* IDDatabase::GetNewKeyname() {
    return newKeyname;
}

int IDDatabase::ResetOneDictionary(int inside) {
    if (inside < 0 || inside >= capacity_) return 0;
    dictionaries[inside].Release();
    ReleaseProjected(inside);
    return 1;
}

int IDDatabase::AddNewDictionary(HumanID* h) {
    if (count >= capacity_ || pushed >= capacity_ || pushed < 0) return 0;
    ++count;
    humanIds[pushed] = h;
    ++pushed;
    FreeNewKeyname();
    return 1;
}

int IDDatabase::GetAllNum() {
    return count;
}

int IDDatabase::GetMaxIDNum() {
    int best = 0;
    for (int i = 0; i < count; ++i)
        if (humanIds[i] != nullptr && humanIds[i]->id > best) best = humanIds[i]->id;
    return best;
}

bool IDDatabase::CheckIDNum(int id) {
    if (id < 1) return false;
    for (int i = 0; i < count; ++i)
        if (humanIds[i] != nullptr && humanIds[i]->id == id) return false;
    return true;
}

int IDDatabase::ConvertIDNumToInsidenum(int id) {
    for (int i = 0; i < count; ++i)
        if (humanIds[i] != nullptr && humanIds[i]->id == id) return i;
    return -1;
}

bool IDDatabase::CheckIDName(char* name) {
    if (name == nullptr) return false;
    for (int i = 0; i < count; ++i) {
        HumanID* h = humanIds[i];
        if (h != nullptr && h->keyname != nullptr && std::strcmp(h->keyname, name) == 0)
            return false;
    }
    return true;
}

bool IDDatabase::CheckMaskArray(int inside) {
    return inside >= 0 && inside < capacity_ && mask[inside] != 0;
}

void IDDatabase::MaskArrayOn(int inside) {
    if (inside >= 0 && inside < capacity_) mask[inside] = 1;
}

void IDDatabase::MaskArrayOff(int inside) {
    if (inside >= 0 && inside < capacity_) mask[inside] = 0;
}

void IDDatabase::SetNumCS(int n) {
    numCS = n;
}
