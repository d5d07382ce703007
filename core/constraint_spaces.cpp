#include "core/constraint_spaces.h"

#include <algorithm>
#include <new>

#include "core/status.h"
#include "io/small_text_file.h"
#include "recognition/MSMRecognition.h"
#include "recognition/constraint_space.h"
#include "recognition/constraint_space_loader.h"

namespace msmface::core {

ConstraintSpaces::ConstraintSpaces() = default;
ConstraintSpaces::~ConstraintSpaces() = default;

Result<std::unique_ptr<ConstraintSpaces>> ConstraintSpaces::load(const std::string& listPath,
                                                                 PatternShape shape) {
    const std::string list = "constraint list " + detail::quoteForMessage(listPath, 4096);
    // A space's eigenvalues are kept per channel in rows of the engine's pattern length.
    if (shape.dimension < 1 || shape.dimension > msm::kPatternDim)
        return argumentFailure(list + ": spaces are read for patterns of 1.." +
                               std::to_string(msm::kPatternDim) + " values, not " +
                               std::to_string(shape.dimension));
    if (shape.channels < 1 || shape.channels > msm::kMaxChannels)
        return argumentFailure(list + ": pattern channels " + std::to_string(shape.channels) +
                               ": expected 1.." + std::to_string(msm::kMaxChannels));
    std::unique_ptr<ConstraintSpaces> out(new (std::nothrow) ConstraintSpaces);
    if (out == nullptr) return noMemory(list);
    msm::ConstraintList parsed;
    if (msm::readConstraintList(listPath.c_str(), parsed) != msm::ListRead::Accepted)
        return Status::failure(ErrorKind::File,
                               list + ": cannot be read, or is not a list of constraint spaces");
    int learned = -1;
    out->spaces_ = msm::unloadedSpaces(parsed, shape.channels, &learned);
    if (out->spaces_ == nullptr && parsed.declared > 0) return noMemory(list);
    out->count_ = std::max(parsed.declared, 0);
    // The class data of a learned space is the generation's; a recognition only needs it to read.
    const int status = msm::loadConstraintSpaces(out->spaces_.get(), out->count_, shape.channels,
                                                 msm::matrixReads, shape.dimension);
    if (status < 1)
        return Status::failure(ErrorKind::File, list + ": the files of its spaces did not load (" +
                                                    std::to_string(status) + ")");
    return out;
}

std::vector<const ConstraintSpace*> ConstraintSpaces::spaces() const {
    std::vector<const ConstraintSpace*> out;
    for (int s = 0; s < count_; ++s) out.push_back(&spaces_[s]);
    return out;
}

}  // namespace msmface::core
