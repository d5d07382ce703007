// The numbers a host and the engine exchange, named. FaceRecognition keeps taking and returning
// the plain numbers (hosts were written against them); the engine converts once at its edge and
// reasons in these names. A number that names nothing is carried through unchanged: every enum has
// a fixed underlying type, so static_cast keeps any int32 value and the switches treat it in
// their default branch, as the numbers always were.
#ifndef MSMFACE_ENGINE_FRAME_PROTOCOL_H
#define MSMFACE_ENGINE_FRAME_PROTOCOL_H

#include <cstdint>

namespace msm {

// What the host says happened in a frame (the frame call's argument).
enum class FrameEvent : int32_t {
    NoFace = 0,
    Nothing = 1,      // nothing to do this frame
    Face = 2,         // FaceCropping gathered a face into the next ring slot
    FaceAlike = 3,    // treated as Face
    NothingAlike = 4  // treated as Nothing
};

// What the frame call answers.
enum class FrameResult : int32_t {
    Ignored = 0,     // unknown event; a face while idle, in an unknown mode or with nobody enrolled
    NoFace = 10,     // in every mode, whether or not the input was cleared
    Nothing = 11,    // Nothing / NothingAlike, in every mode
    Gathered = 12,   // a face while registering or adding (the operation may have run)
    Recognised = 13  // a face while recognising with at least one person (the method may compute
                     // nothing)
};

// What the engine does with a face (Set_RecogORRegist). Registration and addition drop to Idle
// when they start and go to Recognise when they end.
enum class OperatingMode : int32_t { Idle = 0, Recognise = 1, Register = 2, Add = 3 };

// How a face is compared with the persons (Set_recognitionmethod). 3 and 5 name nothing: the
// frame call computes nothing for them and still answers Recognised.
enum class RecognitionMethod : int32_t {
    SinglePattern = 0,   // the newest patterns against each person's subspace; no masked form
    Msm = 1,             // the input subspace against each person's subspace
    CmsmFirstSpace = 2,  // both projected into the first constraint space
    CmsmAllSpaces = 4,   // in every loaded constraint space; persons are projected (DicConvert)
    CmsmFirstSpacePlainOnly = 6,  // CmsmFirstSpace without a masked form
    CmsmAllSpacesAlike = 7        // treated as CmsmAllSpaces
};

// How the ranked list is filled (Set_RecognitionResultMode); any other number changes nothing.
enum class ResultMode : int32_t {
    TopThree = 0,          // the best three of a list of ten
    Ranked = 1,            // a list of n, best first
    AllPersons = 2,        // every person sorted
    TopThreeOfLength = 3,  // the best three of a list of n
};

// True for the methods that project every person into every loaded space.
constexpr bool projectsIntoAllSpaces(RecognitionMethod method) {
    return method == RecognitionMethod::CmsmAllSpaces ||
           method == RecognitionMethod::CmsmAllSpacesAlike;
}

// The host's number, and back.
template <typename Protocol>
constexpr Protocol fromNumber(int number) {
    return static_cast<Protocol>(number);
}
template <typename Protocol>
constexpr int toNumber(Protocol value) {
    return static_cast<int>(value);
}

}  // namespace msm

#endif  // MSMFACE_ENGINE_FRAME_PROTOCOL_H
