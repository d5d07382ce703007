// The directory's constraint space as a recogniser loads it: the list, checked to be this
// directory's own, and the spaces it names.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "dictionary/dictionary_check.h"
#include "gallery/gallery_impl.h"
#include "gallery/memory_file.h"
#include "numeric/diagnostics.h"
#include "recognition/constraint_list.h"
#include "store/patterns_file.h"
#include "store/store_files.h"

namespace msmface {

namespace {

bool namesBareStems(const msm::ConstraintList& list) {
    for (const msm::ConstraintListEntry& e : list.entries)
        for (const std::string* stem : {&e.stem, &e.stem2})
            if (!stem->empty() && stem->find('/') == std::string::npos) return true;
    return false;
}

// The list's text with its bare names placed in folder.
std::string constraintListText(const msm::ConstraintList& list, const std::string& folder) {
    const auto placed = [&folder](const std::string& stem) {
        return stem.find('/') == std::string::npos ? folder + "/" + stem : stem;
    };
    std::string text =
        std::to_string(list.entries.size()) + "\n" + std::to_string(list.selected + 1) + "\n";
    for (const msm::ConstraintListEntry& e : list.entries) {
        const std::string dimension = std::to_string(e.dimension);
        if (e.kind == msm::kKindFile)
            text += "CMSMF " + placed(e.stem) + " " + dimension + "\n";
        else if (e.kind == msm::kKindLearned)
            text += "CMSML " + placed(e.stem) + " " + dimension + " " + placed(e.stem2) + "\n";
        else
            text += "MSM\n";
    }
    return text;
}

// Empty, or the first file of the list's spaces that does not hold a valid basis or eigenvalues. A
// list that does not read is left to the recogniser, which says so.
std::string checkConstraintFiles(const std::string& dir, const std::string& list,
                                 PatternKind kind) {
    msm::ConstraintList parsed;
    {
        msm::DiagnosticCapture quiet;
        if (msm::readConstraintList(list.c_str(), parsed) != msm::ListRead::Accepted) return {};
    }
    // A bare stem is one of the directory's own files.
    const auto at = [&](const std::string& stem) {
        return stem.find('/') == std::string::npos ? dir + "/" + stem : stem;
    };
    for (const msm::ConstraintListEntry& e : parsed.entries) {
        if (e.kind != msm::kKindFile && e.kind != msm::kKindLearned) continue;
        const msm::DictionaryShape basis = detail::constraintBasisShapeOf(kind);
        std::string problem = msm::checkDictionaryFile(at(e.stem) + ".dck", basis);
        if (problem.empty())
            problem = msm::checkDictionaryFile(at(e.stem) + ".dckev",
                                               detail::constraintValuesShapeOf(kind));
        if (problem.empty() && e.kind == msm::kKindLearned && e.stem2 != e.stem)
            problem = msm::checkDictionaryFile(at(e.stem2) + ".dck", basis);
        if (!problem.empty()) return problem;
    }
    return {};
}

}  // namespace

namespace detail {

std::string constraintListPath(const std::string& dir) {
    return dir + "/" + kConstraintListFileName;
}

bool hasConstraintList(const std::string& dir) {
    return exists(constraintListPath(dir));
}

std::string engineFolder(const GalleryState& state) {
    const std::string here = absolute(state.dir);
    if (!hasBlank(here) || !state.folder.valid()) return here;
    return "/proc/self/fd/" + std::to_string(state.folder.get());
}

namespace {

// The list to load checked: empty, or why its spaces cannot load. Where the list names bare
// stems, placed holds it with them placed in the directory and path names that copy.
std::string prepareList(const GalleryState& state, std::optional<MemoryFile>& placed,
                        std::string& path) {
    const std::string& dir = state.dir;
    const std::string list = constraintListPath(dir);
    path = list;
    if (!hasConstraintList(dir))
        return dir + ": no constraint space yet (build one with Gallery::rebuildConstraint)";
    const std::string problem = msm::constraintListProblem(dir);
    if (!problem.empty()) return problem;
    const std::string invalid = checkConstraintFiles(dir, list, state.kind);
    if (!invalid.empty())
        return list + ": the constraint space does not load (" + invalid +
               "); rebuild it with Gallery::rebuildConstraint";
    msm::DiagnosticCapture quiet;
    msm::ConstraintList parsed;
    if (msm::readConstraintList(list.c_str(), parsed) == msm::ListRead::Accepted &&
        namesBareStems(parsed)) {
        placed.emplace(constraintListText(parsed, engineFolder(state)));
        if (!placed->ok())
            return list + ": cannot be read (" + std::strerror(placed->error()) + ")";
        path = placed->path();
    }
    return {};
}

}  // namespace

std::shared_ptr<const core::ConstraintSpaces> loadSpaces(const GalleryState& state,
                                                         std::string& error, ErrorKind& kind) {
    const std::string list = constraintListPath(state.dir);
    kind = hasConstraintList(state.dir) ? ErrorKind::File : ErrorKind::NotFound;
    std::optional<MemoryFile> placed;
    std::string path;
    error = prepareList(state, placed, path);
    if (!error.empty()) return nullptr;
    msm::DiagnosticCapture quiet;
    auto spaces = core::ConstraintSpaces::load(path, state.settings().shape);
    if (!spaces.ok()) {
        error = list + ": the constraint space does not load (" + spaces.message() +
                "); rebuild it with Gallery::rebuildConstraint";
        return nullptr;
    }
    if ((*spaces)->spaces().empty()) {
        error = list + ": names no constraint space; rebuild it with Gallery::rebuildConstraint";
        return nullptr;
    }
    return std::shared_ptr<const core::ConstraintSpaces>(std::move(*spaces));
}

}  // namespace detail

}  // namespace msmface
