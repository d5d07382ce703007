// What a dictionary chunk file must hold before the gallery lets an engine use it. The legacy
// readers accept any file that parses; a set of vectors that is not orthonormal still "works" and
// gives absurd similarities (a set of equal vectors scores above 1000 against every stranger), so
// the modern layers check the numbers themselves when they load a person or a constraint space.
#ifndef MSMFACE_DICTIONARY_DICTIONARY_CHECK_H
#define MSMFACE_DICTIONARY_DICTIONARY_CHECK_H

#include <string>

class DictChunk;

namespace msm {

// Vectors per channel a recogniser reads from a person's dictionary (the legacy registry's hosts
// and the gallery alike).
constexpr int kRecognisedVectors = 20;

struct DictionaryShape {
    int sets = 5;             // one set per pattern channel
    int dimension = 256;      // values per vector
    int maxVectors = 256;     // vectors per set, at least one
    bool orthonormal = true;  // false: the values need only be finite (eigenvalue columns)
    // Orthogonality is checked among the leading vectors a recognition uses (every vector still
    // has to be of unit length); 0: among all. The pairs cost most of a load's time.
    int orthogonalVectors = 0;
};

// Largest departure from unit length, and largest |dot product| of two vectors of a set, that a
// dictionary may show. Enrolments and constraint spaces written by the engine stay below 1e-5
// (float rounding of the orthonormalisation); a value changed by hand or by a damaged disk is far
// above.
constexpr double kOrthonormalTolerance = 1e-3;

// Empty when the file at path is a dictionary chunk of the given shape whose length is exactly
// what its records take; otherwise one line naming the file and the first thing it does not
// satisfy. The file's size is checked before it is read.
std::string checkDictionaryFile(const std::string& path, const DictionaryShape& shape);

// Reads the file once and checks it as checkDictionaryFile does; on success out holds its sets
// as a recogniser keeps them (at most keptVectors vectors each, 0: all; float rows with their
// Q14 rows). Empty, or the one-line reason (then out is empty).
std::string loadDictionaryFile(const std::string& path, const DictionaryShape& shape,
                               int keptVectors, DictChunk& out);

// The shapes of the directory's files: a person's dictionary, a constraint space's basis and its
// eigenvalues, for patterns of `channels` channels of `dimension` values (without arguments:
// the engine's own, five channels of 256 values).
DictionaryShape personDictionaryShape();
DictionaryShape personDictionaryShape(int channels, int dimension);
DictionaryShape constraintBasisShape();
DictionaryShape constraintBasisShape(int channels, int dimension);
DictionaryShape constraintValuesShape();
DictionaryShape constraintValuesShape(int channels);

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_DICTIONARY_CHECK_H
