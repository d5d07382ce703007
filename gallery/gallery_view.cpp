// The persons' snapshot a gallery and its streams score against: built from the persons'
// dictionary files, each read and checked once, and derived from the previous one when a person
// comes or goes.
#include <algorithm>
#include <memory>

#include "dictionary/DictChunk.h"
#include "dictionary/dictionary_check.h"
#include "gallery/gallery_impl.h"
#include "gallery/view_builder.h"
#include "store/patterns_file.h"

namespace msmface::detail {

namespace {

// Persons read per partial snapshot: their float dictionaries (some 100 KB each) are dropped
// once laid out, so a large directory never holds them all at once.
constexpr std::size_t kPersonsPerPart = 256;

std::vector<const ConstraintSpace*> spacesOf(
    const std::shared_ptr<const core::ConstraintSpaces>& s) {
    return s != nullptr ? s->spaces() : std::vector<const ConstraintSpace*>{};
}

}  // namespace

ViewBuilder::ViewBuilder(const GalleryState& state)
    : state_(state), shape_(state.settings().shape) {
    view_ = std::make_shared<GalleryView>();
    view_->spaces = loadSpaces(state, view_->spaceError, view_->spaceErrorKind);
}

ViewBuilder::ViewBuilder(const GalleryState& state,
                         std::shared_ptr<const core::ConstraintSpaces> spaces,
                         std::string spaceError, ErrorKind spaceErrorKind)
    : state_(state), shape_(state.settings().shape), view_(std::make_shared<GalleryView>()) {
    view_->spaces = std::move(spaces);
    view_->spaceError = std::move(spaceError);
    view_->spaceErrorKind = spaceErrorKind;
}

ViewBuilder::~ViewBuilder() = default;

std::string ViewBuilder::add(const Person& p) {
    auto chunk = std::make_unique<DictChunk>();
    const std::string problem =
        msm::loadDictionaryFile(state_.dir + "/" + p.name + ".dck", personShapeOf(state_.kind),
                                msm::kRecognisedVectors, *chunk);
    if (!problem.empty()) return problem;
    pending_.push_back(std::move(chunk));
    view_->persons.push_back(p);
    if (pending_.size() == kPersonsPerPart) return flush();
    return {};
}

std::string ViewBuilder::flush() {
    if (pending_.empty() && !parts_.empty()) return {};
    std::vector<const DictChunk*> persons;
    for (const auto& chunk : pending_) persons.push_back(chunk.get());
    auto part =
        core::Snapshot::build(shape_, state_.settings().snapshot, persons, spacesOf(view_->spaces));
    pending_.clear();
    if (!part.ok()) return state_.dir + ": " + part.message();
    parts_.push_back(std::move(*part));
    return {};
}

Result<std::shared_ptr<GalleryView>> ViewBuilder::finish() {
    const std::string error = flush();
    if (!error.empty()) return Status::failure(ErrorKind::Internal, error);
    if (parts_.size() == 1) {
        view_->snapshot = parts_.front();
    } else {
        std::vector<core::Snapshot::PersonSource> sources;
        for (const auto& part : parts_)
            for (int p = 0; p < part->personCount(); ++p) sources.push_back({part.get(), p});
        auto whole = core::Snapshot::combine(sources, *parts_.front());
        if (!whole.ok()) return Status::failure(ErrorKind::Internal, whole.message());
        view_->snapshot = std::move(*whole);
    }
    parts_.clear();
    if (view_->spaces != nullptr) view_->spaceError.clear();
    return view_;
}

Result<std::shared_ptr<GalleryView>> viewWith(const GalleryState& state,
                                              const GalleryView& previous, const Person& added) {
    ViewBuilder one(state, previous.spaces, previous.spaceError, previous.spaceErrorKind);
    const std::string problem = one.add(added);
    if (!problem.empty()) return Status::failure(ErrorKind::File, problem);
    auto fresh = one.finish();
    if (!fresh.ok()) return fresh;
    const core::Snapshot& newcomer = *(*fresh)->snapshot;
    std::vector<core::Snapshot::PersonSource> sources;
    for (int p = 0; p < previous.snapshot->personCount(); ++p)
        sources.push_back({previous.snapshot.get(), p});
    sources.push_back({&newcomer, 0});
    auto whole = core::Snapshot::combine(sources, newcomer);
    if (!whole.ok()) return Status::failure(ErrorKind::Internal, whole.message());
    auto view = std::make_shared<GalleryView>(previous);
    view->persons.push_back(added);
    view->snapshot = std::move(*whole);
    return view;
}

Result<std::shared_ptr<GalleryView>> viewWithout(const GalleryView& previous, int removedId) {
    auto view = std::make_shared<GalleryView>(previous);
    std::vector<core::Snapshot::PersonSource> sources;
    view->persons.clear();
    for (std::size_t p = 0; p < previous.persons.size(); ++p) {
        if (previous.persons[p].id == removedId) continue;
        view->persons.push_back(previous.persons[p]);
        sources.push_back({previous.snapshot.get(), static_cast<int>(p)});
    }
    auto whole = core::Snapshot::combine(sources, *previous.snapshot);
    if (!whole.ok()) return Status::failure(ErrorKind::Internal, whole.message());
    view->snapshot = std::move(*whole);
    return view;
}

Result<std::shared_ptr<GalleryView>> viewWithSpaces(const GalleryState& state,
                                                    const GalleryView& previous) {
    // Every person is projected into the new spaces from its dictionary: read once more.
    ViewBuilder builder(state);
    for (const Person& p : previous.persons) {
        const std::string problem = builder.add(p);
        if (!problem.empty()) return Status::failure(ErrorKind::File, problem);
    }
    return builder.finish();
}

void publishView(GalleryState& state, std::shared_ptr<GalleryView> view, bool personsChanged) {
    if (personsChanged || state.view == nullptr)
        view->personsRevision = state.newRevision();
    else
        view->personsRevision = state.view->personsRevision;
    state.view = std::move(view);
}

}  // namespace msmface::detail
