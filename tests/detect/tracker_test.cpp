// The Tracker on videos made from real frames: several persons side by side entering and leaving
// at different times, a hard cut to another group, a crowd larger than maxFaces, and frames that
// are not what a camera gives.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <map>
#include <set>

#include <msmface/tracker.h>
#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>
#endif

#include "assembled_video.h"

namespace {

using namespace detecttest;
using msmface::Tracker;
using msmface::TrackerEvent;
using msmface::TrackerFrame;
using msmface::TrackerOptions;

std::vector<TrackerFrame> run(Tracker& tracker, const Video& video) {
    std::vector<TrackerFrame> out;
    for (const GreyFrame& f : video.frames) {
        auto r = tracker.update(f.view());
        EXPECT_TRUE(r.ok()) << r.message();
        if (!r.ok()) break;
        out.push_back(std::move(r).value());
    }
    return out;
}

TEST(Tracker, EveryPersonKeepsOneTrackUntilTheyLeaveOrTheShotCuts) {
    SKIP_UNLESS_PERSONS(6);
    // Shot one (frames 0 to 39): A from the start until 31, B enters at 6, C shows from 12 to
    // 29, F enters at 33 elsewhere while the tracks of A and C still wait for their faces. Shot
    // two (from 40) on another backdrop: D, and E entering at 44.
    constexpr int kCut = 40, kFrames = 56;
    const std::vector<Appearance> shown = {{0, 0, 31, 30, 150},
                                           {1, 6, kCut - 1, 245, 130},
                                           {2, 12, 29, 460, 160},
                                           {3, kCut, kFrames - 1, 60, 140},
                                           {4, 44, kFrames - 1, 400, 150},
                                           {5, 33, kCut - 1, 470, 305}};
    const Video video =
        compose(people, shown, kFrames, [](int t) -> unsigned char { return t < kCut ? 96 : 170; });
    TrackerOptions options;
    auto tracker = Tracker::create(*detector, options);
    ASSERT_TRUE(tracker.ok()) << tracker.message();
    const std::vector<TrackerFrame> frames = run(*tracker, video);
    ASSERT_EQ(frames.size(), video.frames.size());

    std::map<long, int> personOfTrack;
    std::map<int, std::set<long>> tracksOfPerson;
    std::map<int, int> framesFollowed;
    std::map<long, TrackerEvent> startedEvents, endedEvents;
    long highest = 0;
    for (int t = 0; t < kFrames; ++t) {
        const TrackerFrame& f = frames[t];
        EXPECT_EQ(f.index, t);
        EXPECT_EQ(f.cut, t == kCut) << "frame " << t << " change " << f.change;
        for (const msmface::TrackedFace& face : f.faces) {
            // Exactly one placed person under the track's box, and always the same one.
            std::vector<int> under;
            for (const auto& [person, eyes] : video.eyes[t])
                if (inside(face.face.box, eyes)) under.push_back(person);
            ASSERT_EQ(under.size(), 1u) << "track " << face.track << " in frame " << t;
            const auto known = personOfTrack.emplace(face.track, under.front()).first;
            EXPECT_EQ(known->second, under.front())
                << "track " << face.track << " carried two persons (frame " << t << ")";
            tracksOfPerson[under.front()].insert(face.track);
            ++framesFollowed[under.front()];
        }
        for (const TrackerEvent& e : f.events) {
            EXPECT_EQ(e.frame, t);
            if (e.kind == TrackerEvent::Kind::Started) {
                EXPECT_GT(e.track, highest) << "track number given twice or out of order";
                highest = e.track;
                EXPECT_TRUE(startedEvents.emplace(e.track, e).second);
            } else {
                EXPECT_TRUE(endedEvents.emplace(e.track, e).second) << "ended twice";
                EXPECT_EQ(startedEvents.count(e.track), 1u) << "ended before it started";
            }
        }
    }
    for (const TrackerEvent& e : tracker->finish()) {
        EXPECT_EQ(e.kind, TrackerEvent::Kind::Ended);
        EXPECT_TRUE(endedEvents.emplace(e.track, e).second);
    }
    EXPECT_EQ(tracker->liveTracks(), 0u);
    EXPECT_EQ(startedEvents.size(), endedEvents.size());
    int shownFrames = 0, followedFrames = 0;
    double largestChange = 0;
    for (const Appearance& a : shown) {
        shownFrames += a.last - a.first + 1;
        followedFrames += framesFollowed[a.person];
    }
    for (int t = 0; t < kFrames; ++t)
        if (t != kCut) largestChange = std::max(largestChange, frames[t].change);
    std::cout << followedFrames << " of " << shownFrames << " faces shown were tracked; "
              << personOfTrack.size() << " tracks; change at the cut " << frames[kCut].change
              << ", elsewhere at most " << largestChange << "\n";

    for (const Appearance& a : shown) {
        SCOPED_TRACE("person " + std::to_string(a.person) + " " + people[a.person].identity);
        ASSERT_EQ(tracksOfPerson[a.person].size(), 1u) << "one track for the whole appearance";
        const long track = *tracksOfPerson[a.person].begin();
        const TrackerEvent& started = startedEvents.at(track);
        const TrackerEvent& ended = endedEvents.at(track);
        // Found at once when nobody else is tracked, else by the next whole-frame search.
        EXPECT_LE(started.frame, a.first + options.detectEvery);
        EXPECT_TRUE(inside(started.box, video.eyes[started.frame].at(a.person)));
        const int shownFrames = a.last - a.first + 1;
        EXPECT_GE(framesFollowed[a.person], shownFrames - options.detectEvery);
        EXPECT_EQ(ended.framesSeen, framesFollowed[a.person]);
        EXPECT_LE(ended.lastFrame, a.last);
        if (a.last == kCut - 1) {
            EXPECT_EQ(ended.frame, kCut) << "a cut ends every track at once";
        } else if (a.last < kCut - 1 - options.keepUnseen) {
            // Left the picture: ended once unseen for longer than keepUnseen frames.
            EXPECT_EQ(ended.frame, ended.lastFrame + options.keepUnseen + 1);
            EXPECT_GE(ended.lastFrame, a.last - 1);
        }
        if (a.first >= kCut) {
            for (const auto& [number, before] : personOfTrack)
                if (shown[before].last < kCut) {
                    EXPECT_GT(track, number) << "numbers after a cut are new ones";
                }
        }
    }
}

TEST(Tracker, ACrowdIsBoundedByMaxFacesLargestFirst) {
    SKIP_UNLESS_PERSONS(6);
    // Six persons on a 3 x 2 grid, the three of the top row larger (eyes 45 pixels apart
    // against 33).
    std::vector<Appearance> shown;
    for (int k = 0; k < 6; ++k)
        shown.push_back({k, 0, 100, 15.0 + 213 * (k % 3), k < 3 ? 10.0 : 255.0,
                         (k < 3 ? 45 : 33) / people[k].eyeDistance});
    const Video video = compose(people, shown, kRealFrameStep == 1 ? 12 : 6,
                                [](int) -> unsigned char { return 96; });
    TrackerOptions options;
    options.maxFaces = 3;
    options.detectEvery = 4;
    auto tracker = Tracker::create(*detector, options);
    ASSERT_TRUE(tracker.ok()) << tracker.message();
    std::set<long> numbers;
    for (size_t t = 0; t < video.frames.size(); ++t) {
        auto f = tracker->update(video.frames[t].view());
        ASSERT_TRUE(f.ok()) << f.message();
        EXPECT_LE(tracker->liveTracks(), 3u);
        EXPECT_EQ(f->faces.size(), 3u) << "frame " << t;
        for (const auto& face : f->faces) {
            numbers.insert(face.track);
            bool large = false;
            for (int k = 0; k < 3; ++k) large = large || inside(face.face.box, video.eyes[t].at(k));
            EXPECT_TRUE(large) << "a smaller face was taken before a larger one";
        }
    }
    EXPECT_EQ(numbers, (std::set<long>{1, 2, 3}));

    // Hundreds of small faces in one frame: still at most maxFaces, and no crash.
    GreyFrame crowd = canvas(640, 480);
    for (int k = 0; k < 300; ++k)
        paste(people[k % 6].picture, 0.2, (k % 20) * 32.0, (k / 20) * 32.0, crowd);
    auto f = tracker->update(crowd.view());
    ASSERT_TRUE(f.ok()) << f.message();
    EXPECT_LE(f->faces.size(), 3u);
    EXPECT_LE(tracker->liveTracks(), 3u);
}

// A face hidden for a moment (keepUnseen frames or fewer) keeps its number; hidden longer, its
// track ends and it comes back under a new one. The other person's track is never disturbed.
TEST(Tracker, AFaceHiddenForAMomentKeepsItsNumber) {
    SKIP_UNLESS_PERSONS(2);
    const int keep = TrackerOptions{}.keepUnseen;
    // Person 0 hidden for keep frames from frame 4, then for keep + 2 frames from 14.
    const double s0 = 40 / people[0].eyeDistance;
    const std::vector<Appearance> shown = {
        {0, 0, 3, 10, 30, s0},          {0, 4, 3 + keep, 10, 30, s0, true},
        {0, 4 + keep, 13, 10, 30, s0},  {0, 14, 15 + keep, 10, 30, s0, true},
        {0, 16 + keep, 40, 10, 30, s0}, {1, 0, 40, 170, 40, 40 / people[1].eyeDistance}};
    // Back after the long absence, it is found by the next whole-frame search.
    const int count = 16 + keep + TrackerOptions{}.detectEvery + 1;
    const Video video = compose(
        people, shown, count, [](int) -> unsigned char { return 120; }, 320, 240);
    auto tracker = Tracker::create(*detector);
    ASSERT_TRUE(tracker.ok());
    std::vector<std::set<long>> numbers(4);
    std::vector<long> endedTracks;
    for (int t = 0; t < count; ++t) {
        const auto f = tracker->update(video.frames[t].view());
        ASSERT_TRUE(f.ok());
        for (const auto& face : f->faces)
            for (const auto& [person, eyes] : video.eyes[t])
                if (inside(face.face.box, eyes)) {
                    // Person 0's numbers by the part of the video it is seen in: before, between
                    // and after the absences.
                    const size_t part = person == 1 ? 3 : t < 4 ? 0 : t < 14 ? 1 : 2;
                    numbers[part].insert(face.track);
                }
        EXPECT_FALSE(f->cut) << t;
        for (const auto& e : f->events)
            if (e.kind == TrackerEvent::Kind::Ended) endedTracks.push_back(e.track);
    }
    for (const auto& part : numbers) ASSERT_EQ(part.size(), 1u);
    EXPECT_EQ(numbers[0], numbers[1]) << "the short absence kept the number";
    EXPECT_NE(numbers[1], numbers[2]) << "the long one ended the track";
    EXPECT_EQ(endedTracks, std::vector<long>{*numbers[0].begin()});
}

// A face smaller than the detector's window entering beside a large one that is tracked: found by
// the doubled search within detectEvery whole-frame searches, unless minFaceSide rules it out.
TEST(Tracker, SmallFacesJoinWhileLargeOnesAreTracked) {
    SKIP_UNLESS_PERSONS(2);
    const std::vector<Appearance> shown = {{0, 0, 100, 10, 20, 42 / people[0].eyeDistance},
                                           {1, 2, 100, 210, 90, 22 / people[1].eyeDistance}};
    const Video video = compose(
        people, shown, 14, [](int) -> unsigned char { return 100; }, 320, 240);
    for (const int minFaceSide : {0, detecttest::kDetectorWindowSide}) {
        SCOPED_TRACE("minFaceSide " + std::to_string(minFaceSide));
        TrackerOptions options;
        options.detectEvery = 3;
        options.minFaceSide = minFaceSide;
        auto tracker = Tracker::create(*detector, options);
        ASSERT_TRUE(tracker.ok());
        int firstSmall = -1;
        for (size_t t = 0; t < video.frames.size(); ++t) {
            const auto f = tracker->update(video.frames[t].view());
            ASSERT_TRUE(f.ok());
            for (const auto& face : f->faces) {
                const auto& eyes = video.eyes[t];
                const bool small = eyes.count(1) > 0 && inside(face.face.box, eyes.at(1));
                EXPECT_NE(small, inside(face.face.box, eyes.at(0)));
                if (small && firstSmall < 0) firstSmall = static_cast<int>(t);
                if (small) {
                    EXPECT_LT(face.face.box.width, detecttest::kDetectorWindowSide);
                }
            }
        }
        if (minFaceSide == 0) {
            EXPECT_GE(firstSmall, 2);
            EXPECT_LE(firstSmall, 2 + options.detectEvery * options.detectEvery);
        } else {
            EXPECT_EQ(firstSmall, -1);
        }
    }
}

// The pixels' layout is the caller's: a BGR frame with padded rows of the same greys gives the
// same tracks, boxes and landmarks as the grey frame.
TEST(Tracker, ColourFramesWithPaddedRowsTrackAsGreyOnes) {
    SKIP_UNLESS_PERSONS(2);
    const std::vector<Appearance> shown = {{0, 0, 100, 10, 30, 40 / people[0].eyeDistance},
                                           {1, 0, 100, 170, 40, 40 / people[1].eyeDistance}};
    const Video video = compose(
        people, shown, 4, [](int) -> unsigned char { return 120; }, 320, 240);
    auto grey = Tracker::create(*detector);
    auto colour = Tracker::create(*detector);
    ASSERT_TRUE(grey.ok() && colour.ok());
    size_t tracked = 0;
    for (const GreyFrame& f : video.frames) {
        const int stride = 3 * f.width + 7;
        std::vector<unsigned char> bgr(static_cast<size_t>(stride) * f.height, 255);
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x)
                for (int c = 0; c < 3; ++c)
                    bgr[static_cast<size_t>(y) * stride + 3 * x + c] =
                        f.pixels[static_cast<size_t>(y) * f.width + x];
        const auto a = grey->update(f.view());
        const auto b =
            colour->update({bgr.data(), f.width, f.height, stride, msmface::PixelFormat::BGR});
        ASSERT_TRUE(a.ok() && b.ok()) << b.message();
        ASSERT_EQ(a->faces.size(), b->faces.size());
        for (size_t k = 0; k < a->faces.size(); ++k) {
            EXPECT_EQ(a->faces[k].track, b->faces[k].track);
            EXPECT_EQ(a->faces[k].face.landmarks, b->faces[k].face.landmarks);
        }
        EXPECT_EQ(a->change, b->change);
        tracked += a->faces.size();
    }
    EXPECT_EQ(tracked, 8u);
}

// Detecting every frame afresh gives the faces Detector::detect gives, the largest maxFaces,
// each carrying the number of the face at its place in the previous frame.
TEST(Tracker, DetectingEveryFrameAgreesWithTheDetector) {
    SKIP_UNLESS_PERSONS(3);
    std::vector<Appearance> shown;
    for (int k = 0; k < 3; ++k)
        shown.push_back(
            {k, 0, 100, 20.0 + 210 * k, 60.0 + 50 * k, (36 + 4 * k) / people[k].eyeDistance});
    const Video video = compose(people, shown, kRealFrameStep == 1 ? 6 : 3,
                                [](int) -> unsigned char { return 110; });
    TrackerOptions options;
    options.detectEvery = 1;
    options.maxFaces = 2;
    auto tracker = Tracker::create(*detector, options);
    ASSERT_TRUE(tracker.ok());
    std::map<int, long> trackOfPerson;
    for (size_t t = 0; t < video.frames.size(); ++t) {
        const auto expected = detector->detect(video.frames[t].view());
        ASSERT_TRUE(expected.ok());
        ASSERT_EQ(expected->size(), 3u);
        const auto got = tracker->update(video.frames[t].view());
        ASSERT_TRUE(got.ok());
        ASSERT_EQ(got->faces.size(), 2u);
        for (const auto& face : got->faces) {
            EXPECT_TRUE(face.detected);
            bool same = false;
            for (size_t k = 0; k < 2; ++k)
                same = same || (face.face.box.left == (*expected)[k].box.left &&
                                face.face.box.top == (*expected)[k].box.top &&
                                face.face.box.width == (*expected)[k].box.width &&
                                face.face.landmarks == (*expected)[k].landmarks);
            EXPECT_TRUE(same) << "frame " << t << ", track " << face.track;
            int person = -1;
            for (const auto& [k, eyes] : video.eyes[t])
                if (inside(face.face.box, eyes)) person = k;
            EXPECT_NE(person, 0) << "the smallest face is not among the largest two";
            EXPECT_EQ(trackOfPerson.emplace(person, face.track).first->second, face.track);
        }
    }
    EXPECT_EQ(trackOfPerson.size(), 2u);
}

#ifdef MSMFACE_HAVE_DESCRIPTOR
// A track's face serves the learned descriptor as well as the fourteen points: its landmarks cut
// a chip the descriptor describes, each track's descriptors stay alike from frame to frame and
// are nearer to each other than to any other track's.
TEST(Tracker, TrackedFacesFeedTheDescriptor) {
    SKIP_UNLESS_PERSONS(3);
    auto descriptor = msmface::Descriptor::load();
    if (!descriptor.ok()) GTEST_SKIP() << descriptor.message();
    std::vector<Appearance> shown;
    for (int k = 0; k < 3; ++k)
        shown.push_back({k, 0, 100, 20.0 + 210 * k, 120, 40 / people[k].eyeDistance});
    const Video video = compose(people, shown, 4, [](int) -> unsigned char { return 100; });
    auto tracker = Tracker::create(*detector);
    ASSERT_TRUE(tracker.ok());
    std::map<long, std::vector<msmface::FaceDescriptor>> described;
    for (const GreyFrame& f : video.frames) {
        const auto tracked = tracker->update(f.view());
        ASSERT_TRUE(tracked.ok());
        for (const auto& face : tracked->faces) {
            const auto d = descriptor->compute(f.view(), face.face);
            ASSERT_TRUE(d.ok()) << d.message();
            described[face.track].push_back(d.value());
        }
    }
    ASSERT_EQ(described.size(), 3u);
    double sameLowest = 1, otherHighest = -1;
    for (const auto& [track, ds] : described) {
        EXPECT_EQ(ds.size(), video.frames.size());
        for (const auto& a : ds) {
            for (const auto& b : ds) sameLowest = std::min(sameLowest, cosine(a, b));
            for (const auto& [other, os] : described)
                if (other != track) otherHighest = std::max(otherHighest, cosine(a, os.front()));
        }
    }
    EXPECT_GT(sameLowest, 0.9);
    EXPECT_LT(otherHighest, sameLowest);
}
#endif

// A real frame stretched over a 320 x 240 camera frame (nearest pixel), so that frames of any
// size compare as pictures of one camera.
GreyFrame stretched(const GreyFrame& f) {
    GreyFrame out = canvas(320, 240);
    for (int y = 0; y < out.height; ++y)
        for (int x = 0; x < out.width; ++x)
            out.pixels[static_cast<size_t>(y) * out.width + x] =
                f.pixels[static_cast<size_t>(y * f.height / out.height) * f.width +
                         x * f.width / out.width];
    return out;
}

// The change between frames on real footage: a frame of another person (a cut) lies above the
// threshold nearly always; one video's next frame (seconds later, tight around the face: much
// more motion than a camera's next frame) rarely, and a picture drifting a few pixels never.
// Each frame pair goes through a tracker of its own that searches no faces (minFaceSide larger
// than any frame).
TEST(Tracker, TellsCutsFromTheSameShotOnRealFrames) {
    if (!haveModel()) GTEST_SKIP() << "no landmark model at " << msmface::kDefaultLandmarkModel;
    const std::vector<RealFace> faces = loadRealFaces(1);
    if (faces.empty()) GTEST_SKIP() << "no face data at " << facesFolder();
    const msmface::Detector* detector = sharedDetector();
    ASSERT_NE(detector, nullptr);
    TrackerOptions options;
    options.minFaceSide = 16384;
    auto change = [&](const GreyFrame& a, const GreyFrame& b) {
        auto tracker = Tracker::create(*detector, options);
        EXPECT_TRUE(tracker->update(a.view()).ok());
        auto second = tracker->update(b.view());
        EXPECT_TRUE(second.ok());
        EXPECT_EQ(second->cut, second->change > options.cutThreshold);
        return second->change;
    };
    auto video = [](const RealFace& f) { return f.image.substr(0, f.image.rfind('f')); };
    std::vector<GreyFrame> frames;
    for (const RealFace& f : faces) frames.push_back(stretched(f.frame));
    int same = 0, sameCut = 0, other = 0, otherCut = 0;
    // Sanitized builds compare the pairs that start at every third frame.
    for (size_t i = 0; i < faces.size(); i += kRealFrameStep == 1 ? 1 : 3) {
        if (i + 1 < faces.size() && video(faces[i]) == video(faces[i + 1])) {
            ++same;
            sameCut += change(frames[i], frames[i + 1]) > options.cutThreshold ? 1 : 0;
        }
        const size_t j = (i + 37) % faces.size();
        if (faces[i].identity != faces[j].identity) {
            ++other;
            otherCut += change(frames[i], frames[j]) > options.cutThreshold ? 1 : 0;
        }
    }
    // The whole picture drifting: moved 2 pixels and grown 1 % a frame.
    GreyFrame previous;
    double worstDrift = 0;
    for (int t = 0; t < 12; ++t) {
        GreyFrame f = canvas(320, 240);
        paste(frames.front(), 1.0 + 0.01 * t, -2.0 * t, -1.0 * t, f);
        if (t > 0) worstDrift = std::max(worstDrift, change(previous, f));
        previous = std::move(f);
    }
    std::cout << "one video's next frame: " << sameCut << " cuts of " << same
              << "; another person: " << otherCut << " cuts of " << other
              << "; drifting: largest change " << worstDrift << "\n";
    ASSERT_GT(same, 10);
    ASSERT_GT(other, 10);
    EXPECT_LE(sameCut, 0.02 * same);
    EXPECT_GE(otherCut, 0.9 * other);
    EXPECT_LT(worstDrift, options.cutThreshold / 2);
}

TEST(Tracker, BadFramesAndOptionsAreRefusedWithOneLine) {
    if (!haveModel()) GTEST_SKIP() << "no landmark model at " << msmface::kDefaultLandmarkModel;
    const msmface::Detector* detector = sharedDetector();
    ASSERT_NE(detector, nullptr);
    auto refused = [&](TrackerOptions o, const char* name) {
        auto t = Tracker::create(*detector, o);
        ASSERT_FALSE(t.ok()) << name;
        EXPECT_EQ(t.status().kind(), msmface::ErrorKind::Argument);
        EXPECT_NE(t.message().find(name), std::string::npos) << t.message();
        EXPECT_EQ(t.message().find('\n'), std::string::npos);
    };
    TrackerOptions o;
    o.maxFaces = 0;
    refused(o, "maxFaces");
    o = {};
    o.maxFaces = 100000;
    refused(o, "maxFaces");
    o = {};
    o.detectEvery = 0;
    refused(o, "detectEvery");
    o = {};
    o.keepUnseen = -1;
    refused(o, "keepUnseen");
    o = {};
    o.cutThreshold = std::nan("");
    refused(o, "cutThreshold");
    o = {};
    o.minFaceSide = -3;
    refused(o, "minFaceSide");

    auto tracker = Tracker::create(*detector);
    ASSERT_TRUE(tracker.ok());
    const GreyFrame blank = canvas(64, 48);
    ASSERT_TRUE(tracker->update(blank.view()).ok());
    std::vector<msmface::FrameView> bad(5, blank.view());
    bad[0].data = nullptr;
    bad[1].width = 0;
    bad[2].height = 20000;
    bad[3].stride = 10;
    bad[4].format = static_cast<msmface::PixelFormat>(2);
    for (const auto& view : bad) {
        auto r = tracker->update(view);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.status().kind(), msmface::ErrorKind::Argument);
        EXPECT_EQ(r.message().rfind("frame: ", 0), 0u) << r.message();
        EXPECT_EQ(r.message().find('\n'), std::string::npos);
    }
    // The refused views were not frames of the video: the next one is frame 1, no cut.
    auto next = tracker->update(blank.view());
    ASSERT_TRUE(next.ok());
    EXPECT_EQ(next->index, 1);
    EXPECT_FALSE(next->cut);
    EXPECT_EQ(next->change, 0);
}

TEST(Tracker, ChangingSizesLongEmptyRunsAndFacesAtTheBorder) {
    SKIP_UNLESS_PERSONS(2);
    auto tracker = Tracker::create(*detector);
    ASSERT_TRUE(tracker.ok());
    // A person in a 320 x 240 frame, then the same person in a frame of another size: a cut.
    GreyFrame small = canvas(320, 240);
    paste(people[0].picture, 1.0, 80, 30, small);
    for (int t = 0; t < 3; ++t) {
        auto f = tracker->update(small.view());
        ASSERT_TRUE(f.ok());
        ASSERT_EQ(f->faces.size(), 1u);
    }
    GreyFrame other = canvas(400, 240);
    paste(people[0].picture, 1.0, 80, 30, other);
    auto resized = tracker->update(other.view());
    ASSERT_TRUE(resized.ok());
    EXPECT_TRUE(resized->cut);
    ASSERT_FALSE(resized->events.empty());
    EXPECT_EQ(resized->events.front().kind, TrackerEvent::Kind::Ended);
    EXPECT_EQ(resized->events.front().track, 1);
    EXPECT_EQ(resized->events.front().framesSeen, 3);
    ASSERT_EQ(resized->faces.size(), 1u);
    EXPECT_EQ(resized->faces.front().track, 2) << "a new shot gives new numbers";

    // A long run without faces: the track ends after keepUnseen frames, nothing else happens.
    const GreyFrame empty = canvas(400, 240, 90);
    int endedAt = -1;
    for (int t = 0; t < 30; ++t) {
        auto f = tracker->update(empty.view());
        ASSERT_TRUE(f.ok());
        EXPECT_TRUE(f->faces.empty());
        EXPECT_FALSE(f->cut) << t;
        for (const auto& e : f->events) {
            EXPECT_EQ(e.kind, TrackerEvent::Kind::Ended);
            endedAt = t;
        }
    }
    EXPECT_EQ(endedAt, TrackerOptions{}.keepUnseen);
    EXPECT_EQ(tracker->liveTracks(), 0u);

    // A face filling the frame, and faces cut by every border: whatever is found is inside the
    // frame's neighbourhood, and nothing breaks.
    GreyFrame filled = canvas(people[1].picture.width, people[1].picture.height);
    paste(people[1].picture, 1.6, -0.3 * people[1].picture.width, -0.25 * people[1].picture.height,
          filled);
    ASSERT_TRUE(tracker->update(filled.view()).ok());
    GreyFrame borders = canvas(400, 240);
    paste(people[0].picture, 1.0, -70, 40, borders);
    paste(people[1].picture, 1.0, 330, -60, borders);
    paste(people[0].picture, 1.0, 150, 150, borders);
    for (int t = 0; t < 4; ++t) {
        auto f = tracker->update(borders.view());
        ASSERT_TRUE(f.ok());
        for (const auto& face : f->faces) {
            EXPECT_LT(face.face.box.left, 400);
            EXPECT_LT(face.face.box.top, 240);
            EXPECT_GT(face.face.box.left + face.face.box.width, 0);
            EXPECT_GT(face.face.box.top + face.face.box.height, 0);
        }
    }
    // The numbers of a later video on the same tracker go on upward.
    std::set<long> before;
    for (const auto& e : tracker->finish()) before.insert(e.track);
    auto again = tracker->update(small.view());
    ASSERT_TRUE(again.ok());
    ASSERT_EQ(again->faces.size(), 1u);
    for (long n : before) EXPECT_GT(again->faces.front().track, n);
    EXPECT_GT(again->faces.front().track, 2);
}

}  // namespace
