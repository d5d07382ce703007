// The gallery's streams and recognitions against the legacy engine driven as the gallery drove it
// before it had a core of its own: the same frames give the same scores, ranking, frame counts
// and refreshes, frame for frame, on synthetic persons and on real faces.
#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>

#include <msmface/face_input.h>

#include "common/real_faces.h"
#include "gallery/frame_input.h"
#include "gallery/gallery_impl.h"
#include "gallery_support.h"
#include "legacy_host.h"
#include "normalise/face_cropping.h"

namespace {

using gallerytest::Population;
using gallerytest::ScratchDir;
using msmface::FacePoints;
using msmface::FrameView;
using msmface::Gallery;
using msmface::Method;
using msmface::Person;
using msmface::Ranking;
using msmface::Sample;
using msmface::StreamState;
namespace detail = msmface::detail;

constexpr Method kMethods[] = {Method::SinglePattern, Method::Msm, Method::CmsmFirstSpace,
                               Method::Cmsm};

bool UsesConstraint(Method m) {
    return m == Method::CmsmFirstSpace || m == Method::Cmsm;
}

std::string Text(const Ranking& r) {
    std::string out = "threshold " + std::to_string(r.threshold) + " frames " +
                      std::to_string(r.framesUsed) + " identified " +
                      (r.identified ? std::to_string(r.identified->id) : std::string("-")) + ":";
    for (const msmface::Match& m : r.matches)
        out += " " + std::to_string(m.id) + "=" + std::to_string(m.score);
    return out;
}

std::string Text(const StreamState& s) {
    return std::string(s.face ? "face" : "none") + " frames " + std::to_string(s.frames) + " | " +
           Text(s.ranking);
}

// A legacy engine of its own, filled with the gallery's persons (and its constraint space), in
// the recognition mode with every person ranked.
class LegacyEngine {
  public:
    LegacyEngine(const std::string& dir, const std::vector<Person>& persons, Method method)
        : engine(gallerytest::kLegacyFrameWidth, gallerytest::kLegacyFrameHeight),
          persons_(persons) {
        state_.dir = dir;
        error = gallerytest::LoadPersons(engine, dir, persons, table_);
        if (error.empty() && UsesConstraint(method))
            error = gallerytest::LoadConstraintSpace(engine, dir);
        engine.Set_recognitionmethod(static_cast<int>(method));
        engine.Set_RecognitionResultMode(1, std::max(static_cast<int>(persons.size()), 10));
        engine.Set_RecogORRegist(1);
    }

    // 1 when the frame's face was normalised into the engine's next slot.
    bool Crop(const FrameView& frame, const FacePoints& points) {
        if (!detail::toGrey(frame, image_)) return false;
        PartsPosition parts = msmface::toPartsPosition(points);
        return msmface::anyPointPresent(parts) &&
               engine.FaceCropping(&image_, nullptr, &parts, &face_) == 1;
    }
    // The engine's current list as scores per inside number.
    std::vector<int> Scores() {
        const int n = static_cast<int>(persons_.size());
        std::vector<int> scores(persons_.size(), -1);
        const RECOGRESULT* r = engine.Get_ResultRecog();
        for (int i = 0; r != nullptr && i < std::max(n, 10); ++i)
            if (r[i].id >= 0 && r[i].id < n && r[i].similarity >= 0)
                scores[static_cast<std::size_t>(r[i].id)] = r[i].similarity;
        return scores;
    }
    const std::vector<Person>& persons() const { return persons_; }

    FaceRecognition engine;
    std::string error;

  private:
    detail::GalleryState state_;
    gallerytest::PersonTable table_;
    std::vector<Person> persons_;
    BasicImageFile image_;
    BasicImageFile face_{kNormalisedFaceSize, kNormalisedFaceSize, 8};
};

// The stream's frame cycle as a host of the legacy engine runs it.
class LegacyStream {
  public:
    LegacyStream(const Gallery& g, Method method, int refreshTime)
        : legacy_(g.directory(), g.persons(), method), threshold_(g.threshold()) {
        if (refreshTime != -2) legacy_.engine.Set_RefreshTime(refreshTime);
        ranking_.threshold = threshold_;
    }
    const std::string& error() const { return legacy_.error; }

    StreamState Push(const FrameView& frame, const FacePoints& points) {
        FaceRecognition& e = legacy_.engine;
        if (!legacy_.Crop(frame, points)) return Faceless();
        StreamState s;
        s.face = true;
        if (e.FrameProcess(2) == 13) {
            ranking_ = detail::rankingOf(legacy_.persons(), legacy_.Scores(), threshold_);
            ranking_.framesUsed = e.GetMulCount();
        }
        s.frames = e.GetMulCount();
        s.ranking = ranking_;
        return s;
    }
    StreamState Faceless() {
        FaceRecognition& e = legacy_.engine;
        e.FrameProcess(0);
        StreamState s;
        s.frames = e.GetMulCount();
        if (s.frames == 0) {
            ranking_ = Ranking{};
            ranking_.threshold = threshold_;
        }
        s.ranking = ranking_;
        return s;
    }
    void Reset() {
        legacy_.engine.Refresh_input();
        legacy_.engine.Set_NullFrames(0);
        ranking_ = Ranking{};
        ranking_.threshold = threshold_;
    }

  private:
    LegacyEngine legacy_;
    int threshold_;
    Ranking ranking_;
};

// A run of frames recognised as the gallery did by the legacy engine.
msmface::Result<Ranking> LegacyRecognise(const Gallery& g, const std::vector<Sample>& frames,
                                         Method method) {
    LegacyEngine legacy(g.directory(), g.persons(), method);
    if (!legacy.error.empty())
        return msmface::Status::failure(msmface::ErrorKind::File, legacy.error);
    FaceRecognition& e = legacy.engine;
    const std::size_t n = g.persons().size();
    std::vector<double> sums(n, 0.0);
    std::vector<int> counts(n, 0);
    int used = 0;
    for (const Sample& s : frames) {
        if (!s.points || !legacy.Crop(s.frame, *s.points)) continue;
        ++used;
        if (e.FrameProcess(2) != 13 || method != Method::SinglePattern) continue;
        const std::vector<int> scores = legacy.Scores();
        for (std::size_t i = 0; i < n; ++i)
            if (scores[i] >= 0) {
                sums[i] += scores[i];
                ++counts[i];
            }
    }
    std::vector<int> scores(n, -1);
    if (method == Method::SinglePattern) {
        for (std::size_t i = 0; i < n; ++i)
            if (counts[i] > 0) scores[i] = static_cast<int>(sums[i] / counts[i]);
    } else {
        scores = legacy.Scores();
    }
    Ranking r = detail::rankingOf(g.persons(), scores, g.threshold());
    r.framesUsed = used;
    return r;
}

// One step of a camera's run: a frame with a face, a frame without one, or a reset.
struct Step {
    enum class Kind { Face, Faceless, Reset } kind = Kind::Face;
    FrameView frame;
    FacePoints points;
};

// Runs the steps through a stream and the legacy host side by side and requires the same state
// after every one. Returns the steps compared; *best the person ranked first at the end.
int CompareStreams(Gallery& g, Method method, int refreshTime, const std::vector<Step>& steps,
                   int* best) {
    msmface::StreamOptions options;
    options.method = method;
    options.refreshTime = refreshTime;
    auto stream = msmface::Stream::create(g, options);
    EXPECT_TRUE(stream.ok()) << stream.message();
    LegacyStream legacy(g, method, refreshTime);
    EXPECT_EQ(legacy.error(), "");
    if (!stream.ok() || !legacy.error().empty()) return 0;
    int compared = 0;
    for (std::size_t k = 0; k < steps.size(); ++k) {
        const Step& step = steps[k];
        StreamState expected, got;
        if (step.kind == Step::Kind::Reset) {
            stream->reset();
            legacy.Reset();
            continue;
        }
        if (step.kind == Step::Kind::Face) {
            expected = legacy.Push(step.frame, step.points);
            auto r = stream->push(step.frame, step.points);
            EXPECT_TRUE(r.ok()) << r.message();
            if (!r.ok()) return compared;
            got = *r;
        } else {
            expected = legacy.Faceless();
            auto r = stream->push(step.frame);
            EXPECT_TRUE(r.ok()) << r.message();
            if (!r.ok()) return compared;
            got = *r;
        }
        EXPECT_EQ(Text(got), Text(expected)) << "step " << k;
        if (Text(got) != Text(expected)) return compared;
        if (best != nullptr && !got.ranking.matches.empty()) *best = got.ranking.matches.front().id;
        ++compared;
    }
    return compared;
}

// Face frames of each take in turn, with runs of face-less frames between them long enough to
// clear the input under some refresh times and not under others, and a reset before the last.
std::vector<Step> Scenario(const std::vector<std::vector<Sample>>& takes) {
    std::vector<Step> steps;
    const int gaps[] = {3, 7, 2, 0};
    for (std::size_t t = 0; t < takes.size(); ++t) {
        if (t + 1 == takes.size()) steps.push_back({Step::Kind::Reset, {}, {}});
        for (const Sample& s : takes[t]) steps.push_back({Step::Kind::Face, s.frame, *s.points});
        for (int k = 0; k < gaps[t % 4]; ++k)
            steps.push_back({Step::Kind::Faceless, takes[t].front().frame, {}});
    }
    return steps;
}

int FaceSteps(const std::vector<Step>& steps) {
    return static_cast<int>(std::count_if(
        steps.begin(), steps.end(), [](const Step& s) { return s.kind != Step::Kind::Reset; }));
}

// Every method and refresh time through a stream, and every take through recognise, compared
// with the legacy engine.
void CompareEverything(Gallery& g, const std::vector<std::vector<Sample>>& takes, bool checkBest) {
    const std::vector<Step> steps = Scenario(takes);
    for (Method method : kMethods) {
        SCOPED_TRACE("method " + std::to_string(static_cast<int>(method)));
        for (int refreshTime : {-2, -1, 0, 2}) {
            SCOPED_TRACE("refreshTime " + std::to_string(refreshTime));
            int best = 0;
            EXPECT_EQ(CompareStreams(g, method, refreshTime, steps, &best), FaceSteps(steps));
            if (checkBest && method != Method::SinglePattern) {
                EXPECT_EQ(best, g.persons()[takes.size() - 1].id);
            }
        }
        for (std::size_t t = 0; t < takes.size(); ++t) {
            msmface::RecogniseOptions options;
            options.method = method;
            auto got = g.recognise(takes[t], options);
            auto expected = LegacyRecognise(g, takes[t], method);
            ASSERT_TRUE(got.ok()) << got.message();
            ASSERT_TRUE(expected.ok()) << expected.message();
            EXPECT_EQ(Text(*got), Text(*expected)) << "take " << t;
            if (checkBest) {
                EXPECT_EQ(got->matches.front().id, g.persons()[t].id) << "take " << t;
            }
        }
    }
}

TEST(LegacyRegression, SyntheticPersonsScoreAsTheLegacyEngineFrameForFrame) {
    ScratchDir dir;
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    const Population& population = Population::get();
    std::vector<std::vector<Sample>> takes;
    for (int i = 0; i < Population::kPersons; ++i) {
        ASSERT_TRUE(g->enrol(i + 1, Population::Name(i), population.enrol[i].samples()).ok());
        takes.push_back(population.probe[i].samples());
    }
    ASSERT_TRUE(g->rebuildConstraint(60).ok());
    CompareEverything(*g, takes, true);
    // The list of a host that keeps three spaces (the rebuilt one, no constraint, and the
    // rebuilt one's first 40 directions): the first space and all spaces now differ.
    const std::string list = dir.path() + "/" + msmface::kConstraintListFileName;
    const std::string text = gallerytest::ReadText(list);
    const std::size_t at = text.find("CMSML ");
    ASSERT_NE(at, std::string::npos) << text;
    const std::string learned = text.substr(at, text.find('\n', at) - at);
    std::istringstream fields(learned);
    std::string kind, stem;
    fields >> kind >> stem;
    gallerytest::WriteText(list, "3\n1\n" + learned + "\nMSM\nCMSMF " + stem + " 40\n");
    ASSERT_TRUE(g->refresh().ok());
    CompareEverything(*g, takes, true);
}

// Real frames with their points moved by up to two pixels, as a live detector would.
std::vector<Sample> Jittered(const std::vector<const msmtest::RealFrame*>& frames, int count,
                             std::mt19937& rng) {
    std::uniform_real_distribution<float> jitter(-2.0f, 2.0f);
    std::vector<Sample> out;
    for (int k = 0; k < count; ++k) {
        const msmtest::RealFrame& f = *frames[static_cast<std::size_t>(k) % frames.size()];
        Sample s;
        s.frame.data = f.pixels.data();
        s.frame.width = f.width;
        s.frame.height = f.height;
        FacePoints p;
        for (int i = 0; i < 28; ++i) p.xy[i] = static_cast<float>(f.points[i]) + jitter(rng);
        s.points = p;
        out.push_back(s);
    }
    return out;
}

TEST(LegacyRegression, RealFacesScoreAsTheLegacyEngineFrameForFrame) {
    const std::string folder = std::string(MSMFACE_SHARED_DIR) + "/faces";
    if (!std::ifstream(folder + "/manifest.csv")) GTEST_SKIP() << "no face data at " << folder;
    const auto people = msmtest::LoadPeople(folder);
    ScratchDir dir;
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    std::mt19937 rng(2026);
    std::vector<std::vector<Sample>> takes;
    for (const auto& [name, frames] : people) {
        std::vector<const msmtest::RealFrame*> enrol, probe;
        if (!msmtest::SplitThreeVideos(frames, enrol, probe)) continue;
        const int id = static_cast<int>(takes.size()) + 1;
        const msmface::Status enrolled =
            g->enrol(id, "person" + std::to_string(id), Jittered(enrol, 80, rng));
        ASSERT_TRUE(enrolled.ok()) << name << ": " << enrolled.message();
        takes.push_back(Jittered(probe, 10, rng));
        if (takes.size() == 5) break;
    }
    ASSERT_EQ(takes.size(), 5u);
    ASSERT_TRUE(g->rebuildConstraint(100).ok());
    // Real faces of different videos are not all recognised: only the numbers must agree.
    CompareEverything(*g, takes, false);
}

}  // namespace

namespace {

// The ranking of a take's frames by the method against a view, as "id:score ...".
std::string RankingOf(const detail::GalleryView& view, const gallerytest::Take& take,
                      msmface::core::Method method) {
    const msmface::core::Snapshot& snapshot = *view.snapshot;
    auto input = msmface::core::Input::create(snapshot);
    if (!input.ok()) return input.message();
    detail::FaceReader reader(snapshot.shape());
    for (std::size_t k = 0; k < take.frames.size(); ++k)
        if (reader.read(take.view(k), take.points(k)) == detail::FaceRead::Face)
            (*input)->update(reader.patterns());
    const msmface::Status scored = msmface::core::score(snapshot, **input, method);
    if (!scored.ok()) return scored.message();
    std::string out;
    for (const msmface::core::RankedPerson& r : (*input)->ranking())
        out += std::to_string(view.persons[static_cast<std::size_t>(r.person)].id) + ":" +
               std::to_string(r.score) + " ";
    return out;
}

TEST(LegacyRegression, ViewsDerivedFromThePreviousOneScoreAsAFullReadOfTheDirectory) {
    ScratchDir dir;
    auto g = Gallery::open(dir.path());
    ASSERT_TRUE(g.ok()) << g.message();
    const Population& population = Population::get();
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(g->enrol(i + 1, Population::Name(i), population.enrol[i].samples()).ok());
    ASSERT_TRUE(g->rebuildConstraint(60).ok());
    detail::GalleryState state;
    state.dir = dir.path();
    detail::Listing before;
    ASSERT_EQ(detail::readListed(state, before), "");
    ASSERT_EQ(before.view->snapshot->spaceCount(), 1);

    // A removal: the view without the person against the directory read again without it.
    ASSERT_TRUE(g->remove(2).ok());
    auto without = detail::viewWithout(*before.view, 2);
    ASSERT_TRUE(without.ok()) << without.message();
    detail::Listing removed;
    ASSERT_EQ(detail::readListed(state, removed), "");
    // An enrolment: the new person's file added to the view of before.
    ASSERT_TRUE(g->enrol(4, Population::Name(3), population.enrol[3].samples()).ok());
    auto with = detail::viewWith(state, **without, Person{4, Population::Name(3)});
    ASSERT_TRUE(with.ok()) << with.message();
    detail::Listing added;
    ASSERT_EQ(detail::readListed(state, added), "");
    for (auto method : {msmface::core::Method::SinglePattern, msmface::core::Method::Msm,
                        msmface::core::Method::Cmsm}) {
        SCOPED_TRACE(static_cast<int>(method));
        const std::string expected = RankingOf(*removed.view, population.probe[0], method);
        EXPECT_EQ(RankingOf(**without, population.probe[0], method), expected);
        EXPECT_EQ(expected.find("2:"), std::string::npos) << expected;
        const std::string all = RankingOf(*added.view, population.probe[3], method);
        EXPECT_EQ(RankingOf(**with, population.probe[3], method), all);
        EXPECT_EQ(all.substr(0, 2), "4:") << all;
    }
    // A person who is not there leaves the view as it was.
    auto same = detail::viewWithout(**with, 99);
    ASSERT_TRUE(same.ok());
    EXPECT_EQ((*same)->persons.size(), 3u);
}

}  // namespace
