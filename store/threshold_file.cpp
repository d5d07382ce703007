#include "store/threshold_file.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include <msmface/store.h>

#include "io/atomic_file.h"
#include "io/small_text_file.h"

namespace msmface::detail {
namespace {

constexpr const char* kExpected = "expected an identify threshold of 0 to 1000";

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string trimmed(const std::string& line) {
    std::size_t b = 0, e = line.size();
    while (b < e && isBlank(line[b])) ++b;
    while (e > b && isBlank(line[e - 1])) --e;
    return line.substr(b, e - b);
}

// A whole number of at most four digits: "0850" is 850, a sign or anything else is refused.
bool parseValue(const std::string& word, int& value) {
    if (word.empty() || word.size() > 4) return false;
    int v = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v > kMaxThreshold) return false;
    value = v;
    return true;
}

}  // namespace

std::string thresholdPath(const std::string& dir) {
    return dir + "/" + kThresholdFileName;
}

std::string parseThreshold(const std::string& text, int& value, PatternKind kind) {
    std::istringstream in(text);
    std::string line;
    int found = -1;
    for (int number = 1; std::getline(in, line); ++number) {
        std::string word = trimmed(line);
        if (word.empty() || word[0] == '#') continue;
        const std::string where = "line " + std::to_string(number) + ": ";
        if (found >= 0) return where + kExpected + " on one line only, found a second value";
        PatternKind stored = PatternKind::Seed;
        const std::size_t blank = word.find_first_of(" \t");
        if (blank != std::string::npos) {
            const std::optional<PatternKind> named = patternKindNamed(word.substr(0, blank));
            if (named) {
                stored = *named;
                word = trimmed(word.substr(blank));
            }
        }
        if (!parseValue(word, found))
            return where + kExpected + ", found \"" + quoteForMessage(trimmed(line)) + "\"";
        if (stored != kind)
            return where + "a threshold for " + patternKindName(stored) +
                   " patterns, expected one for " + patternKindName(kind) +
                   " patterns (scores of the two kinds do not compare); store it again";
    }
    if (found < 0) return std::string(kExpected) + ", found none";
    value = found;
    return {};
}

std::string loadThreshold(const std::string& dir, int fallback, int& value, PatternKind kind) {
    value = fallback;
    const std::string path = thresholdPath(dir);
    std::string text;
    const SmallFileRead read = readSmallTextFile(path, kMaxThresholdFileBytes, text, Links::Refuse);
    if (read != SmallFileRead::Ok) return smallFileReadProblem(read, path, kExpected, "4 KiB");
    int parsed = 0;
    std::string error = parseThreshold(text, parsed, kind);
    if (!error.empty()) return path + ": " + error;
    value = parsed;
    return {};
}

std::string formatThreshold(int value, PatternKind kind) {
    // A Seed directory's file stays as older versions write and read it.
    const std::string named =
        kind == PatternKind::Seed ? std::string() : std::string(patternKindName(kind)) + " ";
    return "# msmface identify threshold: a best score above it identifies the person (0 .. "
           "1000)\n" +
           named + std::to_string(value) + "\n";
}

std::string saveThreshold(const std::string& dir, int value, PatternKind kind) {
    return replaceSmallTextFile(dir, thresholdPath(dir), formatThreshold(value, kind));
}

}  // namespace msmface::detail
