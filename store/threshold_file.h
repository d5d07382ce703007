// The identify threshold stored in a dictionary directory ("threshold.txt"), measured for the
// persons of the directory and taken by every later recognition unless the caller gives one.
// Scores of the two kinds of pattern live on different scales, so a threshold is only ever taken
// for the kind it was stored for: a directory of descriptors stores "descriptor <value>", one of
// Seed patterns the bare value (as every older directory holds it), and a file of the other kind
// is refused rather than used.
#ifndef MSMFACE_STORE_THRESHOLD_FILE_H
#define MSMFACE_STORE_THRESHOLD_FILE_H

#include <string>

#include <msmface/store.h>

namespace msmface::detail {

inline constexpr int kMaxThreshold = 1000;
inline constexpr std::size_t kMaxThresholdFileBytes = 4096;

std::string thresholdPath(const std::string& dir);

// Parses the file's text: blank lines and '#' lines are skipped; exactly one other line holds a
// whole number 0 .. 1000, after a kind's name and a blank for a threshold of that kind ("seed"
// may be named, the bare number is Seed's), with blanks around it allowed. A threshold of
// another kind than `kind` is refused. Returns an empty string and the value, or a reason
// ("line N: expected ..., found ...") without the file's name.
std::string parseThreshold(const std::string& text, int& value,
                           PatternKind kind = PatternKind::Seed);

// value = the stored threshold, or fallback when the directory has none. Returns an empty string
// or a one-line reason naming the file and what was expected.
std::string loadThreshold(const std::string& dir, int fallback, int& value,
                          PatternKind kind = PatternKind::Seed);

// The text saveThreshold writes.
std::string formatThreshold(int value, PatternKind kind = PatternKind::Seed);

// Replaces the file atomically. requires: 0 <= value <= 1000.
std::string saveThreshold(const std::string& dir, int value, PatternKind kind = PatternKind::Seed);

}  // namespace msmface::detail

#endif  // MSMFACE_STORE_THRESHOLD_FILE_H
