// The identify threshold stored in a dictionary directory ("threshold.txt"), measured for the
// persons of the directory and taken by every later recognition unless the caller gives one.
#ifndef MSMFACE_STORE_THRESHOLD_FILE_H
#define MSMFACE_STORE_THRESHOLD_FILE_H

#include <string>

namespace msmface::detail {

inline constexpr int kMaxThreshold = 1000;
inline constexpr std::size_t kMaxThresholdFileBytes = 4096;

std::string thresholdPath(const std::string& dir);

// Parses the file's text: blank lines and '#' lines are skipped; exactly one other line holds a
// whole number 0 .. 1000, with blanks around it allowed. Returns an empty string and the value,
// or a reason ("line N: expected ..., found ...") without the file's name.
std::string parseThreshold(const std::string& text, int& value);

// value = the stored threshold, or fallback when the directory has none. Returns an empty string
// or a one-line reason naming the file and what was expected.
std::string loadThreshold(const std::string& dir, int fallback, int& value);

// The text saveThreshold writes.
std::string formatThreshold(int value);

// Replaces the file atomically. requires: 0 <= value <= 1000.
std::string saveThreshold(const std::string& dir, int value);

}  // namespace msmface::detail

#endif  // MSMFACE_STORE_THRESHOLD_FILE_H
