// Recognition per track: tracks named after agreeing faces and never renamed, the events of a
// track's life, many interleaved tracks on one gallery without a wrong name, both kinds of
// pattern, and what is refused without changing any track.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <set>

#include <msmface/tracks.h>

#include "descriptor_support.h"
#include "gallery_support.h"

namespace {

using gallerytest::DescriptorSamples;
using gallerytest::ExpectFailure;
using gallerytest::ScratchDir;
using gallerytest::SynthDescriptors;
using msmface::ErrorKind;
using msmface::FaceDescriptor;
using msmface::Gallery;
using msmface::Method;
using msmface::PatternKind;
using msmface::Stream;
using msmface::StreamState;
using msmface::TrackEvent;
using msmface::TrackEventKind;
using msmface::TrackOptions;
using msmface::TrackRecognition;

constexpr int kEnrolled = 4;
// The synthetic persons' own faces score above 950 and a stranger's best below 500: a threshold
// between them, where a host would calibrate its own (the default suits a network's descriptors).
constexpr int kStrangerThreshold = 700;
constexpr int kEnrolViews = 20;

std::string Name(int p) {
    return "person" + std::to_string(p + 1);
}

// A gallery of descriptors with persons 0 .. kEnrolled-1 enrolled under IDs 1.., and the faces
// of `strangers` more persons who are not enrolled.
struct DescriptorGallery {
    explicit DescriptorGallery(int strangers = 0, uint32_t seed = 42)
        : faces(kEnrolled + strangers, seed) {
        msmface::OpenOptions o;
        o.create = true;
        o.patterns = PatternKind::Descriptor;
        auto opened = Gallery::open(work / "gallery", o);
        EXPECT_TRUE(opened.ok()) << opened.message();
        if (!opened.ok()) std::abort();
        gallery = std::make_unique<Gallery>(std::move(opened).value());
        for (int p = 0; p < kEnrolled; ++p) {
            const msmface::Status s =
                gallery->enrol(p + 1, Name(p), DescriptorSamples(faces.views(p, kEnrolViews)));
            EXPECT_TRUE(s.ok()) << s.message();
        }
    }
    TrackRecognition tracks(const TrackOptions& o = {}) {
        auto t = TrackRecognition::create(*gallery, o);
        EXPECT_TRUE(t.ok()) << t.message();
        if (!t.ok()) std::abort();
        return std::move(t).value();
    }
    // A stream that ranks the same faces as a track does: what each face alone says.
    Stream reference(const TrackOptions& o = {}) {
        msmface::StreamOptions so;
        so.method = o.method;
        so.threshold = o.threshold;
        so.refreshTime = -1;
        auto s = Stream::create(*gallery, so);
        EXPECT_TRUE(s.ok()) << s.message();
        if (!s.ok()) std::abort();
        return std::move(s).value();
    }

    ScratchDir work;
    SynthDescriptors faces;
    std::unique_ptr<Gallery> gallery;
};

std::vector<TrackEvent> Observe(TrackRecognition& t, int track, int64_t frame,
                                const FaceDescriptor& d) {
    auto r = t.observe(track, frame, frame / 25.0, d);
    EXPECT_TRUE(r.ok()) << r.message();
    return r.ok() ? *r : std::vector<TrackEvent>{};
}

StreamState Push(Stream& s, const FaceDescriptor& d) {
    auto r = s.push(d);
    EXPECT_TRUE(r.ok()) << r.message();
    return r.ok() ? *r : StreamState{};
}

std::vector<TrackEvent> OfKind(const std::vector<TrackEvent>& events, TrackEventKind kind) {
    std::vector<TrackEvent> out;
    for (const TrackEvent& e : events)
        if (e.kind == kind) out.push_back(e);
    return out;
}

TEST(Tracks, TwoInterleavedTracksAreEachNamedTheirOwnPersonOnce) {
    DescriptorGallery g;
    TrackRecognition t = g.tracks();
    std::vector<TrackEvent> events;
    for (int f = 0; f < 12; ++f) {
        // Track 7 shows person 2, track 3 person 1, in the same frames.
        for (const auto& [track, person] : {std::pair{7, 1}, std::pair{3, 0}}) {
            const auto got = Observe(t, track, f, g.faces.view(person));
            events.insert(events.end(), got.begin(), got.end());
        }
    }
    const auto started = OfKind(events, TrackEventKind::Started);
    ASSERT_EQ(started.size(), 2u);
    EXPECT_EQ(started[0].track, 7);
    EXPECT_EQ(started[1].track, 3);
    EXPECT_EQ(started[0].frame, 0);
    const auto identified = OfKind(events, TrackEventKind::Identified);
    ASSERT_EQ(identified.size(), 2u);
    std::map<int, TrackEvent> byTrack;
    for (const TrackEvent& e : identified) byTrack[e.track] = e;
    ASSERT_EQ(byTrack.count(7), 1u);
    ASSERT_EQ(byTrack.count(3), 1u);
    EXPECT_EQ(byTrack[7].person, 2);
    EXPECT_EQ(byTrack[7].name, "person2");
    EXPECT_EQ(byTrack[3].person, 1);
    EXPECT_EQ(byTrack[3].name, "person1");
    for (const TrackEvent& e : identified) {
        EXPECT_GT(e.score, g.gallery->threshold());
        EXPECT_DOUBLE_EQ(e.time, e.frame / 25.0);
    }
    const auto now = t.tracks();
    ASSERT_EQ(now.size(), 2u);
    EXPECT_EQ(now[0].track, 3);
    EXPECT_EQ(now[0].person, 1);
    EXPECT_EQ(now[1].track, 7);
    EXPECT_EQ(now[1].name, "person2");
    EXPECT_EQ(now[1].framesSeen, 12);
}

// Every face of these takes ranks its person first above the threshold, so a track is named at
// exactly its confirmFrames-th face: not earlier (one face does not name) and not later.
TEST(Tracks, NamedAtTheConfirmFramesthAgreeingFace) {
    DescriptorGallery g;
    for (int confirm : {1, 3, 5}) {
        TrackOptions o;
        o.confirmFrames = confirm;
        TrackRecognition t = g.tracks(o);
        Stream ref = g.reference(o);
        int namedAt = -1;
        for (int f = 0; f < 8; ++f) {
            const FaceDescriptor face = g.faces.view(2);
            const StreamState said = Push(ref, face);
            ASSERT_TRUE(said.ranking.identified.has_value());
            ASSERT_EQ(said.ranking.identified->id, 3) << "the take does not show its person";
            for (const TrackEvent& e : OfKind(Observe(t, 0, f, face), TrackEventKind::Identified)) {
                EXPECT_EQ(namedAt, -1) << "named twice";
                namedAt = f;
                EXPECT_EQ(e.person, 3);
                // The event carries the score of the face that named the track.
                EXPECT_EQ(e.score, said.ranking.identified->score);
            }
        }
        EXPECT_EQ(namedAt, confirm - 1) << "confirmFrames " << confirm;
    }
}

// A track named one person keeps that name when another person's faces take over its input,
// and its Ended event still names the first.
TEST(Tracks, NameNeverChangesWhenTheBestPersonFlips) {
    DescriptorGallery g;
    TrackRecognition t = g.tracks();
    Stream ref = g.reference();
    std::vector<TrackEvent> events;
    StreamState said;
    int f = 0;
    for (; f < 6; ++f) {
        const FaceDescriptor face = g.faces.view(0);
        said = Push(ref, face);
        const auto got = Observe(t, 5, f, face);
        events.insert(events.end(), got.begin(), got.end());
    }
    int flippedFaces = 0;
    for (; f < 60; ++f) {
        const FaceDescriptor face = g.faces.view(3);
        said = Push(ref, face);
        if (said.ranking.identified && said.ranking.identified->id == 4) ++flippedFaces;
        const auto got = Observe(t, 5, f, face);
        events.insert(events.end(), got.begin(), got.end());
    }
    // The input did flip: person 4 ranked first above the threshold for many faces in a row.
    ASSERT_GE(flippedFaces, 10);
    const auto identified = OfKind(events, TrackEventKind::Identified);
    ASSERT_EQ(identified.size(), 1u);
    EXPECT_EQ(identified[0].person, 1);
    EXPECT_EQ(t.tracks().at(0).person, 1);
    const auto ended = t.end(5);
    ASSERT_TRUE(ended.ok()) << ended.message();
    EXPECT_EQ(ended->person, 1);
    EXPECT_EQ(ended->name, "person1");
}

// Faces whose first-ranked person alternates never agree for three faces in a row: the track
// stays unknown although every face alone is above the threshold.
TEST(Tracks, AlternatingBestPersonsNameNobody) {
    DescriptorGallery g;
    TrackOptions o;
    o.method = Method::SinglePattern;  // each face ranked on its own
    TrackRecognition t = g.tracks(o);
    Stream ref = g.reference(o);
    for (int f = 0; f < 20; ++f) {
        const int person = f % 2 == 0 ? 0 : 1;
        const FaceDescriptor face = g.faces.view(person);
        const StreamState said = Push(ref, face);
        ASSERT_TRUE(said.ranking.identified.has_value());
        ASSERT_EQ(said.ranking.identified->id, person + 1);
        EXPECT_THAT(OfKind(Observe(t, 1, f, face), TrackEventKind::Identified),
                    ::testing::IsEmpty())
            << "frame " << f;
    }
    EXPECT_EQ(t.tracks().at(0).person, 0);
}

// The threshold is a strict bound: at the best score the take reaches the track stays unknown,
// one below it is named.
TEST(Tracks, BelowOrAtTheThresholdStaysUnknown) {
    DescriptorGallery g;
    std::vector<FaceDescriptor> take = g.faces.views(1, 15);
    Stream ref = g.reference();
    int best = 0;
    for (const FaceDescriptor& face : take)
        best = std::max(best, Push(ref, face).ranking.matches.front().score);
    for (int threshold : {best, best - 1}) {
        TrackOptions o;
        o.threshold = threshold;
        o.confirmFrames = 1;
        TrackRecognition t = g.tracks(o);
        int named = 0;
        for (int f = 0; f < static_cast<int>(take.size()); ++f)
            named += static_cast<int>(
                OfKind(Observe(t, 2, f, take[f]), TrackEventKind::Identified).size());
        const auto ended = t.end(2);
        ASSERT_TRUE(ended.ok());
        EXPECT_EQ(named, threshold == best ? 0 : 1) << "threshold " << threshold;
        EXPECT_EQ(ended->person, threshold == best ? 0 : 2);
        EXPECT_EQ(ended->name, threshold == best ? "" : "person2");
        if (threshold == best) {
            EXPECT_EQ(ended->score, best) << "an unknown track's best score";
        }
    }
}

// framesSeen counts every observation, facesUsed those with a face; the Ended event carries the
// last observed frame and time, and the identified person's best score over the track.
TEST(Tracks, EndedEventsCarryTheTracksLife) {
    DescriptorGallery g;
    TrackRecognition t = g.tracks();
    Stream ref = g.reference();
    int best = 0, faceless = 0;
    for (int f = 10; f < 40; ++f) {
        if (f % 4 == 3) {
            ++faceless;
            auto r = t.observeWithoutFace(9, f, f * 0.04);
            ASSERT_TRUE(r.ok()) << r.message();
            continue;
        }
        const FaceDescriptor face = g.faces.view(3);
        const StreamState said = Push(ref, face);
        for (const msmface::Match& m : said.ranking.matches)
            if (m.id == 4) best = std::max(best, m.score);
        auto r = t.observe(9, f, f * 0.04, face);
        ASSERT_TRUE(r.ok()) << r.message();
    }
    auto other = t.observe(2, 50, 2.0, g.faces.view(0));
    ASSERT_TRUE(other.ok());
    const auto ended = t.end(9);
    ASSERT_TRUE(ended.ok()) << ended.message();
    EXPECT_EQ(ended->kind, TrackEventKind::Ended);
    EXPECT_EQ(ended->track, 9);
    EXPECT_EQ(ended->framesSeen, 30);
    EXPECT_EQ(ended->facesUsed, 30 - faceless);
    EXPECT_GT(faceless, 0);
    EXPECT_EQ(ended->frame, 39);
    EXPECT_DOUBLE_EQ(ended->time, 39 * 0.04);
    EXPECT_EQ(ended->person, 4);
    EXPECT_EQ(ended->name, "person4");
    EXPECT_EQ(ended->score, best);
    // The other track lives on; endAll ends it, and nothing is left.
    ASSERT_EQ(t.tracks().size(), 1u);
    const auto rest = t.endAll();
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].track, 2);
    EXPECT_EQ(rest[0].framesSeen, 1);
    EXPECT_EQ(rest[0].frame, 50);
    EXPECT_TRUE(t.tracks().empty());
    ExpectFailure(t.end(9).status(), ErrorKind::NotFound, "track 9");
}

// Tracks of enrolled persons and of strangers start and end at random, interleaved, with faces
// that could not be used in between; numbers are reused after a track ends. Nobody is ever named
// on a track of another person or of a stranger, and an enrolled person followed long enough is
// named.
TEST(Tracks, RandomInterleavedTracksNeverCarryAWrongName) {
    constexpr int kStrangers = 3;
    int named = 0, longTracks = 0;
    for (uint32_t seed : {1u, 2u, 3u}) {
        DescriptorGallery g(kStrangers, 100 + seed);
        TrackOptions o;
        o.threshold = kStrangerThreshold;
        TrackRecognition t = g.tracks(o);
        std::mt19937 rng(seed);
        std::map<int, int> shows;  // live track -> the person it shows
        std::map<int, int> faces;  // live track -> faces shown
        std::set<int> namedTracks;
        auto check = [&](const TrackEvent& e) {
            if (e.kind == TrackEventKind::Identified) {
                const int truth = shows.at(e.track);
                EXPECT_LT(truth, kEnrolled) << "a stranger was named " << e.name;
                EXPECT_EQ(e.person, truth + 1) << "seed " << seed << " track " << e.track;
                EXPECT_EQ(namedTracks.count(e.track), 0u) << "named twice";
                namedTracks.insert(e.track);
                ++named;
            }
            if (e.kind == TrackEventKind::Ended) {
                const int truth = shows.at(e.track);
                EXPECT_TRUE(e.person == 0 || e.person == truth + 1);
                if (truth < kEnrolled && faces[e.track] >= 10) {
                    ++longTracks;
                    EXPECT_EQ(e.person, truth + 1) << "a person followed long was not named";
                }
                shows.erase(e.track);
                faces.erase(e.track);
                namedTracks.erase(e.track);
            }
        };
        for (int64_t frame = 0; frame < 300; ++frame) {
            if (shows.size() < 4 && rng() % 6 == 0) {
                const int track = static_cast<int>(rng() % 8);  // numbers come back
                if (shows.count(track) == 0)
                    shows[track] = static_cast<int>(rng() % (kEnrolled + kStrangers));
            }
            std::vector<int> order;
            for (const auto& [track, person] : shows) order.push_back(track);
            std::shuffle(order.begin(), order.end(), rng);
            for (int track : order) {
                const double time = frame / 30.0;
                auto r = rng() % 5 == 0 ? t.observeWithoutFace(track, frame, time)
                                        : t.observe(track, frame, time, g.faces.view(shows[track]));
                ASSERT_TRUE(r.ok()) << r.message();
                if (rng() % 5 != 0) ++faces[track];
                for (const TrackEvent& e : *r) check(e);
                if (rng() % 40 == 0) {
                    auto ended = t.end(track);
                    ASSERT_TRUE(ended.ok()) << ended.message();
                    check(*ended);
                }
            }
        }
        for (const TrackEvent& e : t.endAll()) check(e);
    }
    // The property is about something: many tracks were named, many were followed long.
    EXPECT_GE(named, 10);
    EXPECT_GE(longTracks, 10);
}

// An ended number observed again is a new track: it starts with an empty input and is named
// only after confirmFrames agreeing faces of whoever it shows now.
TEST(Tracks, AnEndedNumberStartsAFreshTrack) {
    DescriptorGallery g;
    TrackRecognition t = g.tracks();
    for (int f = 0; f < 10; ++f) Observe(t, 4, f, g.faces.view(0));
    ASSERT_EQ(t.tracks().at(0).person, 1);
    ASSERT_TRUE(t.end(4).ok());
    std::vector<TrackEvent> events;
    for (int f = 10; f < 13; ++f) {
        const auto got = Observe(t, 4, f, g.faces.view(1));
        if (f == 10) {
            ASSERT_FALSE(got.empty());
            EXPECT_EQ(got.front().kind, TrackEventKind::Started);
        }
        if (f < 12) {
            EXPECT_EQ(t.tracks().at(0).person, 0) << "named before its own faces agreed";
        }
        events.insert(events.end(), got.begin(), got.end());
    }
    const auto identified = OfKind(events, TrackEventKind::Identified);
    ASSERT_EQ(identified.size(), 1u);
    EXPECT_EQ(identified[0].person, 2);
    EXPECT_EQ(identified[0].frame, 12);
}

TEST(Tracks, RefusesBadObservationsAndChangesNoTrack) {
    DescriptorGallery g;
    TrackOptions o;
    o.maxTracks = 2;
    TrackRecognition t = g.tracks(o);
    const FaceDescriptor face = g.faces.view(0);
    ASSERT_TRUE(t.observe(1, 100, 4.0, face).ok());
    const auto before = t.tracks();
    ExpectFailure(t.observe(-1, 0, 0.0, face).status(), ErrorKind::Argument, "track -1");
    ExpectFailure(t.observe(1, 100, 4.1, face).status(), ErrorKind::Argument,
                  "expected a frame after the track's last, 100");
    ExpectFailure(t.observe(1, 99, 4.1, face).status(), ErrorKind::Argument, "frame 99");
    ExpectFailure(t.observe(1, 101, 3.9, face).status(), ErrorKind::Argument,
                  "before the track's last");
    for (double bad :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()})
        ExpectFailure(t.observeWithoutFace(1, 101, bad).status(), ErrorKind::Argument,
                      "not a finite number");
    // Not a descriptor: refused by the stream, named by the track.
    FaceDescriptor zero{};
    ExpectFailure(t.observe(1, 101, 4.1, zero).status(), ErrorKind::Argument, "track 1, frame 101");
    // A seed call on a gallery of descriptors.
    const std::vector<unsigned char> pixels(64 * 64, 128);
    msmface::FrameView view{pixels.data(), 64, 64};
    ExpectFailure(t.observe(1, 101, 4.1, view, msmface::FacePoints{}).status(), ErrorKind::Argument,
                  "holds descriptor patterns");
    ExpectFailure(t.end(3).status(), ErrorKind::NotFound, "track 3");
    // None of this touched track 1.
    const auto after = t.tracks();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].lastFrame, before[0].lastFrame);
    EXPECT_EQ(after[0].framesSeen, before[0].framesSeen);
    EXPECT_EQ(after[0].facesUsed, before[0].facesUsed);
    // A time that jumps forward is a frame like any other; so is a frame far ahead.
    ASSERT_TRUE(t.observe(1, 1000000, 3600.0, face).ok());
    // A failed first face starts no track.
    ExpectFailure(t.observe(8, 0, 0.0, zero).status(), ErrorKind::Argument, "track 8");
    EXPECT_EQ(t.tracks().size(), 1u);
    // The bound on live tracks.
    ASSERT_TRUE(t.observe(2, 0, 0.0, face).ok());
    ExpectFailure(t.observe(3, 0, 0.0, face).status(), ErrorKind::Argument, "maxTracks");
    ASSERT_TRUE(t.end(2).ok());
    EXPECT_TRUE(t.observe(3, 0, 0.0, face).ok());
}

TEST(Tracks, RefusesOptionsOutOfRange) {
    DescriptorGallery g;
    for (int confirm : {0, -1, 1001}) {
        TrackOptions o;
        o.confirmFrames = confirm;
        ExpectFailure(TrackRecognition::create(*g.gallery, o).status(), ErrorKind::Argument,
                      "confirmFrames " + std::to_string(confirm));
    }
    for (int tracks : {0, 10001}) {
        TrackOptions o;
        o.maxTracks = tracks;
        ExpectFailure(TrackRecognition::create(*g.gallery, o).status(), ErrorKind::Argument,
                      "maxTracks " + std::to_string(tracks));
    }
    TrackOptions o;
    o.threshold = 1001;
    ExpectFailure(TrackRecognition::create(*g.gallery, o).status(), ErrorKind::Argument, "1001");
    // The constraint methods need a constraint space: refused when made, not at a track's face.
    o = TrackOptions{};
    o.method = Method::Cmsm;
    EXPECT_EQ(TrackRecognition::create(*g.gallery, o).status().kind(), ErrorKind::NotFound);
}

// The tracks keep working after the Gallery object is gone, as a stream does, and pick up a
// person enrolled meanwhile.
TEST(Tracks, OutliveTheGalleryObjectAndSeeItsChanges) {
    DescriptorGallery g;
    TrackOptions o;
    o.threshold = kStrangerThreshold;
    TrackRecognition t = g.tracks(o);
    ASSERT_TRUE(g.gallery->remove(2).ok());
    for (int f = 0; f < 5; ++f) Observe(t, 0, f, g.faces.view(1));
    EXPECT_EQ(t.tracks().at(0).person, 0) << "a removed person was named";
    ASSERT_TRUE(
        g.gallery->enrol(2, Name(1), DescriptorSamples(g.faces.views(1, kEnrolViews))).ok());
    g.gallery.reset();
    std::vector<TrackEvent> events;
    for (int f = 0; f < 5; ++f) {
        const auto got = Observe(t, 1, f, g.faces.view(1));
        events.insert(events.end(), got.begin(), got.end());
    }
    const auto identified = OfKind(events, TrackEventKind::Identified);
    ASSERT_EQ(identified.size(), 1u);
    EXPECT_EQ(identified[0].person, 2);
}

// --- The engine's own patterns: frames and their points -------------------------------------

// A take's frame placed at (dx, dy) in a larger grey frame, its points moved with it.
struct Placed {
    std::vector<unsigned char> pixels;
    msmface::FrameView view;
    msmface::FacePoints points;
    Placed(const gallerytest::Take& take, std::size_t k, int width, int height, int dx, int dy)
        : pixels(static_cast<std::size_t>(width) * height, 90) {
        const msmface::FrameView src = take.view(k);
        for (int y = 0; y < src.height; ++y)
            std::copy(src.data + y * src.width, src.data + (y + 1) * src.width,
                      pixels.begin() + (y + dy) * width + dx);
        view = msmface::FrameView{pixels.data(), width, height};
        points = take.points(k);
        for (int i = 0; i < msmface::kFacePointCount; ++i) {
            points.xy[2 * i] += static_cast<float>(dx);
            points.xy[2 * i + 1] += static_cast<float>(dy);
        }
    }
};

// Two tracks of two synthetic persons in frames that change size from call to call: each is
// named its own person; a descriptor is refused on this kind.
TEST(SeedTracks, TwoTracksOfTwoPersonsInFramesOfChangingSize) {
    ScratchDir work;
    Gallery g = gallerytest::OpenOrDie(work / "gallery", true);
    for (int i = 0; i < 3; ++i) gallerytest::EnrolOrDie(g, i);
    auto made = TrackRecognition::create(g);
    ASSERT_TRUE(made.ok()) << made.message();
    TrackRecognition& t = *made;
    const auto& probe = gallerytest::Population::get().probe;
    std::map<int, int> namedAs;
    for (std::size_t k = 0; k < probe[0].frames.size(); ++k) {
        const int grow = static_cast<int>(k % 3) * 40;
        for (const auto& [track, person] : {std::pair{11, 2}, std::pair{12, 0}}) {
            const Placed frame(probe[person], k, gallerytest::kWidth + grow,
                               gallerytest::kHeight + grow, grow / 2, grow);
            auto r = t.observe(track, static_cast<int64_t>(k), k / 25.0, frame.view, frame.points);
            ASSERT_TRUE(r.ok()) << r.message();
            for (const TrackEvent& e : *r)
                if (e.kind == TrackEventKind::Identified) {
                    EXPECT_EQ(namedAs.count(track), 0u);
                    namedAs[track] = e.person;
                }
        }
    }
    EXPECT_EQ(namedAs[11], 3);
    EXPECT_EQ(namedAs[12], 1);
    ExpectFailure(t.observe(11, 1000, 100.0, FaceDescriptor{}).status(), ErrorKind::Argument,
                  "holds seed patterns");
    // Points that give no face: followed, not used.
    msmface::FacePoints absent;
    absent.xy.fill(-1.0f);
    const Placed frame(probe[0], 0, gallerytest::kWidth, gallerytest::kHeight, 0, 0);
    auto r = t.observe(12, 1000, 100.0, frame.view, absent);
    ASSERT_TRUE(r.ok()) << r.message();
    const auto ended = t.end(12);
    ASSERT_TRUE(ended.ok());
    EXPECT_EQ(ended->framesSeen, ended->facesUsed + 1);
    EXPECT_EQ(ended->person, 1);
}

}  // namespace
