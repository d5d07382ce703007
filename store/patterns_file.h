// The kind of pattern a dictionary directory holds, recorded in "patterns.txt" when a directory
// of descriptors is created. A directory without the file holds the engine's own (Seed) patterns:
// every directory made before descriptors existed, and every Seed directory made since (none
// writes the file, so the files of a Seed directory stay what older versions write and read).
#ifndef MSMFACE_STORE_PATTERNS_FILE_H
#define MSMFACE_STORE_PATTERNS_FILE_H

#include <cstddef>
#include <string>

#include <msmface/store.h>

#include "dictionary/dictionary_check.h"

namespace msmface::detail {

// A patterns file beyond this is not one we wrote: refused before it is read.
inline constexpr std::size_t kMaxPatternsFileBytes = 256;

std::string patternsPath(const std::string& dir);

// Parses the file's text: one kind name ("seed" or "descriptor") and a line end, nothing else (a
// missing last line end and a "\r" before it are taken). Returns an empty string and the kind, or
// a reason ("expected ..., found ...") without the file's name.
std::string parsePatternKind(const std::string& text, PatternKind& kind);

// The text savePatternKind writes.
std::string formatPatternKind(PatternKind kind);

// kind = the kind the directory records, Seed when it records none. Returns an empty string or a
// one-line reason naming the file and what was expected.
std::string loadPatternKind(const std::string& dir, PatternKind& kind);

// Writes the file atomically: a crash leaves no file or the whole one.
std::string savePatternKind(const std::string& dir, PatternKind kind);

// What the dictionary files of a directory of this kind hold: a person's dictionary, a constraint
// space's basis and its eigenvalues.
msm::DictionaryShape personShapeOf(PatternKind kind);
msm::DictionaryShape constraintBasisShapeOf(PatternKind kind);
msm::DictionaryShape constraintValuesShapeOf(PatternKind kind);

}  // namespace msmface::detail

#endif  // MSMFACE_STORE_PATTERNS_FILE_H
