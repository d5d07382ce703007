// A Stream: one camera's frame cycle over a gallery's persons, in an engine of its own.
#include <algorithm>
#include <mutex>

#include "gallery/frame_input.h"
#include "gallery/gallery_impl.h"
#include "numeric/diagnostics.h"

namespace msmface {

using detail::fail;
using detail::GalleryState;

namespace {

bool usesConstraint(Method m) {
    return m == Method::CmsmFirstSpace || m == Method::Cmsm;
}

}  // namespace

class Stream::Impl {
  public:
    Impl(std::shared_ptr<GalleryState> shared, const StreamOptions& o)
        : state(std::move(shared)),
          options(o),
          engine(std::make_unique<FaceRecognition>(detail::kDefaultFrameWidth,
                                                   detail::kDefaultFrameHeight)) {
        engine->Set_recognitionmethod(detail::engineMethod(options.method));
        if (options.refreshTime != -2) engine->Set_RefreshTime(options.refreshTime);
        engine->Set_RecogORRegist(1);
    }

    // True when the gallery, or another process, changed the directory since this stream loaded
    // its persons.
    bool galleryChanged() const {
        return state->generation.load() != loadedGeneration || msm::stampOf(state->dir) != stamp;
    }
    // At a frame boundary: reloads when the directory changed. While another process is writing
    // it, the stream goes on with the persons it has and tries again at the next frame.
    Status reloadIfChanged();
    // Copies the gallery's persons and threshold and loads their dictionaries (and the
    // constraint space for its methods) into the engine, which keeps its current input: the face
    // in front of the camera goes on being recognised against the new persons. Only what changed
    // is loaded: nothing for a new threshold, the new persons' files after an enrolment.
    Status reload();
    // The engine's database brought to next: removed persons dropped, new ones read.
    std::string updatePersons(const std::vector<Person>& next,
                              const std::vector<uint64_t>& nextSerials);

    Result<StreamState> faceFrame(const FrameView& frame, const FacePoints& points);
    StreamState facelessFrame();
    void updateRanking();

    std::shared_ptr<GalleryState> state;
    StreamOptions options;
    std::unique_ptr<FaceRecognition> engine;
    detail::PersonTable table;
    std::vector<Person> persons;  // inside-number order of the engine
    std::vector<uint64_t> serials;
    int threshold = kDefaultIdentifyThreshold;
    uint64_t constraintRevision = 0;
    uint64_t loadedGeneration = 0;
    msm::DirectoryStamp stamp;
    bool loaded = false;
    Ranking ranking;
    BasicImageFile image;
    BasicImageFile face{detail::kFaceSide, detail::kFaceSide, 8};
};

Status Stream::Impl::reloadIfChanged() {
    // Recognising on against persons whose directory was deleted would hide that from the host.
    Status present = detail::checkDirectoryPresent(state->dir);
    if (!present.ok()) return present;
    if (loaded && !galleryChanged()) return {};
    msm::DirectoryLock directoryLock;
    // A stream must not stall its camera behind another process's enrolment: it asks without
    // waiting once it has persons to go on with.
    LockOptions how;
    how.wait = !loaded;
    Status status = detail::lockDirectory(state->dir, msm::LockMode::Shared, how, directoryLock);
    if (!status.ok()) return loaded && status.kind() == ErrorKind::Busy ? Status() : status;
    return reload();
}

// requires: the directory's lock is held (shared).
Status Stream::Impl::reload() {
    std::string error;
    bool stale = false;
    {
        std::shared_lock<std::shared_mutex> reading(state->mutex);
        stale = msm::stampOf(state->dir) != state->stamp;
    }
    if (stale) {
        // Another process changed the directory since the gallery read it: the shared list is
        // brought up to the disk, once for the gallery and all its streams.
        std::unique_lock<std::shared_mutex> writing(state->mutex);
        error = detail::refreshFromDisk(*state);
    }
    std::shared_lock<std::shared_mutex> lock(state->mutex);
    const uint64_t generation = state->generation.load();
    const bool personsChanged = !loaded || state->serials != serials;
    const bool spaceChanged = usesConstraint(options.method) &&
                              (personsChanged || state->constraintRevision != constraintRevision);
    if (error.empty() && personsChanged) error = updatePersons(state->persons, state->serials);
    if (error.empty() && spaceChanged && !persons.empty())
        error = detail::loadConstraintSpace(*engine, *state);
    if (!error.empty()) {
        // Nothing half-loaded is used: the stream recognises no one until a reload succeeds.
        detail::loadPersons(*engine, state->dir, {}, table);
        persons.clear();
        serials.clear();
        ranking = Ranking{};
        loaded = false;
        const bool missingSpace =
            usesConstraint(options.method) && !detail::hasConstraintList(state->dir);
        return fail(missingSpace ? ErrorKind::NotFound : ErrorKind::File, error);
    }
    engine->Set_recognitionmethod(detail::engineMethod(options.method));
    engine->Set_RecognitionResultMode(1, std::max(static_cast<int>(persons.size()), 10));
    threshold = options.threshold >= 0 ? options.threshold : state->threshold;
    constraintRevision = state->constraintRevision;
    loadedGeneration = generation;
    stamp = state->stamp;
    loaded = true;
    if (personsChanged) {
        // The last ranking may name persons who are gone; the next face ranks afresh.
        ranking = Ranking{};
    }
    ranking.threshold = threshold;
    return {};
}

std::string Stream::Impl::updatePersons(const std::vector<Person>& next,
                                        const std::vector<uint64_t>& nextSerials) {
    // The gallery removes persons from anywhere and appends new ones at the end; anything else
    // (a first load, a reload after a failure) reads every dictionary again.
    std::vector<bool> kept(serials.size(), false);
    std::size_t keptCount = 0;
    for (std::size_t i = 0; i < serials.size(); ++i) {
        kept[i] =
            std::find(nextSerials.begin(), nextSerials.end(), serials[i]) != nextSerials.end();
        keptCount += kept[i] ? 1 : 0;
    }
    bool incremental = loaded && keptCount <= nextSerials.size();
    for (std::size_t i = 0, k = 0; incremental && i < serials.size(); ++i)
        if (kept[i]) incremental = nextSerials[k++] == serials[i];
    if (!incremental) {
        std::string error = detail::loadPersons(*engine, state->dir, next, table);
        if (error.empty()) {
            persons = next;
            serials = nextSerials;
        }
        return error;
    }
    IDDatabase& db = *engine->idDatabase;
    for (std::size_t i = serials.size(); i-- > 0;) {
        if (kept[i]) continue;
        // The database closes up its dictionaries; the record table is ours to close up.
        const int inside = static_cast<int>(i);
        const int before = db.count;
        db.RemoveIdFromDictionary(inside, false);
        for (int p = inside; p + 1 < before; ++p) db.humanIds[p] = db.humanIds[p + 1];
        db.humanIds[before - 1] = nullptr;
    }
    for (std::size_t i = keptCount; i < next.size(); ++i) db.AddNewDictionary(table.add(next[i]));
    persons = next;
    serials = nextSerials;
    int read = 1;
    if (keptCount < next.size()) {
        msm::DiagnosticCapture quiet;
        read = db.ReadIdDictionaries();
    }
    return read == 1 ? std::string() : state->dir + ": the persons' dictionaries do not load";
}

void Stream::Impl::updateRanking() {
    const int n = static_cast<int>(persons.size());
    ranking = detail::rankingOf(persons, detail::currentScores(*engine, n), threshold);
    ranking.framesUsed = engine->GetMulCount();
}

Result<StreamState> Stream::Impl::faceFrame(const FrameView& frame, const FacePoints& points) {
    if (!detail::toGrey(frame, image))
        return fail(ErrorKind::Internal, "frame: no memory for " + std::to_string(frame.width) +
                                             " x " + std::to_string(frame.height) + " pixels");
    PartsPosition parts = toPartsPosition(points);
    if (!anyPointPresent(parts) ||
        engine->FaceCropping(&image, nullptr, &parts, &face) != 1)
        return facelessFrame();
    StreamState s;
    s.face = true;
    if (engine->FrameProcess(2) == 13) updateRanking();
    s.frames = engine->GetMulCount();
    s.ranking = ranking;
    return s;
}

StreamState Stream::Impl::facelessFrame() {
    engine->FrameProcess(0);
    StreamState s;
    s.frames = engine->GetMulCount();
    if (s.frames == 0) {
        // The engine cleared its input after the refresh time: what it knew is gone.
        ranking = Ranking{};
        ranking.threshold = threshold;
    }
    s.ranking = ranking;
    return s;
}

Stream::Stream(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Stream::Stream(Stream&&) noexcept = default;
Stream& Stream::operator=(Stream&&) noexcept = default;
Stream::~Stream() = default;

Result<Stream> Stream::create(Gallery& gallery, const StreamOptions& options) {
    std::string error = detail::checkMethod(options.method);
    if (error.empty()) error = detail::checkThresholdOption(options.threshold);
    if (error.empty() && options.refreshTime < -2)
        error = "refreshTime " + std::to_string(options.refreshTime) +
                ": expected 0 or more face-less frames, -1 (never clear) or -2 (the engine's)";
    if (!error.empty()) return fail(ErrorKind::Argument, error);
    auto impl = std::make_unique<Impl>(gallery.impl_->state, options);
    Status status = impl->reloadIfChanged();
    if (!status.ok()) return status;
    return Stream(std::move(impl));
}

Result<StreamState> Stream::push(const FrameView& frame, const FacePoints& points) {
    Impl& s = *impl_;
    const std::string error = detail::checkFrame(frame);
    if (!error.empty()) return fail(ErrorKind::Argument, "frame: " + error);
    Status status = s.reloadIfChanged();
    if (!status.ok()) return status;
    return s.faceFrame(frame, points);
}

Result<StreamState> Stream::push(const FrameView& frame) {
    Impl& s = *impl_;
    const std::string error = detail::checkFrame(frame);
    if (!error.empty()) return fail(ErrorKind::Argument, "frame: " + error);
    Status status = s.reloadIfChanged();
    if (!status.ok()) return status;
    FacePoints points;
    if (s.options.finder && s.options.finder->findPoints(frame, points))
        return s.faceFrame(frame, points);
    return s.facelessFrame();
}

void Stream::reset() {
    Impl& s = *impl_;
    s.engine->Refresh_input();
    s.engine->Set_NullFrames(0);
    s.ranking = Ranking{};
    s.ranking.threshold = s.threshold;
    if (s.options.finder) s.options.finder->reset();
}

}  // namespace msmface
