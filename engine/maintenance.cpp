// Deletion and the upkeep of the constraint space and the projected dictionaries.
#include <string>
#include <vector>

#include "engine/RecognitionEngine.h"
#include "engine/constraint_reset.h"

void RecognitionEngine::ReleaseProjectedDictionaries() {
    for (int p = 0; p < IDDatabase::kMaxPersons; ++p) {
        delete[] idDatabase->projected[p];
        idDatabase->projected[p] = nullptr;
    }
}

void RecognitionEngine::ReprojectAfterReload() {
    // Whoever was projected into the old space is projected into the new one, or the input and
    // the dictionaries would meet in different spaces.
    for (int p = 0; p < idDatabase->count; ++p)
        if (idDatabase->projected[p] != nullptr) recognizer->DicConvertID(*idDatabase, p);
}

void RecognitionEngine::RecomputeCurrentSpace(int classCount) {
    if (recognizer->RecomputeConstraintSpace(classCount) != 1) return;
    if (recognizer->ReloadConstraintMSM() >= 1) ReprojectAfterReload();
}

int RecognitionEngine::Deletion(int inside, bool deleteFiles) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    const int sourceKind = spaceSourceMode == 1 ? 1 : 0;
    const int before = idDatabase->count;
    const HumanID* person = inside >= 0 && inside < before ? idDatabase->humanIds[inside] : nullptr;
    if (updateSpaceAtOnce) {
        recognizer->removedSet.Release();
        if (person != nullptr && person->keyname != nullptr) {
            const std::string stem = PersonStem(person->keyname);
            recognizer->ReadRemovedSet((stem + (sourceKind == 1 ? ".mck" : ".dck")).c_str(),
                                       sourceKind);
        }
    }
    const int removed = idDatabase->RemoveIdFromDictionary(inside, deleteFiles);
    if (removed == 1 && person != nullptr) {
        // The database shifts its own tables; the record table is ours to close up.
        for (int p = inside; p + 1 < before; ++p)
            idDatabase->humanIds[p] = idDatabase->humanIds[p + 1];
        idDatabase->humanIds[before - 1] = nullptr;
    }
    if (updateSpaceAtOnce && HasCurrentSpace()) {
        recognizer->RemoveClassData(recognizer->removedSet);
        RecomputeCurrentSpace(idDatabase->count);
    }
    return removed;
}

int RecognitionEngine::AllDeletion(bool deleteFiles) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    const int result = idDatabase->RemoveAllDictionary(deleteFiles);
    msm::resetCurrentConstraintSpace(*recognizer);
    return result;
}

int RecognitionEngine::UpdateCMSMDictionary(int mode) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    const int sourceKind = spaceSourceMode == 1 ? 1 : 0;
    const char* ext = sourceKind == 1 ? "mck" : "dck";
    std::vector<std::string> names;
    for (int p = 0; p < idDatabase->count; ++p) {
        const HumanID* h = idDatabase->humanIds[p];
        names.push_back(h != nullptr && h->keyname != nullptr
                            ? std::string(idDatabase->GetDicPath()) + "/" + h->keyname + "." + ext
                            : std::string());
    }
    std::vector<const char*> paths;
    for (const std::string& n : names) paths.push_back(n.c_str());
    const int n = static_cast<int>(paths.size());
    int result = 0;
    if (mode != 1)
        result = recognizer->RegenerateFromScratch(n, paths.data(), sourceKind);
    else if (HasCurrentSpace())
        result = recognizer->RegenerateOnStoredData(n, paths.data(), sourceKind);
    if (result != 1) return 0;
    // The regenerated files are what recognition uses from now on.
    recognizer->ReloadConstraintMSM();
    idDatabase->ReadIdDictionaries();
    if (msm::projectsIntoAllSpaces(recognitionMethod))
        DicConvert();
    else
        ReprojectAfterReload();
    return 1;
}

int RecognitionEngine::DicConvert() {
    if (!msm::projectsIntoAllSpaces(recognitionMethod)) return 1;
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    return recognizer->DicConvert(*idDatabase);
}

int RecognitionEngine::DicConvertID(int inside) {
    if (!msm::projectsIntoAllSpaces(recognitionMethod)) return 1;
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    return recognizer->DicConvertID(*idDatabase, inside);
}

int RecognitionEngine::InitConstraintMSM(const char* path) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    const int result = recognizer->InitConstraintMSM(path);
    // Projected sets of another length would be read past their end.
    if (idDatabase->numCS != recognizer->spaceCount) ReleaseProjectedDictionaries();
    idDatabase->SetNumCS(recognizer->spaceCount);
    return result;
}

int RecognitionEngine::ReloadConstraintMSM() {
    return recognizer != nullptr ? recognizer->ReloadConstraintMSM() : 0;
}

int RecognitionEngine::ReloadMultiConstraintSpace(const char* path) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    ReleaseProjectedDictionaries();
    return recognizer->ReloadMultiConstraintSpace(path);
}

int RecognitionEngine::RecalcCMSMforImportUserDictionary(const char* path) {
    if (idDatabase == nullptr || recognizer == nullptr || path == nullptr) return 0;
    DictChunk imported;
    imported.SetModeAndLimit(kDicPrimFloat, writtenVectorLimit);
    if (imported.ReadAll(path) != 1) return 0;
    if (updateSpaceAtOnce && recognizer->pendingSet.CopyFrom(imported) == 1 && HasCurrentSpace()) {
        recognizer->AddClassData(recognizer->pendingSet);
        RecomputeCurrentSpace(idDatabase->count + 1);
    }
    return 1;
}

int RecognitionEngine::RecalcCMSMforReplaceUserDictionary(int, const char* oldDictionaryPath,
                                                          const char* oldMatrixPath,
                                                          const char* newDictionaryPath) {
    if (idDatabase == nullptr || recognizer == nullptr) return 0;
    const int sourceKind = spaceSourceMode == 1 ? 1 : 0;
    if (updateSpaceAtOnce)
        recognizer->ReadRemovedSet(sourceKind == 1 ? oldMatrixPath : oldDictionaryPath, sourceKind);
    DictChunk replacement;
    replacement.SetModeAndLimit(kDicPrimFloat, writtenVectorLimit);
    if (newDictionaryPath == nullptr || replacement.ReadAll(newDictionaryPath) != 1) return 0;
    if (updateSpaceAtOnce && recognizer->pendingSet.CopyFrom(replacement) == 1 &&
        HasCurrentSpace()) {
        recognizer->RemoveClassData(recognizer->removedSet);
        recognizer->AddClassData(recognizer->pendingSet);
        RecomputeCurrentSpace(idDatabase->count);
    }
    return 1;
}
