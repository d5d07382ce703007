#include "core/constraint_spaces.h"

#include <new>

#include "core/status.h"
#include "io/small_text_file.h"
#include "recognition/MWMSMRecognition.h"

namespace msmface::core {

ConstraintSpaces::ConstraintSpaces() = default;
ConstraintSpaces::~ConstraintSpaces() = default;

Result<std::unique_ptr<ConstraintSpaces>> ConstraintSpaces::load(const std::string& listPath,
                                                                 PatternShape shape) {
    const std::string list = "constraint list " + detail::quoteForMessage(listPath, 4096);
    // The space files hold vectors of the engine's pattern length; the loader reads no other.
    if (shape.dimension != msm::kPatternDim)
        return argumentFailure(list + ": spaces are read for patterns of " +
                               std::to_string(msm::kPatternDim) + " values, not " +
                               std::to_string(shape.dimension));
    if (shape.channels < 1 || shape.channels > msm::kMaxChannels)
        return argumentFailure(list + ": pattern channels " + std::to_string(shape.channels) +
                               ": expected 1.." + std::to_string(msm::kMaxChannels));
    std::unique_ptr<ConstraintSpaces> out(new (std::nothrow) ConstraintSpaces);
    if (out != nullptr)
        out->loader_.reset(new (std::nothrow) MWMSMRecognition(shape.dimension, shape.channels));
    if (out == nullptr || out->loader_ == nullptr) return noMemory(list);
    MWMSMRecognition& loader = *out->loader_;
    if (loader.ReadConstraintList(listPath.c_str()) != 1)
        return Status::failure(ErrorKind::File,
                               list + ": cannot be read, or is not a list of constraint spaces");
    const int status = loader.LoadConstraintSpaces();
    if (status < 1)
        return Status::failure(ErrorKind::File, list + ": the files of its spaces did not load (" +
                                                    std::to_string(status) + ")");
    return out;
}

std::vector<const ConstraintSpace*> ConstraintSpaces::spaces() const {
    std::vector<const ConstraintSpace*> out;
    for (int s = 0; s < loader_->spaceCount; ++s) out.push_back(&loader_->spaces[s]);
    return out;
}

}  // namespace msmface::core
