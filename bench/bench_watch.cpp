// msmface watch's pipeline on a 640 x 480 video against a gallery of 100 persons: the face
// followed by the detector's Follower and the frame pushed through a Stream, per frame; and the
// same frame's parts on their own (full detection, a followed frame's landmarks, the stream's
// normalisation and recognition with known points, against 1 and against 100 persons), so that
// the whole can be read as the sum of its parts. CPU times are the whole process's (OpenCV and
// FFmpeg may work on threads of their own); run it on one core (taskset -c 1) for the cost on one
// core, which the wall time also shows when the machine is otherwise idle.
//
// The video: one person of ../shared/faces, four of the person's frames each enlarged into a
// 640 x 480 frame and held for a second while it drifts by half a pixel per frame, as a camera
// would see a person sitting still; the three cuts between them cost a detection each. The gallery:
// 100 synthetic persons (tools/synth), kept between runs in the working folder
// (bench-watch-gallery/), as enrolling them takes a minute.
//
// Every face at once: BM_Watcher runs the Watcher (tracker, descriptors on one or two threads,
// recognition of every track) on videos of 1, 3 and 6 persons side by side, and BM_TrackerGroup
// the tracker alone on them, so that the share of describing and recognising can be read off.
#include <benchmark/benchmark.h>

#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <msmface/detect.h>
#include <msmface/gallery.h>
#include <msmface/tracker.h>
#include <msmface/watcher.h>
#ifdef MSMFACE_BENCH_DESCRIPTOR
#include <random>

#include <msmface/descriptor.h>
#endif
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/shared_faces.h"
#include "support/synth_frames.h"

namespace {

constexpr int kPersons = 100;
constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kHold = 25;   // video frames per still of the person: one second each
constexpr int kStills = 4;  // stills taken; a cut between two makes the follower detect afresh
const char* const kIdentity = "Amy_Brenneman";

// A view of a video frame (8-bit BGR) for the library; valid while the frame is.
msmface::FrameView viewOf(const cv::Mat& frame) {
    return {frame.data, frame.cols, frame.rows, static_cast<int>(frame.step[0]),
            msmface::PixelFormat::BGR};
}

std::vector<cv::Mat> makeVideo() {
    std::string error;
    std::vector<cv::Mat> video;
    int stills = 0;
    for (const msmbench::FaceRow& row : msmbench::readFaceManifest(error)) {
        if (row.identity != kIdentity || stills == kStills) continue;
        cv::Mat still = cv::imread(msmbench::facesFolder() + "/" + row.image, cv::IMREAD_COLOR);
        if (still.empty()) continue;
        ++stills;
        // The face at about twice its size, as a webcam at arm's length shows it.
        const double scale =
            0.9 * std::min(double(kHeight) / still.rows, double(kWidth) / still.cols);
        cv::resize(still, still, cv::Size(), scale, scale, cv::INTER_LINEAR);
        for (int k = 0; k < kHold; ++k) {
            cv::Mat frame(kHeight, kWidth, CV_8UC3, cv::Scalar(90, 100, 110));
            const int x = (kWidth - still.cols) / 2 + k / 2, y = (kHeight - still.rows) / 2 + k / 4;
            still.copyTo(frame(cv::Rect(x, y, still.cols, still.rows)));
            video.push_back(frame);
        }
    }
    return video;
}

// Enrols the synthetic persons once; later runs reopen the folder.
msmface::Result<msmface::Gallery> openGallery(const std::string& dir, int persons) {
    msmface::Result<msmface::Gallery> g = msmface::Gallery::open(dir, msmface::OpenOptions{true});
    if (!g) return g;
    for (int i = static_cast<int>(g->persons().size()); i < persons; ++i) {
        const std::vector<msmsynth::SynthFrame> rendered = msmbench::takeOf(11, i, 900 + i, 60);
        msmface::Status st =
            g->enrol(i + 1, "synth" + std::to_string(i + 1), msmbench::samplesOf(rendered));
        if (!st) return st;
    }
    return g;
}

// What every benchmark shares, made on first use.
struct Fixture {
    std::vector<cv::Mat> video;
    std::unique_ptr<msmface::Detector> detector;
    std::unique_ptr<msmface::Gallery> gallery;    // kPersons persons
    std::unique_ptr<msmface::Gallery> onePerson;  // the first of them only
    std::vector<msmface::FacePoints> points;      // the followed points of every frame
    std::string error;

    Fixture() {
        video = makeVideo();
        if (video.empty()) {
            error = "../shared/faces is absent";
            return;
        }
        msmface::Result<msmface::Detector> d = msmface::Detector::create();
        if (!d) {
            error = d.message();
            return;
        }
        detector = std::make_unique<msmface::Detector>(std::move(d).value());
        msmface::Result<msmface::Gallery> g = openGallery("bench-watch-gallery", kPersons);
        msmface::Result<msmface::Gallery> one = openGallery("bench-watch-gallery-1", 1);
        if (!g || !one) {
            error = !g ? g.message() : one.message();
            return;
        }
        gallery = std::make_unique<msmface::Gallery>(std::move(g).value());
        onePerson = std::make_unique<msmface::Gallery>(std::move(one).value());
        msmface::Follower follower(*detector);
        for (const cv::Mat& f : video) {
            msmface::FacePoints p;
            if (follower.findPoints(viewOf(f), p)) points.push_back(p);
        }
        if (points.empty()) error = "the detector finds no face in the video";
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

bool ready(benchmark::State& state) {
    if (fixture().error.empty()) return true;
    state.SkipWithError(fixture().error.c_str());
    return false;
}

void setRate(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations());
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// The whole pipeline of watch, per frame: follow the face, push the frame through the stream.
void BM_WatchFrame(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    msmface::StreamOptions options;
    auto follower = std::make_shared<msmface::Follower>(*fx.detector);
    options.finder = follower;
    msmface::Result<msmface::Stream> stream = msmface::Stream::create(*fx.gallery, options);
    if (!stream) {
        state.SkipWithError(stream.message().c_str());
        return;
    }
    std::size_t k = 0;
    int faces = 0;
    for (auto _ : state) {
        msmface::Result<msmface::StreamState> s = stream->push(viewOf(fx.video[k]));
        faces += s && s->face ? 1 : 0;
        benchmark::DoNotOptimize(s);
        k = (k + 1) % fx.video.size();
    }
    setRate(state);
    state.counters["face_share"] = double(faces) / double(state.iterations());
}
BENCHMARK(BM_WatchFrame)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->MinTime(5.0);

// Full detection (faces and their landmarks) on a 640 x 480 frame: what every frame would cost
// without following.
void BM_DetectFullFrame(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    std::size_t k = 0, found = 0;
    for (auto _ : state) {
        auto faces = fx.detector->detect(viewOf(fx.video[k]));
        found += faces && !faces->empty();
        k = (k + 1) % fx.video.size();
    }
    setRate(state);
    state.counters["found"] = double(found) / double(state.iterations());
}
BENCHMARK(BM_DetectFullFrame)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

// A followed frame, with a full detection every state.range(0) frames (10: what watch uses;
// 1000: the following alone, landmarks from the previous frame's box).
void BM_FollowFrame(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    msmface::Follower follower(*fx.detector,
                               msmface::FollowerOptions{static_cast<int>(state.range(0))});
    std::size_t k = 0;
    for (auto _ : state) {
        msmface::FacePoints p;
        benchmark::DoNotOptimize(follower.findPoints(viewOf(fx.video[k]), p));
        k = (k + 1) % fx.video.size();
    }
    setRate(state);
}
BENCHMARK(BM_FollowFrame)
    ->Arg(10)
    ->Arg(1000)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

// The stream alone with known points: normalisation and recognition, against 1 or 100 persons
// (the difference is the recognition of 99 more persons).
void BM_StreamPushPoints(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    msmface::Gallery& g = state.range(0) == 1 ? *fx.onePerson : *fx.gallery;
    msmface::Result<msmface::Stream> stream = msmface::Stream::create(g, {});
    if (!stream) {
        state.SkipWithError(stream.message().c_str());
        return;
    }
    std::size_t k = 0;
    for (auto _ : state) {
        const std::size_t i = k % fx.points.size();
        benchmark::DoNotOptimize(stream->push(viewOf(fx.video[i]), fx.points[i]));
        ++k;
    }
    setRate(state);
}
BENCHMARK(BM_StreamPushPoints)
    ->Arg(1)
    ->Arg(kPersons)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

// Reading a frame of the video as watch does: an MJPG AVI decoded by OpenCV's FFmpeg backend.
void BM_DecodeFrame(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    const std::string path = "bench-watch-video.avi";
    {
        cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'),
                               25, fx.video.front().size());
        for (const cv::Mat& f : fx.video) writer.write(f);
    }
    cv::VideoCapture capture(path, cv::CAP_FFMPEG);
    cv::Mat frame;
    for (auto _ : state) {
        if (!capture.read(frame)) {
            state.PauseTiming();
            capture.open(path, cv::CAP_FFMPEG);
            state.ResumeTiming();
            capture.read(frame);
        }
        benchmark::DoNotOptimize(frame.data);
    }
    setRate(state);
}
BENCHMARK(BM_DecodeFrame)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

#ifdef MSMFACE_BENCH_DESCRIPTOR
// A gallery of descriptors: kPersons made-up persons, each a random direction with eight
// descriptors scattered about it (what recognising against them costs does not depend on whose
// faces they are), and the video's person enrolled from the first still's descriptor.
struct DescriptorFixture {
    std::unique_ptr<msmface::Gallery> gallery;
    std::unique_ptr<msmface::Descriptor> descriptor;
    std::string error;

    DescriptorFixture() {
        Fixture& fx = fixture();
        if (!fx.error.empty()) {
            error = fx.error;
            return;
        }
        msmface::Result<msmface::Descriptor> d = msmface::Descriptor::load();
        if (!d) {
            error = d.message();
            return;
        }
        descriptor = std::make_unique<msmface::Descriptor>(std::move(d).value());
        msmface::OpenOptions options;
        options.create = true;
        options.patterns = msmface::PatternKind::Descriptor;
        msmface::Result<msmface::Gallery> g =
            msmface::Gallery::open("bench-watch-descriptors", options);
        if (!g) {
            error = g.message();
            return;
        }
        std::mt19937 random(7);
        std::normal_distribution<float> normal;
        for (int i = static_cast<int>(g->persons().size()); i < kPersons; ++i) {
            msmface::FaceDescriptor centre;
            for (float& v : centre) v = normal(random);
            std::vector<msmface::Sample> samples(8);
            for (msmface::Sample& s : samples) {
                msmface::FaceDescriptor x = centre;
                for (float& v : x) v += 0.3f * normal(random);
                s.descriptor = x;
            }
            msmface::Status st = g->enrol(i + 1, "made" + std::to_string(i + 1), samples);
            if (!st) {
                error = st.message();
                return;
            }
        }
        gallery = std::make_unique<msmface::Gallery>(std::move(g).value());
    }
};

DescriptorFixture& descriptorFixture() {
    static DescriptorFixture f;
    return f;
}

// watch on a gallery of descriptors, per frame: follow the face, fit its landmarks, cut its chip,
// describe it, push the descriptor through the stream. state.range(0): a face is described every
// k-th frame only (the others are frames without a face for the stream), what a host does where
// describing every frame does not fit its frame rate.
void BM_WatchFrameDescriptors(benchmark::State& state) {
    DescriptorFixture& dx = descriptorFixture();
    if (!dx.error.empty()) {
        state.SkipWithError(dx.error.c_str());
        return;
    }
    Fixture& fx = fixture();
    msmface::Result<msmface::Descriptor> d = msmface::Descriptor::load();
    if (!d) {
        state.SkipWithError(d.message().c_str());
        return;
    }
    msmface::FaceDescriber describer(*fx.detector, std::move(d).value());
    msmface::Result<msmface::Stream> stream = msmface::Stream::create(*dx.gallery, {});
    if (!stream) {
        state.SkipWithError(stream.message().c_str());
        return;
    }
    const std::size_t every = static_cast<std::size_t>(state.range(0));
    std::size_t k = 0;
    int faces = 0;
    for (auto _ : state) {
        msmface::FaceDescriptor descriptor;
        const bool found = k % every == 0 && describer.findDescriptor(
                                                 viewOf(fx.video[k % fx.video.size()]), descriptor);
        msmface::Result<msmface::StreamState> s =
            found ? stream->push(descriptor) : stream->pushWithoutFace();
        faces += s && s->face ? 1 : 0;
        benchmark::DoNotOptimize(s);
        ++k;
    }
    setRate(state);
    state.counters["face_share"] = double(faces) / double(state.iterations());
}
BENCHMARK(BM_WatchFrameDescriptors)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(5.0);
#endif

// Several persons at once: n persons of ../shared/faces side by side in 200 x 220 tiles (one row
// of three, a second row for more), each tile showing four of the person's frames held for a
// second while they drift, as a fixed camera sees people sitting still. The stills change
// together: three cuts per hundred frames, each a detection and new tracks.
std::vector<cv::Mat> makeGroupVideo(int n) {
    std::string error;
    std::map<std::string, std::vector<cv::Mat>> stills;
    std::vector<std::string> order;
    for (const msmbench::FaceRow& row : msmbench::readFaceManifest(error)) {
        if (stills.count(row.identity) == 0) {
            if (static_cast<int>(order.size()) == n) continue;
            order.push_back(row.identity);
        }
        std::vector<cv::Mat>& mine = stills[row.identity];
        if (mine.size() == kStills) continue;
        cv::Mat still = cv::imread(msmbench::facesFolder() + "/" + row.image, cv::IMREAD_COLOR);
        if (still.empty()) continue;
        cv::resize(still, still, cv::Size(200, 220), 0, 0, cv::INTER_LINEAR);
        mine.push_back(still);
    }
    std::vector<cv::Mat> video;
    if (static_cast<int>(order.size()) < n) return video;
    for (int s = 0; s < kStills; ++s)
        for (int k = 0; k < kHold; ++k) {
            cv::Mat frame(kHeight, kWidth, CV_8UC3, cv::Scalar(90, 100, 110));
            for (int i = 0; i < n; ++i) {
                const std::vector<cv::Mat>& mine = stills[order[i]];
                const cv::Mat& still = mine[s % mine.size()];
                const int x = 12 + 210 * (i % 3) + k / 4, y = 10 + 235 * (i / 3) + k / 6;
                still.copyTo(frame(cv::Rect(x, y, still.cols, still.rows)));
            }
            video.push_back(frame);
        }
    return video;
}

const std::vector<cv::Mat>& groupVideo(int n) {
    static std::map<int, std::vector<cv::Mat>> made;
    auto found = made.find(n);
    if (found == made.end()) {
        found = made.emplace(n, makeGroupVideo(n)).first;
        // Also as a file, for timing msmface watch on it end to end.
        if (!found->second.empty()) {
            cv::VideoWriter writer("bench-watch-group" + std::to_string(n) + ".avi", cv::CAP_FFMPEG,
                                   cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 25,
                                   found->second.front().size());
            for (const cv::Mat& f : found->second) writer.write(f);
        }
    }
    return found->second;
}

// The group video of state.range(0) faces, or null with the benchmark skipped.
const std::vector<cv::Mat>* groupVideoFor(benchmark::State& state) {
    if (!ready(state)) return nullptr;
    const std::vector<cv::Mat>& video = groupVideo(static_cast<int>(state.range(0)));
    if (!video.empty()) return &video;
    state.SkipWithError("../shared/faces has too few persons");
    return nullptr;
}

// The Tracker alone on the group video: finding and following every face, the part of a
// Watcher's frame that does not depend on the gallery. state.range(0): faces in the picture.
void BM_TrackerGroup(benchmark::State& state) {
    const std::vector<cv::Mat>* group = groupVideoFor(state);
    if (group == nullptr) return;
    const std::vector<cv::Mat>& video = *group;
    Fixture& fx = fixture();
    msmface::Result<msmface::Tracker> tracker = msmface::Tracker::create(*fx.detector);
    if (!tracker) {
        state.SkipWithError(tracker.message().c_str());
        return;
    }
    std::size_t k = 0;
    double faces = 0;
    for (auto _ : state) {
        auto f = tracker->update(viewOf(video[k]));
        faces += f ? static_cast<double>(f->faces.size()) : 0;
        k = (k + 1) % video.size();
    }
    setRate(state);
    state.counters["faces"] = faces / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TrackerGroup)
    ->Arg(1)
    ->Arg(3)
    ->Arg(6)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

// A Watcher, per frame: every face tracked, described (descriptors) or normalised (seed), and
// recognised against 100 persons. Arguments: faces in the picture; 0 seed patterns, 1
// descriptors; threads describing the faces. Wall time: the threads' gain shows there.
void BM_Watcher(benchmark::State& state) {
    const std::vector<cv::Mat>* group = groupVideoFor(state);
    if (group == nullptr) return;
    const std::vector<cv::Mat>& video = *group;
    Fixture& fx = fixture();
    msmface::Gallery* gallery = fx.gallery.get();
#ifdef MSMFACE_BENCH_DESCRIPTOR
    if (state.range(1) == 1) {
        DescriptorFixture& dx = descriptorFixture();
        if (!dx.error.empty()) {
            state.SkipWithError(dx.error.c_str());
            return;
        }
        gallery = dx.gallery.get();
    }
#else
    if (state.range(1) == 1) {
        state.SkipWithError("built without the descriptor");
        return;
    }
#endif
    msmface::WatcherOptions options;
    options.threads = static_cast<int>(state.range(2));
    msmface::Result<msmface::Watcher> watcher =
        msmface::Watcher::create(*fx.detector, *gallery, options);
    if (!watcher) {
        state.SkipWithError(watcher.message().c_str());
        return;
    }
    std::size_t k = 0;
    double faces = 0, used = 0;
    for (auto _ : state) {
        auto f = watcher->update(viewOf(video[k % video.size()]), static_cast<double>(k) / 25);
        if (f) {
            faces += static_cast<double>(f->faces.size());
            for (const auto& face : f->faces) used += face.used ? 1 : 0;
        }
        ++k;
    }
    setRate(state);
    state.counters["faces"] = faces / static_cast<double>(state.iterations());
    state.counters["used"] = used / static_cast<double>(state.iterations());
}
BENCHMARK(BM_Watcher)
    ->ArgNames({"faces", "descriptors", "threads"})
    ->ArgsProduct({{1, 3, 6}, {0, 1}, {1, 2}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

// Mixing a BGR frame down to grey, which the stream does before it normalises.
void BM_GreyOfFrame(benchmark::State& state) {
    if (!ready(state)) return;
    Fixture& fx = fixture();
    cv::Mat grey;
    for (auto _ : state) {
        cv::cvtColor(fx.video[0], grey, cv::COLOR_BGR2GRAY);
        benchmark::DoNotOptimize(grey.data);
    }
    setRate(state);
}
BENCHMARK(BM_GreyOfFrame)->MeasureProcessCPUTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
