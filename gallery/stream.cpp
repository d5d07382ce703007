// A Stream: one camera's frame cycle over a gallery's persons: an input of its own scored
// against the gallery's shared snapshot.
#include <algorithm>
#include <mutex>

#include "gallery/face_reader.h"
#include "gallery/frame_input.h"
#include "gallery/gallery_impl.h"
#include "recognition/descriptor_patterns.h"

namespace msmface {

using detail::fail;
using detail::GalleryState;

namespace {

bool usesConstraint(Method m) {
    return m == Method::CmsmFirstSpace || m == Method::Cmsm;
}

}  // namespace

// The legacy engine's face-less frames before its input is cleared, for refreshTime -2.
constexpr int kLegacyRefreshTime = 5;

class Stream::Impl {
  public:
    // Throws std::bad_alloc.
    Impl(std::shared_ptr<GalleryState> shared, const StreamOptions& o, const core::Snapshot& like)
        : state(std::move(shared)),
          options(o),
          refreshTime(o.refreshTime == -2 ? kLegacyRefreshTime : o.refreshTime) {
        // A gallery of descriptors normalises no face.
        if (state->kind == PatternKind::Seed)
            reader = std::make_unique<detail::FaceReader>(like.shape());
    }

    // True when the gallery, or another process, changed the directory since this stream took
    // its view.
    bool galleryChanged() const {
        return state->generation.load() != loadedGeneration || msm::stampOf(state->dir) != stamp;
    }
    // At a frame boundary: takes the gallery's newest view when the directory changed. While
    // another process is writing it, the stream goes on with the view it has and tries again at
    // the next frame.
    Status reloadIfChanged();
    // requires: the directory's lock is held (shared).
    Status reload();

    Result<StreamState> faceFrame(const FrameView& frame, const FacePoints& points);
    // A face given by the patterns of its channels.
    Result<StreamState> patternFrame(const float* const* patterns);
    // A face given by its descriptor; fails (Argument) on values that are no descriptor.
    Result<StreamState> descriptorFrame(const FaceDescriptor& descriptor, const char* from);
    StreamState facelessFrame();
    // Fails (Argument) unless the gallery holds this kind of pattern; call names the push.
    Status requireKind(PatternKind kind, const char* call) const;
    void clearRanking() {
        ranking = Ranking{};
        ranking.threshold = threshold;
    }

    std::shared_ptr<GalleryState> state;
    StreamOptions options;
    int refreshTime;
    std::shared_ptr<const detail::GalleryView> view;  // null until a view could be used
    std::unique_ptr<core::Input> input;
    std::unique_ptr<detail::FaceReader> reader;  // Seed patterns only
    int facelessRun = 0;                         // face-less frames in a row
    int threshold = kDefaultIdentifyThreshold;
    uint64_t loadedGeneration = 0;
    uint64_t personsRevision = 0;
    msm::DirectoryStamp stamp;
    Ranking ranking;
};

Status Stream::Impl::reloadIfChanged() {
    // Recognising on against persons whose directory was deleted would hide that from the host.
    Status present = detail::checkDirectoryPresent(state->dir);
    if (!present.ok()) return present;
    if (view != nullptr && !galleryChanged()) return {};
    msm::DirectoryLock directoryLock;
    // A stream must not stall its camera behind another process's enrolment: it asks without
    // waiting once it has persons to go on with.
    LockOptions how;
    how.wait = view == nullptr;
    Status status = detail::lockDirectory(state->dir, msm::LockMode::Shared, how, directoryLock);
    if (!status.ok())
        return view != nullptr && status.kind() == ErrorKind::Busy ? Status() : status;
    return reload();
}

Status Stream::Impl::reload() {
    std::string error;
    bool stale = false;
    {
        std::shared_lock<std::shared_mutex> reading(state->mutex);
        stale = msm::stampOf(state->dir) != state->stamp;
    }
    if (stale) {
        // Another process changed the directory since the gallery read it: the shared view is
        // brought up to the disk, once for the gallery and all its streams.
        std::unique_lock<std::shared_mutex> writing(state->mutex);
        error = detail::refreshFromDisk(*state);
    }
    std::shared_lock<std::shared_mutex> lock(state->mutex);
    const std::shared_ptr<const detail::GalleryView> next = state->view;
    if (error.empty() && usesConstraint(options.method) && !next->persons.empty() &&
        next->snapshot->spaceCount() == 0) {
        // Nothing half-loaded is used: the stream recognises no one until a reload succeeds.
        view.reset();
        clearRanking();
        return fail(next->spaceErrorKind, next->spaceError);
    }
    if (!error.empty()) {
        view.reset();
        clearRanking();
        return fail(ErrorKind::File, error);
    }
    const bool personsChanged = view == nullptr || next->personsRevision != personsRevision;
    view = next;
    threshold = options.threshold >= 0 ? options.threshold : state->threshold;
    loadedGeneration = state->generation.load();
    personsRevision = next->personsRevision;
    stamp = state->stamp;
    // The last ranking may name persons who are gone; the next face ranks afresh.
    if (personsChanged) ranking = Ranking{};
    ranking.threshold = threshold;
    return {};
}

Status Stream::Impl::requireKind(PatternKind kind, const char* call) const {
    if (state->kind == kind) return {};
    return fail(ErrorKind::Argument, std::string(call) + ": " + state->dir + " holds " +
                                         patternKindName(state->kind) + " patterns, this call " +
                                         "gives " + patternKindName(kind) + " patterns");
}

Result<StreamState> Stream::Impl::faceFrame(const FrameView& frame, const FacePoints& points) {
    const detail::FaceRead read = reader->read(frame, points);
    if (read == detail::FaceRead::NoMemory)
        return fail(ErrorKind::Internal, "frame: no memory for " + std::to_string(frame.width) +
                                             " x " + std::to_string(frame.height) + " pixels");
    if (read == detail::FaceRead::NoFace) return facelessFrame();
    return patternFrame(reader->patterns());
}

Result<StreamState> Stream::Impl::descriptorFrame(const FaceDescriptor& descriptor,
                                                  const char* from) {
    float pattern[kDescriptorSize];
    const std::string error = msm::descriptorPattern(descriptor, pattern);
    if (!error.empty()) return fail(ErrorKind::Argument, std::string(from) + error);
    const float* const rows[] = {pattern};
    return patternFrame(rows);
}

Result<StreamState> Stream::Impl::patternFrame(const float* const* patterns) {
    facelessRun = 0;
    StreamState s;
    s.face = true;
    const int n = view != nullptr ? static_cast<int>(view->persons.size()) : 0;
    // As the legacy frame cycle: without persons the face is not gathered.
    if (n > 0) {
        input->update(patterns);
        Status scored = core::score(*view->snapshot, *input, detail::coreMethod(options.method));
        if (!scored.ok()) return scored;
        ranking = detail::rankingOf(view->persons, detail::scoresOf(*input, n), threshold);
        ranking.framesUsed = input->frameCount();
    }
    s.frames = input->frameCount();
    s.ranking = ranking;
    return s;
}

StreamState Stream::Impl::facelessFrame() {
    ++facelessRun;
    if (refreshTime >= 0 && facelessRun > refreshTime) {
        input->refresh();
        // The legacy count goes on rising while faces stay away.
        ++facelessRun;
    }
    StreamState s;
    s.frames = input->frameCount();
    // The input was cleared after the refresh time: what it knew is gone.
    if (s.frames == 0) clearRanking();
    s.ranking = ranking;
    return s;
}

Stream::Stream(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Stream::Stream(Stream&&) noexcept = default;
Stream& Stream::operator=(Stream&&) noexcept = default;
Stream::~Stream() = default;

Result<Stream> Stream::create(Gallery& gallery, const StreamOptions& options) {
    return create(gallery.impl_->state, options);
}

Result<Stream> Stream::create(std::shared_ptr<GalleryState> state, const StreamOptions& options) {
    std::string error = detail::checkMethod(options.method);
    if (error.empty()) error = detail::checkThresholdOption(options.threshold);
    if (error.empty() && options.refreshTime < -2)
        error = "refreshTime " + std::to_string(options.refreshTime) +
                ": expected 0 or more face-less frames, -1 (never clear) or -2 (the engine's)";
    if (!error.empty()) return fail(ErrorKind::Argument, error);
    std::shared_ptr<const detail::GalleryView> view;
    {
        std::shared_lock<std::shared_mutex> lock(state->mutex);
        view = state->view;
    }
    const core::Snapshot& like = *view->snapshot;
    auto input = core::Input::create(like, state->settings().input);
    if (!input.ok()) return input.status();
    std::unique_ptr<Impl> impl;
    try {
        impl = std::make_unique<Impl>(state, options, like);
    } catch (const std::bad_alloc&) {
        return fail(ErrorKind::Internal, "out of memory for a stream");
    }
    impl->input = std::move(*input);
    Status status = impl->reloadIfChanged();
    if (!status.ok()) return status;
    return Stream(std::move(impl));
}

Result<StreamState> Stream::push(const FrameView& frame, const FacePoints& points) {
    Impl& s = *impl_;
    Status status = s.requireKind(PatternKind::Seed, "push(frame, points)");
    if (!status.ok()) return status;
    const std::string error = detail::checkFrame(frame);
    if (!error.empty()) return fail(ErrorKind::Argument, "frame: " + error);
    status = s.reloadIfChanged();
    if (!status.ok()) return status;
    return s.faceFrame(frame, points);
}

Result<StreamState> Stream::push(const FrameView& frame) {
    Impl& s = *impl_;
    const std::string error = detail::checkFrame(frame);
    if (!error.empty()) return fail(ErrorKind::Argument, "frame: " + error);
    Status status = s.reloadIfChanged();
    if (!status.ok()) return status;
    if (s.state->kind == PatternKind::Descriptor) {
        FaceDescriptor descriptor;
        if (s.options.describer && s.options.describer->findDescriptor(frame, descriptor))
            return s.descriptorFrame(descriptor, "frame: the descriptor finder gave ");
        return s.facelessFrame();
    }
    FacePoints points;
    if (s.options.finder && s.options.finder->findPoints(frame, points))
        return s.faceFrame(frame, points);
    return s.facelessFrame();
}

Result<StreamState> Stream::push(const FaceDescriptor& descriptor) {
    Impl& s = *impl_;
    Status status = s.requireKind(PatternKind::Descriptor, "push(descriptor)");
    if (!status.ok()) return status;
    status = s.reloadIfChanged();
    if (!status.ok()) return status;
    return s.descriptorFrame(descriptor, "");
}

Result<StreamState> Stream::pushWithoutFace() {
    Impl& s = *impl_;
    Status status = s.reloadIfChanged();
    if (!status.ok()) return status;
    return s.facelessFrame();
}

void Stream::reset() {
    Impl& s = *impl_;
    s.input->refresh();
    s.facelessRun = 0;
    s.clearRanking();
    if (s.options.finder) s.options.finder->reset();
    if (s.options.describer) s.options.describer->reset();
}

}  // namespace msmface
