// Galleries of descriptors: the kind a directory records, the enrol / recognise / remove /
// constraint cycle over synthetic descriptors, streams of descriptors, and what is refused
// without changing the directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <msmface/FileSummary.h>
#include <msmface/store.h>

#include "descriptor_support.h"
#include "dictionary/dictionary_check.h"
#include "gallery_support.h"
#include "recognition/descriptor_patterns.h"
#include "store/patterns_file.h"
#include "store/threshold_file.h"

namespace {

using gallerytest::DescriptorSamples;
using gallerytest::ExpectFailure;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::Snapshot;
using gallerytest::SynthDescriptors;
using gallerytest::WriteText;
using msmface::ErrorKind;
using msmface::FaceDescriptor;
using msmface::Gallery;
using msmface::Method;
using msmface::OpenOptions;
using msmface::PatternKind;
using msmface::RecogniseOptions;
using ::testing::HasSubstr;
namespace d = msmface::detail;

constexpr int kPersons = 4;
constexpr int kEnrolViews = 20;
constexpr int kProbeViews = 8;

OpenOptions Create(std::optional<PatternKind> kind) {
    OpenOptions o;
    o.create = true;
    o.patterns = kind;
    return o;
}

Gallery OpenDescriptors(const std::string& dir) {
    auto g = Gallery::open(dir, Create(PatternKind::Descriptor));
    EXPECT_TRUE(g.ok()) << g.message();
    if (!g.ok()) std::abort();
    return std::move(g).value();
}

std::string Name(int p) {
    return "person" + std::to_string(p + 1);
}

// A gallery of descriptors with kPersons persons enrolled under IDs 1.., and their faces.
struct Enrolled {
    ScratchDir work;
    std::string dir = work / "gallery";
    SynthDescriptors faces{kPersons, 42};
    Gallery gallery = OpenDescriptors(dir);

    Enrolled() {
        for (int p = 0; p < kPersons; ++p) {
            const msmface::Status s =
                gallery.enrol(p + 1, Name(p), DescriptorSamples(faces.views(p, kEnrolViews)));
            EXPECT_TRUE(s.ok()) << s.message();
        }
    }
    msmface::Result<msmface::Ranking> probe(int p, Method method) {
        return gallery.recognise(DescriptorSamples(faces.views(p, kProbeViews)),
                                 RecogniseOptions{method, -1});
    }
};

void ExpectEachPersonFirst(Enrolled& e, Method method) {
    for (int p = 0; p < kPersons; ++p) {
        const auto r = e.probe(p, method);
        ASSERT_TRUE(r.ok()) << r.message();
        ASSERT_EQ(r->matches.size(), static_cast<std::size_t>(e.gallery.persons().size()));
        EXPECT_EQ(r->matches.front().id, p + 1) << "method " << static_cast<int>(method);
        EXPECT_GT(r->matches[0].score, r->matches[1].score)
            << "method " << static_cast<int>(method);
        EXPECT_EQ(r->framesUsed, kProbeViews);
    }
}

TEST(DescriptorKind, NamesReadBackAndOnlyTheirOwn) {
    for (PatternKind kind : {PatternKind::Seed, PatternKind::Descriptor})
        EXPECT_EQ(msmface::patternKindNamed(msmface::patternKindName(kind)), kind);
    EXPECT_STREQ(msmface::patternKindName(PatternKind::Descriptor), "descriptor");
    EXPECT_STREQ(msmface::patternKindName(PatternKind::Seed), "seed");
    for (const char* other : {"", "Seed", "descriptors", "descriptor ", "1"})
        EXPECT_FALSE(msmface::patternKindNamed(other).has_value()) << other;
    EXPECT_EQ(msmface::defaultIdentifyThreshold(PatternKind::Seed),
              msmface::kDefaultIdentifyThreshold);
    // Descriptors score on their own scale: the engine's default would identify nobody.
    EXPECT_LT(msmface::defaultIdentifyThreshold(PatternKind::Descriptor),
              msmface::kDefaultIdentifyThreshold);
}

TEST(DescriptorKind, PatternsFileParserTakesOneKindNameAndRefusesTheRest) {
    PatternKind kind = PatternKind::Seed;
    for (PatternKind k : {PatternKind::Seed, PatternKind::Descriptor}) {
        ASSERT_EQ(d::parsePatternKind(d::formatPatternKind(k), kind), "");
        EXPECT_EQ(kind, k);
    }
    EXPECT_EQ(d::formatPatternKind(PatternKind::Descriptor), "descriptor\n");
    EXPECT_EQ(d::parsePatternKind("descriptor", kind), "");
    EXPECT_EQ(d::parsePatternKind("descriptor\r\n", kind), "");
    EXPECT_EQ(kind, PatternKind::Descriptor);
    for (const char* bad : {"", "\n", "descriptor\n\n", "descriptor\nseed\n", " descriptor\n",
                            "descriptors\n", "DESCRIPTOR\n", "descriptor \n"}) {
        kind = PatternKind::Descriptor;
        EXPECT_THAT(d::parsePatternKind(bad, kind), HasSubstr("expected \"seed\" or")) << bad;
    }
    std::string withZero("seed\n", 5);
    withZero.insert(2, 1, '\0');
    EXPECT_NE(d::parsePatternKind(withZero, kind), "");
}

TEST(DescriptorPattern, IsTheDirectionOfWhatIsLeftOnceTheCentreIsTakenAway) {
    SynthDescriptors faces(2, 3);
    const FaceDescriptor d = faces.view(0), c = faces.view(1);
    double dLength = 0.0;
    for (float v : d) dLength += static_cast<double>(v) * v;
    dLength = std::sqrt(dLength);
    float pattern[msmface::kDescriptorSize];
    for (const float* centre : {static_cast<const float*>(nullptr), c.data(),
                                static_cast<const float*>(msm::kDescriptorCentre)}) {
        ASSERT_EQ(msm::descriptorPattern(d, pattern, centre), "");
        double length = 0.0, along = 0.0, left = 0.0;
        for (int i = 0; i < msmface::kDescriptorSize; ++i) {
            // The centre is taken from the descriptor's unit direction.
            const double x = d[i] / dLength - (centre != nullptr ? centre[i] : 0.0f);
            length += static_cast<double>(pattern[i]) * pattern[i];
            along += pattern[i] * x;
            left += x * x;
        }
        EXPECT_NEAR(length, 1.0, 1e-6);
        // Parallel to what is left: the cosine is 1.
        EXPECT_NEAR(along / std::sqrt(left), 1.0, 1e-6);
        // The descriptor's length never moves it relative to the centre.
        FaceDescriptor scaled = d;
        for (float& v : scaled) v *= 37.5f;
        float again[msmface::kDescriptorSize];
        ASSERT_EQ(msm::descriptorPattern(scaled, again, centre), "");
        for (int i = 0; i < msmface::kDescriptorSize; ++i) EXPECT_NEAR(again[i], pattern[i], 1e-6);
    }
    FaceDescriptor unit = d;
    for (float& v : unit) v = static_cast<float>(v / dLength);
    EXPECT_THAT(msm::descriptorPattern(d, pattern, unit.data()), HasSubstr("the centre's"));
    // The shipped centre by default.
    float plain[msmface::kDescriptorSize];
    ASSERT_EQ(msm::descriptorPattern(d, plain), "");
    ASSERT_EQ(msm::descriptorPattern(d, pattern, msm::kDescriptorCentre), "");
    for (int i = 0; i < msmface::kDescriptorSize; ++i) EXPECT_EQ(plain[i], pattern[i]);
}

TEST(DescriptorKind, IsRecordedWhenCreatedAndKeptOnEveryLaterOpen) {
    ScratchDir work;
    const std::string dir = work / "new/descriptors";
    {
        Gallery g = OpenDescriptors(dir);
        EXPECT_EQ(g.patterns(), PatternKind::Descriptor);
        EXPECT_EQ(g.threshold(), msmface::defaultIdentifyThreshold(PatternKind::Descriptor));
    }
    EXPECT_EQ(ReadText(dir + "/patterns.txt"), "descriptor\n");
    auto again = Gallery::open(dir);
    ASSERT_TRUE(again.ok()) << again.message();
    EXPECT_EQ(again->patterns(), PatternKind::Descriptor);
    auto same = Gallery::open(dir, Create(PatternKind::Descriptor));
    ASSERT_TRUE(same.ok()) << same.message();

    // A Seed directory made by the gallery records nothing: it is what older versions write.
    const std::string seed = work / "seed";
    {
        auto g = Gallery::open(seed, Create(PatternKind::Seed));
        ASSERT_TRUE(g.ok()) << g.message();
        EXPECT_EQ(g->patterns(), PatternKind::Seed);
    }
    EXPECT_FALSE(gallerytest::Exists(seed + "/patterns.txt"));
    auto plain = Gallery::open(seed);
    ASSERT_TRUE(plain.ok());
    EXPECT_EQ(plain->patterns(), PatternKind::Seed);
}

TEST(DescriptorKind, OtherKindIsRefusedBothWaysNamingBothAndNothingChanges) {
    ScratchDir work;
    const std::string descriptors = work / "descriptors", seed = work / "seed";
    SynthDescriptors faces(1, 5);
    {
        Gallery g = OpenDescriptors(descriptors);
        ASSERT_TRUE(g.enrol(1, "ann", DescriptorSamples(faces.views(0, 5))).ok());
        Gallery s = gallerytest::OpenOrDie(seed, true);
        gallerytest::EnrolOrDie(s, 0);
    }
    for (bool create : {false, true}) {
        const auto before = Snapshot(descriptors);
        OpenOptions asSeed;
        asSeed.create = create;
        asSeed.patterns = PatternKind::Seed;
        ExpectFailure(Gallery::open(descriptors, asSeed).status(), ErrorKind::Argument,
                      "holds descriptor patterns, not seed patterns");
        EXPECT_EQ(Snapshot(descriptors), before);

        const auto seedBefore = Snapshot(seed);
        OpenOptions asDescriptors = asSeed;
        asDescriptors.patterns = PatternKind::Descriptor;
        const auto refused = Gallery::open(seed, asDescriptors);
        ASSERT_FALSE(refused.ok());
        EXPECT_EQ(refused.status().kind(), ErrorKind::Argument) << refused.message();
        EXPECT_THAT(refused.message(), HasSubstr("seed"));
        EXPECT_THAT(refused.message(), HasSubstr("descriptor"));
        EXPECT_EQ(Snapshot(seed), seedBefore);
    }
}

TEST(DescriptorKind, EmptyDirectoryWithoutKindTakesOneOnlyWhileItHoldsNothing) {
    ScratchDir work;
    const std::string dir = work / "empty";
    { gallerytest::OpenOrDie(dir, true); }  // made as a Seed directory: no kind file
    // Without create the kind is not recorded.
    OpenOptions noCreate;
    noCreate.patterns = PatternKind::Descriptor;
    ExpectFailure(Gallery::open(dir, noCreate).status(), ErrorKind::Argument,
                  "holds seed patterns, not descriptor patterns");
    EXPECT_FALSE(gallerytest::Exists(dir + "/patterns.txt"));
    // A stored threshold is one of Seed patterns: it is not carried over to descriptors.
    ASSERT_TRUE(gallerytest::OpenOrDie(dir).setThreshold(700).ok());
    const auto before = Snapshot(dir);
    ExpectFailure(Gallery::open(dir, Create(PatternKind::Descriptor)).status(), ErrorKind::Argument,
                  "threshold.txt: a file of seed patterns");
    EXPECT_EQ(Snapshot(dir), before);
    ASSERT_EQ(std::remove((dir + "/threshold.txt").c_str()), 0);
    Gallery g = OpenDescriptors(dir);
    EXPECT_EQ(g.patterns(), PatternKind::Descriptor);
    EXPECT_EQ(ReadText(dir + "/patterns.txt"), "descriptor\n");
}

TEST(DescriptorKind, DamagedPatternsFileFailsTheOpenNamingIt) {
    ScratchDir work;
    const std::string dir = work / "d";
    { OpenDescriptors(dir); }
    for (const std::string& text : {std::string("descriptr\n"), std::string(""),
                                    std::string("descriptor\nseed\n"), std::string(300, 'd')}) {
        WriteText(dir + "/patterns.txt", text);
        ExpectFailure(Gallery::open(dir).status(), ErrorKind::File, dir + "/patterns.txt: ");
    }
    ASSERT_EQ(std::remove((dir + "/patterns.txt").c_str()), 0);
    WriteText(work / "elsewhere", "descriptor\n");
    ASSERT_EQ(::symlink((work / "elsewhere").c_str(), (dir + "/patterns.txt").c_str()), 0);
    ExpectFailure(Gallery::open(dir).status(), ErrorKind::File, "found a symbolic link");
}

TEST(DescriptorGallery, EveryMethodPutsEachPersonFirst) {
    Enrolled e;
    ASSERT_EQ(e.gallery.persons().size(), static_cast<std::size_t>(kPersons));
    for (Method m : {Method::Msm, Method::SinglePattern}) ExpectEachPersonFirst(e, m);
    ExpectFailure(e.probe(0, Method::Cmsm).status(), ErrorKind::NotFound, "no constraint space");
    // The constraint space spans at most the descriptor's directions.
    const auto before = Snapshot(e.dir);
    ExpectFailure(e.gallery.rebuildConstraint(129), ErrorKind::Argument, "expected 1 to 128");
    ExpectFailure(e.gallery.rebuildConstraint(0), ErrorKind::Argument, "expected 1 to 128");
    // Beyond the directions the persons span, a space would weigh rounding noise most.
    ExpectFailure(e.gallery.rebuildConstraint(13), ErrorKind::Argument,
                  "dimension 13: the 4 persons' leading vectors span 12 directions");
    EXPECT_EQ(Snapshot(e.dir), before);
    // Four persons of three vectors each span twelve directions: the space whitens within them.
    for (int dimension : {8, 12}) {
        const msmface::Status s = e.gallery.rebuildConstraint(dimension);
        ASSERT_TRUE(s.ok()) << s.message();
        for (Method m : {Method::CmsmFirstSpace, Method::Cmsm}) ExpectEachPersonFirst(e, m);
    }
}

TEST(DescriptorGallery, PersonFilesAreTheEngineFormatsOfOneChannelOf128) {
    Enrolled e;
    ASSERT_TRUE(e.gallery.rebuildConstraint(12).ok());
    const std::string stem = e.dir + "/" + Name(0);
    EXPECT_TRUE(gallerytest::Exists(stem + ".dck"));
    EXPECT_TRUE(gallerytest::Exists(stem + ".mck"));
    // No face is normalised, so there is no picture of it.
    EXPECT_FALSE(gallerytest::Exists(stem + ".bmp"));
    EXPECT_EQ(msm::checkDictionaryFile(stem + ".dck", msm::personDictionaryShape(1, 128)), "");
    EXPECT_THAT(msm::checkDictionaryFile(stem + ".dck", msm::personDictionaryShape()),
                HasSubstr("sets, expected 5"));
    for (const char* ext : {".dck", ".mck"}) {
        char text[4096];
        const int n = msmface_describeFile((stem + ext).c_str(), text, sizeof text);
        ASSERT_GE(n, 0) << stem << ext << ": " << text;
        EXPECT_THAT(std::string(text), HasSubstr("128")) << ext;
    }
    const auto report = msmface::checkStore(e.dir);
    ASSERT_TRUE(report.ok()) << report.message();
    EXPECT_EQ(report->persons, kPersons);
    EXPECT_EQ(report->patterns, PatternKind::Descriptor);
    for (const msmface::StoreProblem& p : report->problems) ADD_FAILURE() << p.message;
}

TEST(DescriptorGallery, IdenticalFacesScore1000AndScaleDoesNotMatter) {
    ScratchDir work;
    SynthDescriptors faces(2, 9);
    Gallery g = OpenDescriptors(work / "g");
    // One photo is a person.
    const FaceDescriptor photo = faces.view(0);
    ASSERT_TRUE(g.enrol(1, "photo", DescriptorSamples({photo})).ok());
    ASSERT_TRUE(g.enrol(2, "other", DescriptorSamples(faces.views(1, 10))).ok());
    // The single pattern compares in float; the subspace methods in 14-bit fixed point, whose
    // truncation costs a few thousandths. A single photo is an input of its own.
    for (int copies : {1, 3}) {
        const std::vector<FaceDescriptor> same(static_cast<std::size_t>(copies), photo);
        const auto single = g.recognise(DescriptorSamples(same), {Method::SinglePattern, -1});
        ASSERT_TRUE(single.ok()) << single.message();
        EXPECT_EQ(single->matches.front().id, 1);
        EXPECT_EQ(single->matches.front().score, 1000);
        const auto msm = g.recognise(DescriptorSamples(same), {Method::Msm, -1});
        ASSERT_TRUE(msm.ok()) << msm.message();
        EXPECT_EQ(msm->matches.front().id, 1);
        EXPECT_GE(msm->matches.front().score, 997);
        EXPECT_LT(msm->matches[1].score, 900);
    }
    // A descriptor is compared by its direction: any positive scale scores the same.
    const std::vector<FaceDescriptor> probe = faces.views(1, 6);
    const auto plain = g.recognise(DescriptorSamples(probe));
    ASSERT_TRUE(plain.ok()) << plain.message();
    for (float scale : {1e-30f, 1e-6f, 1e15f}) {
        std::vector<FaceDescriptor> scaled = probe;
        for (FaceDescriptor& v : scaled)
            for (float& x : v) x *= scale;
        const auto r = g.recognise(DescriptorSamples(scaled));
        ASSERT_TRUE(r.ok()) << r.message();
        ASSERT_EQ(r->matches.size(), plain->matches.size());
        for (std::size_t i = 0; i < r->matches.size(); ++i) {
            EXPECT_EQ(r->matches[i].id, plain->matches[i].id) << scale;
            EXPECT_NEAR(r->matches[i].score, plain->matches[i].score, 1) << scale;
        }
    }
}

TEST(DescriptorGallery, RemovedPersonIsNoLongerRankedAndOthersStayFirst) {
    Enrolled e;
    ASSERT_TRUE(e.gallery.rebuildConstraint(10).ok());
    ASSERT_TRUE(e.gallery.remove(2).ok());
    EXPECT_FALSE(gallerytest::Exists(e.dir + "/" + Name(1) + ".dck"));
    for (Method m : {Method::Msm, Method::Cmsm}) {
        for (int p : {0, 2, 3}) {
            const auto r = e.probe(p, m);
            ASSERT_TRUE(r.ok()) << r.message();
            EXPECT_EQ(r->matches.size(), 3u);
            EXPECT_EQ(r->matches.front().id, p + 1);
            for (const msmface::Match& match : r->matches) EXPECT_NE(match.id, 2);
        }
    }
    // Read again from the disk, the directory says the same.
    auto reopened = Gallery::open(e.dir);
    ASSERT_TRUE(reopened.ok()) << reopened.message();
    EXPECT_EQ(reopened->persons().size(), 3u);
    EXPECT_TRUE(reopened->leftOut().empty());
}

TEST(DescriptorGallery, DescriptorsThatAreNoFaceAreRefusedAndNothingChanges) {
    Enrolled e;
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Bad {
        float value;
        int at;  // -1: every value
        const char* message;
    };
    const Bad bads[] = {
        {nan, 17, "descriptor value 18 of 128 is nan"},
        {inf, 0, "descriptor value 1 of 128 is inf"},
        {-inf, 127, "descriptor value 128 of 128 is -inf"},
        {0.0f, -1, "descriptor: every value is 0"},
        {2e19f, -1, "descriptor: its length is too large"},
        {std::numeric_limits<float>::max(), 3, "descriptor: its length is too large"},
    };
    auto stream = msmface::Stream::create(e.gallery);
    ASSERT_TRUE(stream.ok()) << stream.message();
    for (const Bad& bad : bads) {
        std::vector<FaceDescriptor> views = e.faces.views(3, 6);
        FaceDescriptor& spoiled = views[4];
        if (bad.at < 0)
            spoiled.fill(bad.value);
        else
            spoiled[static_cast<std::size_t>(bad.at)] = bad.value;
        const auto before = Snapshot(e.dir);
        ExpectFailure(e.gallery.enrol(9, "spoiled", DescriptorSamples(views)), ErrorKind::Argument,
                      std::string("frame 5 of 6: ") + bad.message);
        ExpectFailure(e.gallery.recognise(DescriptorSamples(views)).status(), ErrorKind::Argument,
                      std::string("frame 5 of 6: ") + bad.message);
        ExpectFailure(stream->push(spoiled).status(), ErrorKind::Argument, bad.message);
        EXPECT_EQ(Snapshot(e.dir), before) << bad.message;
        EXPECT_EQ(e.gallery.persons().size(), static_cast<std::size_t>(kPersons));
    }
}

TEST(DescriptorGallery, TheOtherKindOfFaceIsRefusedAndFacelessSamplesAreCounted) {
    Enrolled e;
    const auto before = Snapshot(e.dir);
    // Without a descriptor and without a finder a sample shows no face.
    const gallerytest::TinyFrames frames(6);
    std::vector<msmface::Sample> faceless;
    for (int k = 0; k < 6; ++k) {
        msmface::Sample s;
        s.frame = frames.view(k);
        s.points = gallerytest::Population::get().enrol[0].points(0);
        faceless.push_back(s);
    }
    ExpectFailure(e.gallery.enrol(9, "nobody", faceless), ErrorKind::Argument,
                  "only 0 of 6 frames gave a face descriptor");
    ExpectFailure(e.gallery.recognise(faceless).status(), ErrorKind::Argument,
                  "none of the frames gave a face");
    EXPECT_EQ(Snapshot(e.dir), before);
    // A stream of descriptors takes no points.
    auto stream = msmface::Stream::create(e.gallery);
    ASSERT_TRUE(stream.ok());
    ExpectFailure(stream->push(frames.view(0), faceless[0].points.value()).status(),
                  ErrorKind::Argument, "holds descriptor patterns");

    // A gallery of Seed patterns takes no descriptor.
    ScratchDir work;
    Gallery seed = gallerytest::OpenOrDie(work / "seed", true);
    gallerytest::EnrolOrDie(seed, 0);
    const auto seedBefore = Snapshot(work / "seed");
    std::vector<msmface::Sample> mixed = gallerytest::Population::get().enrol[1].samples();
    mixed[3].descriptor = e.faces.view(0);
    ExpectFailure(seed.enrol(2, "mixed", mixed), ErrorKind::Argument,
                  "frame 4 of 50: a descriptor, but");
    ExpectFailure(seed.recognise(mixed).status(), ErrorKind::Argument, "holds seed patterns");
    auto seedStream = msmface::Stream::create(seed);
    ASSERT_TRUE(seedStream.ok());
    ExpectFailure(seedStream->push(e.faces.view(0)).status(), ErrorKind::Argument,
                  "holds seed patterns");
    EXPECT_EQ(Snapshot(work / "seed"), seedBefore);
}

TEST(DescriptorGallery, FramesAloneGoThroughTheDescriptorFinder) {
    ScratchDir work;
    SynthDescriptors faces(2, 77);
    Gallery g = OpenDescriptors(work / "g");
    auto finder = std::make_shared<gallerytest::TableDescriptorFinder>();
    g.setDescriptorFinder(finder);
    const gallerytest::TinyFrames frames(40);
    std::vector<msmface::Sample> first, second, probe;
    for (int k = 0; k < 40; ++k) {
        // Every fourth frame shows no face the finder knows.
        if (k % 4 != 3) finder->table[frames.view(k).data] = faces.view(k < 20 ? 0 : 1);
        msmface::Sample s;
        s.frame = frames.view(k);
        (k < 15 ? first : k < 20 ? probe : second).push_back(s);
    }
    ASSERT_TRUE(g.enrol(1, "first", first).ok());
    ASSERT_TRUE(g.enrol(2, "second", second).ok());
    EXPECT_EQ(finder->calls, 35);
    const auto r = g.recognise(probe);
    ASSERT_TRUE(r.ok()) << r.message();
    EXPECT_EQ(r->matches.front().id, 1);
    EXPECT_EQ(r->framesUsed, 3);  // of frames 15..19, 16, 17 and 18 show a face

    // A finder's values are held to what a descriptor must be.
    finder->table[frames.view(16).data][5] = std::numeric_limits<float>::quiet_NaN();
    ExpectFailure(g.recognise(probe).status(), ErrorKind::Argument,
                  "frame 2 of 5: the descriptor finder gave descriptor value 6 of 128 is nan");

    // A stream uses its own finder for frames alone.
    msmface::StreamOptions options;
    auto describer = std::make_shared<gallerytest::TableDescriptorFinder>();
    options.describer = describer;
    for (int k = 20; k < 30; ++k) describer->table[frames.view(k).data] = faces.view(1);
    auto stream = msmface::Stream::create(g, options);
    ASSERT_TRUE(stream.ok()) << stream.message();
    msmface::StreamState state;
    for (int k = 20; k < 30; ++k) {
        auto s = stream->push(frames.view(k));
        ASSERT_TRUE(s.ok()) << s.message();
        EXPECT_TRUE(s->face);
        state = *s;
    }
    EXPECT_EQ(state.frames, 10);
    ASSERT_FALSE(state.ranking.matches.empty());
    EXPECT_EQ(state.ranking.matches.front().id, 2);
    auto none = stream->push(frames.view(35));  // unknown to the stream's finder
    ASSERT_TRUE(none.ok());
    EXPECT_FALSE(none->face);
    stream->reset();
    EXPECT_EQ(describer->resets, 1);
}

TEST(DescriptorStream, IdentifiesAPersonAndForgetsAfterTheRefreshTime) {
    Enrolled e;
    msmface::StreamOptions options;
    options.refreshTime = 2;
    auto stream = msmface::Stream::create(e.gallery, options);
    ASSERT_TRUE(stream.ok()) << stream.message();
    msmface::StreamState state;
    for (const FaceDescriptor& v : e.faces.views(2, 12)) {
        auto s = stream->push(v);
        ASSERT_TRUE(s.ok()) << s.message();
        EXPECT_TRUE(s->face);
        state = *s;
    }
    EXPECT_EQ(state.frames, 12);
    ASSERT_FALSE(state.ranking.matches.empty());
    EXPECT_EQ(state.ranking.matches.front().id, 3);
    EXPECT_EQ(state.ranking.threshold, msmface::defaultIdentifyThreshold(PatternKind::Descriptor));
    ASSERT_TRUE(state.ranking.identified.has_value());
    EXPECT_EQ(state.ranking.identified->id, 3);
    // Face-less frames up to the refresh time keep the input; the next one clears it.
    for (int k = 0; k < 2; ++k) {
        auto s = stream->pushWithoutFace();
        ASSERT_TRUE(s.ok());
        EXPECT_FALSE(s->face);
        EXPECT_EQ(s->frames, 12);
    }
    auto cleared = stream->pushWithoutFace();
    ASSERT_TRUE(cleared.ok());
    EXPECT_EQ(cleared->frames, 0);
    EXPECT_TRUE(cleared->ranking.matches.empty());
    // Another person's face starts afresh and is ranked as that person.
    for (const FaceDescriptor& v : e.faces.views(0, 6)) state = stream->push(v).value();
    EXPECT_EQ(state.frames, 6);
    EXPECT_EQ(state.ranking.matches.front().id, 1);
}

TEST(DescriptorStream, InputHoldsTheLast25FacesOnly) {
    Enrolled e;
    auto stream = msmface::Stream::create(e.gallery);
    ASSERT_TRUE(stream.ok());
    const auto scoreOf = [](const msmface::StreamState& s, int id) {
        for (const msmface::Match& m : s.ranking.matches)
            if (m.id == id) return m.score;
        return -1;
    };
    msmface::StreamState state;
    for (const FaceDescriptor& v : e.faces.views(0, 25)) state = stream->push(v).value();
    EXPECT_EQ(state.ranking.matches.front().id, 1);
    const int firstWhileSeen = scoreOf(state, 1);
    // Without a face-less frame between them, the second person's faces displace the first's
    // one by one; once 25 have come, nothing of the first is left.
    for (const FaceDescriptor& v : e.faces.views(1, 24)) state = stream->push(v).value();
    EXPECT_EQ(state.frames, 25);
    EXPECT_EQ(state.ranking.matches.front().id, 2);
    const int firstWithOneLeft = scoreOf(state, 1);
    state = stream->push(e.faces.view(1)).value();
    EXPECT_EQ(state.ranking.matches.front().id, 2);
    EXPECT_LT(scoreOf(state, 1), firstWithOneLeft);
    EXPECT_LT(scoreOf(state, 1), firstWhileSeen - 100);
}

TEST(DescriptorStream, PicksUpAPersonEnrolledWhileItRuns) {
    Enrolled e;
    auto stream = msmface::Stream::create(e.gallery);
    ASSERT_TRUE(stream.ok());
    SynthDescriptors late(kPersons + 1, 42);  // same seed: the first persons are the same
    std::vector<FaceDescriptor> newcomer = late.views(kPersons, 20);
    ASSERT_TRUE(e.gallery.enrol(9, "newcomer", DescriptorSamples(newcomer)).ok());
    msmface::StreamState state;
    for (const FaceDescriptor& v : late.views(kPersons, 6)) state = stream->push(v).value();
    ASSERT_EQ(state.ranking.matches.size(), static_cast<std::size_t>(kPersons + 1));
    EXPECT_EQ(state.ranking.matches.front().id, 9);
}

TEST(DescriptorThreshold, IsStoredWithItsKindAndNeverTakenForTheOther) {
    ScratchDir work;
    const std::string descriptors = work / "d", seed = work / "s";
    Gallery dg = OpenDescriptors(descriptors);
    Gallery sg = gallerytest::OpenOrDie(seed, true);
    ASSERT_TRUE(dg.setThreshold(640).ok());
    ASSERT_TRUE(sg.setThreshold(640).ok());
    // The Seed file stays byte for byte what older versions write.
    EXPECT_EQ(ReadText(seed + "/threshold.txt"),
              "# msmface identify threshold: a best score above it identifies the person (0 .. "
              "1000)\n640\n");
    EXPECT_THAT(ReadText(descriptors + "/threshold.txt"), HasSubstr("\ndescriptor 640\n"));
    EXPECT_EQ(Gallery::open(descriptors)->threshold(), 640);
    EXPECT_EQ(Gallery::open(seed)->threshold(), 640);
    EXPECT_EQ(msmface::checkStore(seed)->patterns, PatternKind::Seed);

    // Swapped, each is refused by the open, naming the file, rather than used.
    const std::string seedText = ReadText(seed + "/threshold.txt");
    const std::string descriptorText = ReadText(descriptors + "/threshold.txt");
    WriteText(seed + "/threshold.txt", descriptorText);
    WriteText(descriptors + "/threshold.txt", seedText);
    ExpectFailure(Gallery::open(descriptors).status(), ErrorKind::File,
                  descriptors + "/threshold.txt: line 2: a threshold for seed patterns");
    ExpectFailure(Gallery::open(seed).status(), ErrorKind::File,
                  seed + "/threshold.txt: line 2: a threshold for descriptor patterns");
    // check reports it too.
    const auto report = msmface::checkStore(descriptors);
    ASSERT_TRUE(report.ok());
    ASSERT_EQ(report->problems.size(), 1u);
    EXPECT_EQ(report->problems[0].kind, msmface::StoreProblemKind::UnreadableFile);
    EXPECT_EQ(report->problems[0].path, descriptors + "/threshold.txt");

    // The parser round-trips each kind and names the other.
    int value = -1;
    EXPECT_EQ(d::parseThreshold(d::formatThreshold(321, PatternKind::Descriptor), value,
                                PatternKind::Descriptor),
              "");
    EXPECT_EQ(value, 321);
    EXPECT_EQ(d::parseThreshold("seed 12\n", value), "");
    EXPECT_EQ(value, 12);
    EXPECT_EQ(d::parseThreshold(" descriptor\t 7 \n", value, PatternKind::Descriptor), "");
    EXPECT_EQ(value, 7);
    EXPECT_THAT(d::parseThreshold("descriptor 1001\n", value, PatternKind::Descriptor),
                HasSubstr("line 1: expected an identify threshold"));
    EXPECT_THAT(d::parseThreshold("descriptors 10\n", value, PatternKind::Descriptor),
                HasSubstr("found \"descriptors 10\""));
    EXPECT_THAT(d::parseThreshold("12\n", value, PatternKind::Descriptor),
                HasSubstr("a threshold for seed patterns, expected one for descriptor"));
    EXPECT_EQ(value, 7);
}

TEST(DescriptorStore, CheckKnowsTheKindFileAndHoldsDictionariesToTheDirectoryShape) {
    Enrolled e;
    ScratchDir work;
    Gallery seed = gallerytest::OpenOrDie(work / "seed", true);
    gallerytest::EnrolOrDie(seed, 0);
    // A Seed person's dictionary in place of a descriptor person's: it reads, but is not of
    // the directory's shape, and the gallery leaves that person out.
    WriteText(e.dir + "/" + Name(3) + ".dck", ReadText(work / "seed/person1.dck"));
    auto report = msmface::checkStore(e.dir);
    ASSERT_TRUE(report.ok());
    ASSERT_EQ(report->problems.size(), 1u);
    EXPECT_EQ(report->problems[0].kind, msmface::StoreProblemKind::UnreadableFile);
    EXPECT_EQ(report->problems[0].path, e.dir + "/" + Name(3) + ".dck");
    auto reopened = Gallery::open(e.dir);
    ASSERT_TRUE(reopened.ok()) << reopened.message();
    EXPECT_EQ(reopened->persons().size(), static_cast<std::size_t>(kPersons - 1));
    ASSERT_EQ(reopened->leftOut().size(), 1u);
    EXPECT_EQ(reopened->leftOut()[0].person.id, 4);

    // A damaged kind file is reported, and no person is condemned for it: a repair moves none
    // of their files.
    WriteText(e.dir + "/" + Name(3) + ".dck", ReadText(e.dir + "/" + Name(2) + ".dck"));
    WriteText(e.dir + "/patterns.txt", "descriptr\n");
    report = msmface::repairStore(e.dir);
    ASSERT_TRUE(report.ok()) << report.message();
    ASSERT_EQ(report->problems.size(), 1u) << report->problems[0].message;
    EXPECT_EQ(report->problems[0].path, e.dir + "/patterns.txt");
    EXPECT_FALSE(report->patterns.has_value());
    EXPECT_THAT(report->problems[0].message, HasSubstr("expected \"seed\" or \"descriptor\""));
    EXPECT_TRUE(report->repaired.empty());
    for (int p = 0; p < kPersons; ++p)
        EXPECT_TRUE(gallerytest::Exists(e.dir + "/" + Name(p) + ".dck"));

    // A temporary of the kind file is one of ours: a repair removes it.
    WriteText(e.dir + "/patterns.txt", "descriptor\n");
    WriteText(e.dir + "/patterns.txt.tmpAb12Cd", "desc");
    report = msmface::repairStore(e.dir);
    ASSERT_TRUE(report.ok());
    EXPECT_TRUE(report->problems.empty());
    EXPECT_FALSE(gallerytest::Exists(e.dir + "/patterns.txt.tmpAb12Cd"));
}

}  // namespace
