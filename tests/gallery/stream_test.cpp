// Streams: the frame cycle of one camera over a gallery's persons, several at once on their own
// threads, picking up the gallery's changes at their next frame.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <set>
#include <thread>

#include "common/in_step.h"
#include "gallery_support.h"

namespace {

using gallerytest::Population;
using gallerytest::ScratchDir;
using gallerytest::Take;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Method;
using msmface::Stream;
using msmface::StreamOptions;
using msmface::StreamState;
using ::testing::HasSubstr;

Gallery OpenWith(const std::string& dir, int persons) {
    msmface::Result<Gallery> g = Gallery::open(dir);
    if (!g.ok()) {
        ADD_FAILURE() << g.message();
        std::abort();
    }
    for (int i = 0; i < persons; ++i) {
        const msmface::Status s =
            g->enrol(i + 1, Population::Name(i), Population::get().enrol[i].samples());
        EXPECT_TRUE(s.ok()) << s.message();
    }
    return std::move(g).value();
}

Stream MakeStream(Gallery& g, const StreamOptions& o = {}) {
    msmface::Result<Stream> s = Stream::create(g, o);
    if (!s.ok()) {
        ADD_FAILURE() << s.message();
        std::abort();
    }
    return std::move(s).value();
}

StreamState PushOrDie(Stream& s, const Take& take, std::size_t k) {
    const msmface::Result<StreamState> r = s.push(take.view(k), take.points(k));
    EXPECT_TRUE(r.ok()) << r.message();
    return r.ok() ? r.value() : StreamState{};
}

// The rankings after each frame of a take, as "id:score id:score ...". With inStep, the stream
// arrives there as party `stream` before each frame: streams on other threads then push their
// frames side by side.
std::vector<std::string> Rankings(Stream& s, const Take& take,
                                  msmtest::StepCounts* inStep = nullptr, int stream = 0) {
    std::vector<std::string> out;
    for (std::size_t k = 0; k < take.frames.size(); ++k) {
        if (inStep != nullptr) {
            EXPECT_TRUE(inStep->Arrive(stream)) << "a stream stopped";
        }
        const StreamState st = PushOrDie(s, take, k);
        std::string line;
        for (const msmface::Match& m : st.ranking.matches)
            line += std::to_string(m.id) + ":" + std::to_string(m.score) + " ";
        out.push_back(line);
    }
    return out;
}

class Streams : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<ScratchDir>();
        gallery_ = std::make_unique<Gallery>(OpenWith(dir_->path(), 3));
    }
    static void TearDownTestSuite() {
        gallery_.reset();
        dir_.reset();
    }
    static std::unique_ptr<ScratchDir> dir_;
    static std::unique_ptr<Gallery> gallery_;
};
std::unique_ptr<ScratchDir> Streams::dir_;
std::unique_ptr<Gallery> Streams::gallery_;

TEST_F(Streams, EachPersonIsRankedFirstOnceTheInputHasFrames) {
    Stream s = MakeStream(*gallery_);
    for (int i = 0; i < 3; ++i) {
        s.reset();
        const Take& probe = Population::get().probe[i];
        StreamState st;
        for (std::size_t k = 0; k < probe.frames.size(); ++k) {
            st = PushOrDie(s, probe, k);
            EXPECT_TRUE(st.face);
            EXPECT_EQ(st.frames, st.ranking.framesUsed);
        }
        ASSERT_EQ(st.ranking.matches.size(), 3u);
        EXPECT_EQ(st.ranking.matches[0].id, i + 1);
        EXPECT_EQ(st.ranking.matches[0].name, Population::Name(i));
        EXPECT_GT(st.frames, 0);
        EXPECT_EQ(st.ranking.threshold, msmface::kDefaultIdentifyThreshold);
        EXPECT_EQ(st.ranking.identified.has_value(),
                  st.ranking.matches[0].score > st.ranking.threshold);
    }
}

TEST_F(Streams, TheStreamGivesTheGalleryRecognitionOfTheSameFrames) {
    // One frame cycle over the same frames by two hosts of the engine: the gallery's run and a
    // stream's last ranking are the same scores.
    const Take& probe = Population::get().probe[1];
    Stream s = MakeStream(*gallery_);
    StreamState last;
    for (std::size_t k = 0; k < probe.frames.size(); ++k) last = PushOrDie(s, probe, k);
    const auto r = gallery_->recognise(probe.samples());
    ASSERT_TRUE(r.ok()) << r.message();
    ASSERT_EQ(r->matches.size(), last.ranking.matches.size());
    for (std::size_t i = 0; i < r->matches.size(); ++i) {
        EXPECT_EQ(r->matches[i].id, last.ranking.matches[i].id);
        EXPECT_EQ(r->matches[i].score, last.ranking.matches[i].score);
    }
}

TEST_F(Streams, TwoStreamsOnTwoThreadsRankAsOneStreamAfterTheOther) {
    const Take& a = Population::get().probe[0];
    const Take& b = Population::get().probe[2];
    std::vector<std::string> soloA, soloB;
    {
        Stream s = MakeStream(*gallery_);
        soloA = Rankings(s, a);
        s.reset();
        soloB = Rankings(s, b);
    }
    Stream s1 = MakeStream(*gallery_);
    Stream s2 = MakeStream(*gallery_);
    std::vector<std::string> parA, parB;
    msmtest::StepCounts inStep(2);
    std::thread t1([&] { parA = Rankings(s1, a, &inStep, 0); });
    std::thread t2([&] { parB = Rankings(s2, b, &inStep, 1); });
    t1.join();
    t2.join();
    EXPECT_EQ(parA, soloA);
    EXPECT_EQ(parB, soloB);
    ASSERT_FALSE(soloA.empty());
    EXPECT_THAT(soloA.back(), ::testing::StartsWith("1:"));
    EXPECT_THAT(soloB.back(), ::testing::StartsWith("3:"));
}

TEST_F(Streams, FacelessFramesClearTheInputAfterTheRefreshTime) {
    const Take& probe = Population::get().probe[0];
    Stream s = MakeStream(*gallery_, StreamOptions{Method::Msm, -1, 3, nullptr});
    for (std::size_t k = 0; k < 8; ++k) PushOrDie(s, probe, k);
    // Without a finder a frame without points has no face; the input survives three of them.
    for (int k = 0; k < 3; ++k) {
        const auto st = s.push(probe.view(0));
        ASSERT_TRUE(st.ok()) << st.message();
        EXPECT_FALSE(st->face);
        EXPECT_GT(st->frames, 0);
        EXPECT_FALSE(st->ranking.matches.empty());
    }
    const auto cleared = s.push(probe.view(0));
    ASSERT_TRUE(cleared.ok());
    EXPECT_EQ(cleared->frames, 0);
    EXPECT_TRUE(cleared->ranking.matches.empty());

    // Points that miss the face make a face-less frame too.
    msmface::FacePoints nowhere;
    nowhere.xy.fill(-1.0f);
    const auto missed = s.push(probe.view(0), nowhere);
    ASSERT_TRUE(missed.ok());
    EXPECT_FALSE(missed->face);

    // reset() drops the input at once.
    for (std::size_t k = 0; k < 4; ++k) PushOrDie(s, probe, k);
    s.reset();
    const auto after = s.push(probe.view(0));
    ASSERT_TRUE(after.ok());
    EXPECT_EQ(after->frames, 0);
    EXPECT_TRUE(after->ranking.matches.empty());
}

// A finder that knows the take's points, as a detector would find them.
class TakeFinder : public msmface::PointFinder {
  public:
    explicit TakeFinder(const Take& take) : take_(take) {}
    bool findPoints(const msmface::FrameView& frame, msmface::FacePoints& out) override {
        for (std::size_t k = 0; k < take_.frames.size(); ++k)
            if (frame.data == take_.frames[k].pixels.data()) {
                out = take_.points(k);
                ++found;
                return true;
            }
        return false;
    }
    void reset() override { ++resets; }
    int found = 0, resets = 0;

  private:
    const Take& take_;
};

TEST_F(Streams, FramesWithoutPointsAreFoundByTheFinder) {
    const Take& probe = Population::get().probe[2];
    auto finder = std::make_shared<TakeFinder>(probe);
    Stream s = MakeStream(*gallery_, StreamOptions{Method::Msm, -1, -2, finder});
    StreamState st;
    for (std::size_t k = 0; k < probe.frames.size(); ++k) {
        const auto r = s.push(probe.view(k));
        ASSERT_TRUE(r.ok()) << r.message();
        EXPECT_TRUE(r->face);
        st = r.value();
    }
    EXPECT_EQ(finder->found, static_cast<int>(probe.frames.size()));
    ASSERT_FALSE(st.ranking.matches.empty());
    EXPECT_EQ(st.ranking.matches[0].id, 3);
    s.reset();
    EXPECT_EQ(finder->resets, 1);

    // The gallery's own finder serves enrol and recognise.
    gallery_->setPointFinder(finder);
    const auto r = gallery_->recognise(probe.samples(false));
    gallery_->setPointFinder(nullptr);
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->matches[0].id, 3);
    const auto none = gallery_->recognise(probe.samples(false));
    EXPECT_EQ(none.status().kind(), ErrorKind::Argument);
    EXPECT_THAT(none.message(), HasSubstr("none of the frames gave a face"));
}

TEST_F(Streams, BadFramesAndOptionsAreRefused) {
    const Take& probe = Population::get().probe[0];
    Stream s = MakeStream(*gallery_);
    msmface::FrameView v = probe.view(0);
    v.data = nullptr;
    auto r = s.push(v, probe.points(0));
    EXPECT_EQ(r.status().kind(), ErrorKind::Argument);
    EXPECT_THAT(r.message(), HasSubstr("frame: no pixels"));
    v = probe.view(0);
    v.stride = v.width - 1;
    r = s.push(v);
    EXPECT_THAT(r.message(), HasSubstr("stride 319 is less than a row of 320 pixels"));
    v = probe.view(0);
    v.height = 1;
    EXPECT_THAT(s.push(v).message(), HasSubstr("1 pixels; expected at least 2 x 2"));

    auto bad = Stream::create(*gallery_, StreamOptions{static_cast<Method>(3), -1, -2, nullptr});
    EXPECT_EQ(bad.status().kind(), ErrorKind::Argument);
    EXPECT_THAT(bad.message(), HasSubstr("method 3: expected"));
    bad = Stream::create(*gallery_, StreamOptions{Method::Msm, 1001, -2, nullptr});
    EXPECT_THAT(bad.message(), HasSubstr("threshold 1001"));
    bad = Stream::create(*gallery_, StreamOptions{Method::Msm, -1, -3, nullptr});
    EXPECT_THAT(bad.message(), HasSubstr("refreshTime -3"));
    bad = Stream::create(*gallery_, StreamOptions{Method::Cmsm, -1, -2, nullptr});
    EXPECT_EQ(bad.status().kind(), ErrorKind::NotFound);
    EXPECT_THAT(bad.message(), HasSubstr("no constraint space yet"));
}

TEST(StreamReload, EnrolRemoveAndThresholdOfTheGalleryReachTheStreamAtItsNextFrame) {
    ScratchDir work;
    Gallery g = OpenWith(work.path(), 2);
    Stream s = MakeStream(g);
    const Take& third = Population::get().probe[2];
    StreamState st;
    for (std::size_t k = 0; k < 10; ++k) st = PushOrDie(s, third, k);
    ASSERT_EQ(st.ranking.matches.size(), 2u);

    ASSERT_TRUE(g.enrol(3, Population::Name(2), Population::get().enrol[2].samples()).ok());
    st = PushOrDie(s, third, 10);
    // The input gathered before the change is kept: the person is recognised at once.
    EXPECT_GT(st.frames, 1);
    ASSERT_EQ(st.ranking.matches.size(), 3u);
    EXPECT_EQ(st.ranking.matches[0].id, 3);

    ASSERT_TRUE(g.setThreshold(st.ranking.matches[0].score - 1).ok());
    st = PushOrDie(s, third, 11);
    EXPECT_EQ(st.ranking.threshold, g.threshold());

    ASSERT_TRUE(g.remove(1).ok());
    st = PushOrDie(s, third, 12);
    ASSERT_EQ(st.ranking.matches.size(), 2u);
    for (const msmface::Match& m : st.ranking.matches) EXPECT_NE(m.id, 1);
    EXPECT_EQ(st.ranking.matches[0].id, 3);
    EXPECT_EQ(st.ranking.matches[0].name, Population::Name(2));

    // A stream made before the gallery had anyone starts recognising once someone is enrolled.
    ScratchDir empty;
    Gallery e = OpenWith(empty.path(), 0);
    Stream late = MakeStream(e);
    st = PushOrDie(late, third, 0);
    EXPECT_TRUE(st.face);
    EXPECT_TRUE(st.ranking.matches.empty());
    ASSERT_TRUE(e.enrol(7, "seven", Population::get().enrol[2].samples()).ok());
    for (std::size_t k = 1; k < 6; ++k) st = PushOrDie(late, third, k);
    ASSERT_EQ(st.ranking.matches.size(), 1u);
    EXPECT_EQ(st.ranking.matches[0].id, 7);
}

TEST(StreamReload, AStreamThatFollowedEveryChangeRanksAsAFreshStream) {
    ScratchDir work;
    Gallery g = OpenWith(work.path(), 3);
    Stream old = MakeStream(g);
    const Take& probe = Population::get().probe[3];
    const gallerytest::Take other = gallerytest::MakeTake(5, 105, 50);
    auto step = [&](std::size_t k) { PushOrDie(old, probe, k); };
    step(0);
    ASSERT_TRUE(g.enrol(4, Population::Name(3), Population::get().enrol[3].samples()).ok());
    step(1);
    ASSERT_TRUE(g.setThreshold(400).ok());
    step(2);
    // Removed and enrolled again under the same ID and name from another person's frames, with
    // no frame in between: the stream must read the new files, not keep the old dictionary.
    ASSERT_TRUE(g.remove(2).ok());
    ASSERT_TRUE(g.enrol(2, Population::Name(1), other.samples()).ok());
    step(3);
    ASSERT_TRUE(g.remove(1).ok());
    step(4);

    old.reset();
    Stream fresh = MakeStream(g);
    const std::vector<std::string> a = Rankings(old, probe), b = Rankings(fresh, probe);
    EXPECT_EQ(a, b);
    ASSERT_FALSE(a.empty());
    EXPECT_THAT(a.back(), ::testing::StartsWith("4:"));
    EXPECT_THAT(a.back(), ::testing::HasSubstr(" 2:"));
    EXPECT_THAT(a.back(), ::testing::Not(::testing::HasSubstr(" 1:")));
}

TEST(StreamReload, StreamsOnOtherThreadsFollowEveryChangeTheGalleryMakesWhileTheyRun) {
    ScratchDir work;
    Gallery g = OpenWith(work.path(), 2);
    // The persons after each change, by ID (an ID's name is Population::Name(id - 1)).
    const std::vector<std::set<int>> held = {{1, 2}, {1, 2, 3}, {1, 3}, {1, 3, 4}};
    const std::vector<std::function<msmface::Status()>> changes = {
        [&] { return g.enrol(3, Population::Name(2), Population::get().enrol[2].samples()); },
        [&] { return g.remove(2); },
        [&] { return g.enrol(4, Population::Name(3), Population::get().enrol[3].samples()); },
    };
    // What a frame's ranking shows and the changes made around its push: changes [0, done) had
    // returned when it started and changes [0, begun) had begun when it returned.
    struct Seen {
        int done = 0, begun = 0;
        std::set<int> ids;
        bool namesMatch = true;
        int best = 0;
        std::string error;
    };
    constexpr int kStreams = 2;
    std::atomic<int> begun{0}, done{0};
    std::atomic<bool> stop{false};
    msmtest::StepCounts counts(kStreams);
    std::vector<std::vector<Seen>> seen(kStreams);
    std::vector<Stream> streams;
    for (int t = 0; t < kStreams; ++t) streams.push_back(MakeStream(g));
    const Take& probe = Population::get().probe[0];
    std::vector<std::thread> threads;
    for (int t = 0; t < kStreams; ++t)
        threads.emplace_back([&, t] {
            for (std::size_t k = 0; !stop; k = (k + 1) % probe.frames.size()) {
                Seen s;
                s.done = done;
                const auto r = streams[t].push(probe.view(k), probe.points(k));
                s.begun = begun;
                if (!r.ok()) s.error = r.message();
                if (r.ok() && !r->ranking.matches.empty()) s.best = r->ranking.matches[0].id;
                if (r.ok())
                    for (const msmface::Match& m : r->ranking.matches) {
                        s.ids.insert(m.id);
                        s.namesMatch = s.namesMatch && m.name == Population::Name(m.id - 1);
                    }
                seen[t].push_back(std::move(s));
                counts.Done(t);
            }
        });
    constexpr int kFramesBetween = 3;
    for (const auto& change : changes) {
        EXPECT_TRUE(counts.WaitForEach(counts.Now(), kFramesBetween)) << "a stream stopped";
        ++begun;
        const msmface::Status status = change();
        EXPECT_TRUE(status.ok()) << status.message();
        ++done;
    }
    EXPECT_TRUE(counts.WaitForEach(counts.Now(), kFramesBetween)) << "a stream stopped";
    stop = true;
    for (std::thread& t : threads) t.join();

    // Every frame ranks exactly the persons of one state of the gallery: not one older than the
    // changes finished when the frame began, not one newer than the changes begun by its end,
    // and never going back.
    for (int t = 0; t < kStreams; ++t) {
        ASSERT_GT(seen[t].size(), static_cast<std::size_t>(kFramesBetween * (changes.size() + 1)));
        int last = 0;
        std::vector<bool> stateSeen(held.size(), false);
        for (std::size_t f = 0; f < seen[t].size(); ++f) {
            const Seen& s = seen[t][f];
            ASSERT_EQ(s.error, "") << "stream " << t << " frame " << f;
            const auto found = std::find(held.begin(), held.end(), s.ids);
            ASSERT_NE(found, held.end()) << "stream " << t << " frame " << f
                                         << " ranks persons the gallery never held together";
            const int state = static_cast<int>(found - held.begin());
            EXPECT_GE(state, s.done) << "stream " << t << " frame " << f << ": a finished change "
                                     << "was not picked up at the next frame";
            EXPECT_LE(state, s.begun) << "stream " << t << " frame " << f;
            EXPECT_GE(state, last) << "stream " << t << " frame " << f << " went back";
            EXPECT_TRUE(s.namesMatch) << "stream " << t << " frame " << f;
            last = state;
            stateSeen[state] = true;
        }
        // Frames were pushed between every two changes, so every state was ranked.
        EXPECT_EQ(stateSeen, std::vector<bool>(held.size(), true)) << "stream " << t;
        // The person of the frames leads once the input holds a dozen of them, whoever else the
        // gallery holds (with persons 1, 3 and 4, frames 0 to 6 rank another first).
        EXPECT_EQ(seen[t].back().best, 1) << "stream " << t;
    }
}

}  // namespace
