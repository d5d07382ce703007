#include "engine/RecognitionEngine.h"

#include <cstring>
#include <new>

#include "engine/tick_clock.h"

RecognitionEngine::RecognitionEngine(int width, int height) {
    faceImage = new (std::nothrow) BasicImageFile(64, 64, 8);
    channelCount = msm::kEngineChannels;
    try {
        featureExtraction =
            new FeatureExtraction(width, height, msm::kEngineDimension, msm::kEngineChannels);
    } catch (const std::bad_alloc&) {
        featureExtraction = nullptr;
    }
    idDatabase = new (std::nothrow) IDDatabase();
    recognizer = new (std::nothrow) MWMSMRecognition(msm::kEngineDimension, msm::kEngineChannels);
    if (recognizer != nullptr) {
        rankedScores = recognizer->results.scores;
        rankedIds = recognizer->results.indices;
    }
    workBuffer = new (std::nothrow) unsigned char[msm::kWorkBufferBytes]();
}

RecognitionEngine::~RecognitionEngine() {
    delete faceImage;
    delete recognizer;
    delete idDatabase;
    delete featureExtraction;
    delete[] workBuffer;
}

int RecognitionEngine::NewestSlot() const {
    const int counter = featureExtraction != nullptr ? featureExtraction->slotIndex : 0;
    return counter == 0 ? msm::kSlotBeforeWrap : counter - 1;
}

bool RecognitionEngine::HasCurrentSpace() const {
    return recognizer != nullptr && recognizer->learnedSpace >= 0 &&
           recognizer->learnedSpace < recognizer->spaceCount;
}

// --- Frame cycle ------------------------------------------------------------------------------

using msm::FrameEvent;
using msm::FrameResult;
using msm::OperatingMode;
using msm::RecognitionMethod;

FrameResult RecognitionEngine::FrameProcess(FrameEvent event) {
    return RunFrame(event, FrameFamily::Plain);
}

FrameResult RecognitionEngine::FrameProcessMasking(FrameEvent event) {
    return RunFrame(event, FrameFamily::Masked);
}

void RecognitionEngine::ClearRecognition() {
    if (recognizer == nullptr) return;
    recognizer->Refresh_input();
    msm::ResultLists& r = recognizer->results;
    for (int i = 0; i < r.length; ++i) {
        r.scores[i] = -i;
        r.indices[i] = -1;
        r.candidates[i] = {-1, -i};
    }
}

void RecognitionEngine::RecognisePlain(int slot) {
    float* const* patterns = featureExtraction->patternSlots[slot];
    const int persons = idDatabase->count;
    int best = 0;
    switch (recognitionMethod) {
        case RecognitionMethod::SinglePattern:
            recognizer->RecognizeBySinglePattern(patterns, idDatabase->dictionaries, persons,
                                                 &best);
            break;
        case RecognitionMethod::Msm:
            recognizer->RecognizeByInputSubspaces(patterns, idDatabase->dictionaries, persons,
                                                  &best);
            break;
        case RecognitionMethod::CmsmFirstSpace:
        case RecognitionMethod::CmsmFirstSpacePlainOnly:
            recognizer->RecognizeInConstraintSpaces(patterns, idDatabase->projected, persons,
                                                    idDatabase->numCS, 1, &best);
            break;
        case RecognitionMethod::CmsmAllSpaces:
        case RecognitionMethod::CmsmAllSpacesAlike:
            recognizer->RecognizeInConstraintSpaces(patterns, idDatabase->projected, persons,
                                                    idDatabase->numCS, recognizer->spaceCount,
                                                    &best);
            break;
        default:  // 3, 5 and unknown methods compute nothing
            break;
    }
}

void RecognitionEngine::RecogniseMasked(int slot) {
    float* const* patterns = featureExtraction->patternSlots[slot];
    const int persons = idDatabase->count;
    const unsigned char* mask = idDatabase->mask;
    int best = 0;
    switch (recognitionMethod) {
        case RecognitionMethod::Msm:
            recognizer->RecognizeByInputSubspaces(patterns, idDatabase->dictionaries, persons,
                                                  &best, mask);
            break;
        case RecognitionMethod::CmsmFirstSpace:
            recognizer->RecognizeInConstraintSpaces(patterns, idDatabase->projected, persons,
                                                    idDatabase->numCS, 1, &best, mask);
            break;
        case RecognitionMethod::CmsmAllSpaces:
        case RecognitionMethod::CmsmAllSpacesAlike:
            recognizer->RecognizeInConstraintSpaces(patterns, idDatabase->projected, persons,
                                                    idDatabase->numCS, recognizer->spaceCount,
                                                    &best, mask);
            break;
        default:  // kept: SinglePattern and CmsmFirstSpacePlainOnly have no masked form
            break;
    }
}

FrameResult RecognitionEngine::RunFrame(FrameEvent event, FrameFamily family) {
    frameStartTick = msm::tickMilliseconds();
    auto finish = [this](FrameResult result) {
        frameEndTick = msm::tickMilliseconds();
        frameMilliseconds = msm::elapsedMilliseconds(frameStartTick, frameEndTick);
        return result;
    };
    switch (event) {
        case FrameEvent::NoFace:
            if (operatingMode == OperatingMode::Recognise) {
                ++facelessFrames;
                if (facelessFramesTolerated >= 0 && facelessFrames > facelessFramesTolerated) {
                    ClearRecognition();
                    // kept: the count goes on rising while faces stay away
                    ++facelessFrames;
                }
            }
            return finish(FrameResult::NoFace);
        case FrameEvent::Nothing:
        case FrameEvent::NothingAlike:
            return finish(FrameResult::Nothing);
        case FrameEvent::Face:
        case FrameEvent::FaceAlike:
            break;
        default:
            return finish(FrameResult::Ignored);
    }

    facelessFrames = 0;
    const int counter = featureExtraction != nullptr ? featureExtraction->slotIndex : -1;
    switch (operatingMode) {
        case OperatingMode::Recognise: {
            if (idDatabase == nullptr || recognizer == nullptr || featureExtraction == nullptr ||
                idDatabase->count < 1)
                return finish(FrameResult::Ignored);
            const int slot = NewestSlot();
            if (family == FrameFamily::Plain)
                RecognisePlain(slot);
            else
                RecogniseMasked(slot);
            rankedScores = recognizer->results.scores;
            rankedIds = recognizer->results.indices;
            return finish(FrameResult::Recognised);
        }
        case OperatingMode::Register:
            if (counter == framesToGather) {
                operatingMode = OperatingMode::Idle;
                Registration();
            }
            return finish(FrameResult::Gathered);
        case OperatingMode::Add:
            if (counter == framesToGather) {
                operatingMode = OperatingMode::Idle;
                Addition();
            }
            return finish(FrameResult::Gathered);
        default:  // idle and unknown modes
            return finish(FrameResult::Ignored);
    }
}

RECOGRESULT* RecognitionEngine::Get_ResultRecog() {
    return recognizer != nullptr ? recognizer->results.candidates : nullptr;
}

void RecognitionEngine::Refresh_input() {
    if (recognizer != nullptr) recognizer->Refresh_input();
}

void RecognitionEngine::NoticeCompleteRecognition() {
    if (recognizer != nullptr) recognizer->NoticeCompleteRecognition();
}

int RecognitionEngine::GetMulCount() {
    return recognizer != nullptr ? recognizer->GetMulCount() : 0;
}

int RecognitionEngine::GetBufferCount() {
    return recognizer != nullptr ? recognizer->GetBufferCount() : 0;
}

void RecognitionEngine::Set_RecognitionResultMode(msm::ResultMode mode, int n) {
    if (recognizer == nullptr) return;
    recognizer->Set_RecognitionResultMode(msm::toNumber(mode), n);
    rankedScores = recognizer->results.scores;
    rankedIds = recognizer->results.indices;
}

// --- Image ------------------------------------------------------------------------------------

int RecognitionEngine::FaceCropping(BasicImageFile* frame, BasicImageFile* colourFrame,
                                    PartsPosition* parts, BasicImageFile* out) {
    constexpr int kFaceSide = 64;
    if (featureExtraction == nullptr || out == nullptr || out->pixels == nullptr ||
        out->width != kFaceSide || out->height != kFaceSide || out->bitsPerPixel != 8)
        return 4;
    if (featureExtraction->NormaliseFrame(frame, colourFrame, parts, out->pixels) ==
        FeatureExtraction::kNormaliseFailed)
        return 4;
    if (faceImage != nullptr && faceImage->pixels != nullptr)
        std::memcpy(faceImage->pixels, out->pixels, kFaceSide * kFaceSide);
    return 1;
}

void RecognitionEngine::image_size_set(int width, int height) {
    cameraWidth = width;
    cameraHeight = height;
    if (featureExtraction != nullptr) featureExtraction->ReplaceFrameSnapshot(width, height);
}
