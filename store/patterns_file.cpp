#include "store/patterns_file.h"

#include "io/small_text_file.h"
#include "recognition/descriptor_patterns.h"

namespace msmface {

const char* patternKindName(PatternKind kind) noexcept {
    switch (kind) {
        case PatternKind::Seed:
            return "seed";
        case PatternKind::Descriptor:
            return "descriptor";
    }
    return "unknown";
}

std::optional<PatternKind> patternKindNamed(const std::string& name) {
    for (PatternKind kind : {PatternKind::Seed, PatternKind::Descriptor})
        if (name == patternKindName(kind)) return kind;
    return std::nullopt;
}

int defaultIdentifyThreshold(PatternKind kind) noexcept {
    return kind == PatternKind::Descriptor ? msm::kDescriptorSettings.identifyThreshold
                                           : kDefaultIdentifyThreshold;
}

namespace detail {

namespace {

constexpr const char* kExpected = "expected \"seed\" or \"descriptor\" on one line";

}  // namespace

std::string patternsPath(const std::string& dir) {
    return dir + "/" + kPatternsFileName;
}

std::string parsePatternKind(const std::string& text, PatternKind& kind) {
    std::string word = text;
    if (!word.empty() && word.back() == '\n') word.pop_back();
    if (!word.empty() && word.back() == '\r') word.pop_back();
    const std::optional<PatternKind> named =
        word.find_first_of("\r\n") == std::string::npos ? patternKindNamed(word) : std::nullopt;
    if (!named) return std::string(kExpected) + ", found \"" + quoteForMessage(text) + "\"";
    kind = *named;
    return {};
}

std::string formatPatternKind(PatternKind kind) {
    return std::string(patternKindName(kind)) + "\n";
}

std::string loadPatternKind(const std::string& dir, PatternKind& kind) {
    kind = PatternKind::Seed;
    const std::string path = patternsPath(dir);
    std::string text;
    const SmallFileRead read = readSmallTextFile(path, kMaxPatternsFileBytes, text, Links::Refuse);
    if (read != SmallFileRead::Ok)
        return smallFileReadProblem(read, path, kExpected,
                                    std::to_string(kMaxPatternsFileBytes) + " bytes");
    PatternKind parsed = PatternKind::Seed;
    const std::string error = parsePatternKind(text, parsed);
    if (!error.empty()) return path + ": " + error;
    kind = parsed;
    return {};
}

std::string savePatternKind(const std::string& dir, PatternKind kind) {
    return replaceSmallTextFile(dir, patternsPath(dir), formatPatternKind(kind));
}

msm::DictionaryShape personShapeOf(PatternKind kind) {
    return kind == PatternKind::Descriptor
               ? msm::personDictionaryShape(msm::kDescriptorChannels, kDescriptorSize)
               : msm::personDictionaryShape();
}

msm::DictionaryShape constraintBasisShapeOf(PatternKind kind) {
    return kind == PatternKind::Descriptor
               ? msm::constraintBasisShape(msm::kDescriptorChannels, kDescriptorSize)
               : msm::constraintBasisShape();
}

msm::DictionaryShape constraintValuesShapeOf(PatternKind kind) {
    return kind == PatternKind::Descriptor ? msm::constraintValuesShape(msm::kDescriptorChannels)
                                           : msm::constraintValuesShape();
}

}  // namespace detail

}  // namespace msmface
