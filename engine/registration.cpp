// Registration and addition: the gathered frames become a person's dictionary and files.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "dictionary/person_files.h"
#include "engine/RecognitionEngine.h"
#include "engine/frame_screening.h"
#include "recognition/person_dictionary.h"

namespace {

constexpr int kFaceSide = 64;
constexpr int kRingSlots = FeatureExtraction::kSlotCount;

// Ring slot of the k-th of the n frames gathered before `counter` (k = 0 the oldest).
int gatheredSlot(int counter, int n, int k) {
    return ((counter - n + k) % kRingSlots + kRingSlots) % kRingSlots;
}

bool validGatherCount(int n) {
    return n >= 1 && n <= kRingSlots;
}

}  // namespace

std::string RecognitionEngine::PersonStem(const char* name) const {
    return std::string(idDatabase->GetDicPath()) + "/" + name;
}

template <typename PatternAt, typename FaceAt>
int RecognitionEngine::BuildRecords(int n, PatternAt patterns, FaceAt faces, MtrxChunk& records) {
    std::vector<int> used;
    if (screeningFlag == 1) {
        std::vector<const unsigned char*> images(n);
        for (int k = 0; k < n; ++k) images[k] = faces(k);
        screeningCount = msm::screenFrames(images.data(), n, kFaceSide, kFaceSide,
                                           screeningThreshold, screeningSelection);
        for (int k = 0; k < n; ++k)
            if (screeningSelection[k] == '1') used.push_back(k);
    } else {
        for (int k = 0; k < n; ++k) used.push_back(k);
    }
    std::vector<std::vector<float*>> rows(static_cast<std::size_t>(channelCount));
    for (int c = 0; c < channelCount; ++c)
        for (int k : used) rows[static_cast<std::size_t>(c)].push_back(patterns(c, k));
    return msm::buildPersonRecords(rows, msm::kEngineDimension, records).ok() ? 0 : -1;
}

bool RecognitionEngine::ExpandRecords(const MtrxChunk& records, DictChunk& dictionaries) {
    std::function<void(const float*)> spectrum;
    if (keepSpectrumFlag == 1)
        spectrum = [this](const float* values) {
            if (workBuffer != nullptr)
                std::memcpy(workBuffer, values, sizeof(float) * msm::kEngineDimension);
        };
    const int minimum = std::max(msm::kMinBasisCount, recognizer->basisCount);
    return msm::expandPersonRecords(records, channelCount, minimum, spectrum, dictionaries).ok();
}

bool RecognitionEngine::MergeRecords(MtrxChunk& stored, const MtrxChunk& added) const {
    if (stored.count != channelCount || added.count != channelCount) return false;
    for (int c = 0; c < channelCount; ++c) {
        MrxPrim& s = stored.prims[c];
        const MrxPrim& a = added.prims[c];
        if (s.elements == nullptr || a.elements == nullptr || s.order != a.order ||
            s.elementCount != a.elementCount)
            return false;
        if (s.number >= fadeFromPatterns) {
            // Old sessions fade once a person has this many patterns.
            for (int i = 0; i < s.elementCount; ++i) s.elements[i] *= fadeFactor;
            s.number = static_cast<int32_t>(static_cast<float>(s.number) * fadeFactor);
        }
        for (int i = 0; i < s.elementCount; ++i) s.elements[i] += a.elements[i];
        s.number += a.number;
    }
    return true;
}

bool RecognitionEngine::WritePersonFiles(const std::string& stem, MtrxChunk& records,
                                         const DictChunk& dictionaries) {
    return msm::writePersonFiles(stem, records, dictionaries, writtenVectorLimit).ok();
}

void RecognitionEngine::RenewFaceImage(const std::string& stem) {
    // Only the first picture that exists goes: a person has one.
    if (unlink((stem + ".jpg").c_str()) != 0 && unlink((stem + ".fpi").c_str()) != 0)
        unlink((stem + ".bmp").c_str());
    if (featureExtraction->frameSnapshot != nullptr)
        featureExtraction->frameSnapshot->WriteBmp((stem + ".bmp").c_str());
}

void RecognitionEngine::FailRegistration() {
    registrationSucceeded = false;
    operatingMode = msm::OperatingMode::Recognise;
}

int RecognitionEngine::Registration() {
    registrationSucceeded = false;
    operatingMode = msm::OperatingMode::Idle;
    const char* name = idDatabase != nullptr ? idDatabase->GetNewKeyname() : nullptr;
    const int n = framesToGather;
    if (name == nullptr || recognizer == nullptr || featureExtraction == nullptr ||
        !validGatherCount(n)) {
        FailRegistration();
        return 1;
    }
    const std::string stem = PersonStem(name);
    const int counter = featureExtraction->slotIndex;
    FeatureExtraction& fx = *featureExtraction;
    MtrxChunk records;
    DictChunk dictionaries;
    const bool built =
        BuildRecords(
            n, [&](int c, int k) { return fx.patternSlots[gatheredSlot(counter, n, k)][c]; },
            [&](int k) {
                return static_cast<const unsigned char*>(
                    fx.normImages[gatheredSlot(counter, n, k)]->pixels);
            },
            records) == 0;
    if (!built || !ExpandRecords(records, dictionaries)) {
        FailRegistration();
        return 1;
    }
    if (!WritePersonFiles(stem, records, dictionaries)) {
        // A half-written person is no person: no ".mck" without its ".dck".
        unlink((stem + ".mck").c_str());
        FailRegistration();
        return 1;
    }
    if (fx.frameSnapshot != nullptr) fx.frameSnapshot->WriteBmp((stem + ".bmp").c_str());
    if (updateSpaceAtOnce && recognizer->pendingSet.CopyFrom(dictionaries) == 1 &&
        HasCurrentSpace()) {
        recognizer->AddClassData(recognizer->pendingSet);
        RecomputeCurrentSpace(idDatabase->count + 1);
    }
    registrationSucceeded = true;
    operatingMode = msm::OperatingMode::Recognise;
    return 1;
}

void RecognitionEngine::CompleteAddition(int inside, const MtrxChunk& added) {
    const HumanID* person = idDatabase->humanIds[inside];
    if (person == nullptr || person->keyname == nullptr) {
        FailRegistration();
        return;
    }
    const std::string stem = PersonStem(person->keyname);
    MtrxChunk stored;
    DictChunk dictionaries;
    if (stored.ReadAll((stem + ".mck").c_str()) != 1 || !MergeRecords(stored, added) ||
        !ExpandRecords(stored, dictionaries)) {
        FailRegistration();
        return;
    }
    const int sourceKind = spaceSourceMode == 1 ? 1 : 0;
    if (updateSpaceAtOnce)
        recognizer->ReadRemovedSet((stem + (sourceKind == 1 ? ".mck" : ".dck")).c_str(),
                                   sourceKind);
    if (!WritePersonFiles(stem, stored, dictionaries)) {
        FailRegistration();
        return;
    }
    if (renewPictureOnAddition) RenewFaceImage(stem);
    if (updateSpaceAtOnce && recognizer->pendingSet.CopyFrom(dictionaries) == 1 &&
        HasCurrentSpace()) {
        recognizer->RemoveClassData(recognizer->removedSet);
        recognizer->AddClassData(recognizer->pendingSet);
        RecomputeCurrentSpace(idDatabase->count);
    }
    registrationSucceeded = true;
    operatingMode = msm::OperatingMode::Recognise;
}

template <typename PatternAt>
void RecognitionEngine::AddPatterns(int inside, int n, PatternAt patterns) {
    const int counter = featureExtraction->slotIndex;
    FeatureExtraction& fx = *featureExtraction;
    MtrxChunk added;
    const int built = BuildRecords(
        n, patterns,
        [&](int k) {
            return static_cast<const unsigned char*>(
                fx.normImages[gatheredSlot(counter, n, k)]->pixels);
        },
        added);
    if (built != 0) {
        FailRegistration();
        return;
    }
    CompleteAddition(inside, added);
}

int RecognitionEngine::Addition() {
    registrationSucceeded = false;
    operatingMode = msm::OperatingMode::Idle;
    const int inside = additionPerson;
    const int n = framesToGather;
    if (idDatabase == nullptr || recognizer == nullptr || featureExtraction == nullptr ||
        inside < 0 || inside >= idDatabase->count || !validGatherCount(n)) {
        FailRegistration();
        return 1;
    }
    const int counter = featureExtraction->slotIndex;
    FeatureExtraction& fx = *featureExtraction;
    AddPatterns(inside, n,
                [&](int c, int k) { return fx.patternSlots[gatheredSlot(counter, n, k)][c]; });
    return 1;
}

int RecognitionEngine::AdditionFromPrevRecog(int inside) {
    registrationSucceeded = false;
    additionPerson = inside;
    operatingMode = msm::OperatingMode::Idle;
    if (recognizer == nullptr || recognizer->inputs == nullptr ||
        recognizer->inputs[0].keptValid == 0) {
        operatingMode = msm::OperatingMode::Recognise;
        return 0;
    }
    int n = recognizer->GetBufferCount();
    for (int c = 0; c < channelCount; ++c)
        n = std::min({n, recognizer->inputs[c].keptCount, recognizer->inputs[c].maxSegments});
    if (idDatabase == nullptr || featureExtraction == nullptr || inside < 0 ||
        inside >= idDatabase->count || !validGatherCount(n)) {
        FailRegistration();
        return 1;
    }
    InputSubspace* inputs = recognizer->inputs;
    AddPatterns(inside, n, [&](int c, int k) { return inputs[c].keptFrames[k]; });
    return 1;
}
