// The gallery as a host uses it: enrol, recognise, remove and reopen keep the registry, the files
// and the engine in step; the stored threshold and the constraint space are written, read back
// and used.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gallery_support.h"

namespace {

using gallerytest::BestId;
using gallerytest::EnrolOrDie;
using gallerytest::Exists;
using gallerytest::Names;
using gallerytest::OpenOrDie;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::WriteText;
using msmface::Gallery;
using msmface::Method;
using msmface::Person;
using msmface::RecogniseOptions;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Gallery, EnrolRecogniseRemoveAndReopenKeepRegistryFilesAndEngineInStep) {
    ScratchDir work;
    const std::string dir = work / "dict/sub";  // made with its parent
    Gallery g = OpenOrDie(dir, true);
    EXPECT_TRUE(g.persons().empty());
    for (int i = 0; i < 3; ++i) EnrolOrDie(g, i);
    EXPECT_THAT(Names(g.persons()), ElementsAre("1 person1", "2 person2", "3 person3"));
    EXPECT_THAT(ReadText(dir + "/persons.txt"), HasSubstr("1 person1\n2 person2\n3 person3\n"));
    for (const char* ext : {".dck", ".mck", ".bmp"}) EXPECT_TRUE(Exists(dir + "/person2" + ext));

    // Every person's fresh take ranks that person first, by MSM and by single patterns; every
    // person is scored, best first.
    for (int i = 0; i < 3; ++i)
        for (Method m : {Method::Msm, Method::SinglePattern}) {
            const auto r = g.recognise(Population::get().probe[i].samples(), {m, -1});
            ASSERT_TRUE(r.ok()) << r.message();
            ASSERT_EQ(r->matches.size(), 3u);
            EXPECT_EQ(r->matches[0].id, i + 1) << "method " << static_cast<int>(m);
            EXPECT_EQ(r->matches[0].name, Population::Name(i));
            EXPECT_GE(r->matches[0].score, r->matches[1].score);
            EXPECT_GE(r->matches[1].score, r->matches[2].score);
            EXPECT_EQ(r->framesUsed, Population::kProbeFrames);
            EXPECT_EQ(r->threshold, msmface::kDefaultIdentifyThreshold);
            EXPECT_EQ(r->identified.has_value(), r->matches[0].score > r->threshold);
        }

    // A second gallery on the directory reads the same persons and recognises the same way.
    {
        Gallery again = OpenOrDie(dir);
        EXPECT_EQ(Names(again.persons()), Names(g.persons()));
        ASSERT_TRUE(again.find(2).has_value());
        EXPECT_EQ(again.find(2)->name, "person2");
        EXPECT_FALSE(again.find(4).has_value());
        EXPECT_EQ(BestId(again, 2, Method::Msm), 3);
    }

    ASSERT_TRUE(g.remove(2).ok());
    EXPECT_THAT(Names(g.persons()), ElementsAre("1 person1", "3 person3"));
    for (const char* ext : {".dck", ".mck", ".bmp"}) EXPECT_FALSE(Exists(dir + "/person2" + ext));
    // The inside numbers moved down: person 3 is still found as person 3.
    EXPECT_EQ(BestId(g, 2, Method::Msm), 3);
    EXPECT_EQ(BestId(g, 0, Method::Msm), 1);
    EXPECT_THAT(Names(OpenOrDie(dir).persons()), ElementsAre("1 person1", "3 person3"));

    // The ID number and the key name are free again; the person comes back last.
    EnrolOrDie(g, 1);
    EXPECT_THAT(Names(OpenOrDie(dir).persons()),
                ElementsAre("1 person1", "3 person3", "2 person2"));
    EXPECT_EQ(BestId(g, 1, Method::Msm), 2);
}

TEST(Gallery, StoredThresholdIsWrittenReadBackAndDecidesIdentification) {
    ScratchDir work;
    Gallery g = OpenOrDie(work.path());
    EXPECT_EQ(g.threshold(), msmface::kDefaultIdentifyThreshold);
    EXPECT_FALSE(Exists(work / "threshold.txt"));
    for (int i = 0; i < 2; ++i) EnrolOrDie(g, i);
    const auto probe = Population::get().probe[0].samples();
    const auto plain = g.recognise(probe);
    ASSERT_TRUE(plain.ok());
    const int best = plain->matches[0].score;
    ASSERT_GT(best, 0);

    // Stored just below the best score: identified; the caller's threshold overrides it.
    ASSERT_TRUE(g.setThreshold(best - 1).ok());
    EXPECT_EQ(g.threshold(), best - 1);
    EXPECT_EQ(OpenOrDie(work.path()).threshold(), best - 1);
    auto r = g.recognise(probe);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r->threshold, best - 1);
    ASSERT_TRUE(r->identified.has_value());
    EXPECT_EQ(r->identified->id, 1);
    EXPECT_EQ(r->identified->score, best);
    r = g.recognise(probe, {Method::Msm, best});  // a score must exceed the threshold
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(r->identified.has_value());
    EXPECT_EQ(r->matches[0].score, best);

    for (int t : {0, 1000}) {
        ASSERT_TRUE(g.setThreshold(t).ok());
        EXPECT_EQ(OpenOrDie(work.path()).threshold(), t);
    }
    for (int t : {-1, 1001}) {
        const msmface::Status s = g.setThreshold(t);
        EXPECT_EQ(s.kind(), msmface::ErrorKind::Argument);
        EXPECT_THAT(s.message(), HasSubstr("expected 0 to 1000"));
    }
    EXPECT_EQ(OpenOrDie(work.path()).threshold(), 1000);
}

TEST(Gallery, ConstraintSpaceIsBuiltAndUsedAndFollowsLaterEnrolments) {
    ScratchDir work;
    Gallery g = OpenOrDie(work.path());
    EnrolOrDie(g, 0);
    msmface::Status s = g.rebuildConstraint(100);
    EXPECT_EQ(s.kind(), msmface::ErrorKind::Argument);
    EXPECT_THAT(s.message(), HasSubstr("a constraint space needs at least two persons"));
    const auto none = g.recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1});
    EXPECT_EQ(none.status().kind(), msmface::ErrorKind::NotFound);
    EXPECT_THAT(none.message(), HasSubstr("no constraint space yet"));

    for (int i = 1; i < 3; ++i) EnrolOrDie(g, i);
    EXPECT_FALSE(g.hasConstraint());
    for (int d : {0, 257}) {
        s = g.rebuildConstraint(d);
        EXPECT_EQ(s.kind(), msmface::ErrorKind::Argument);
        EXPECT_THAT(s.message(), HasSubstr("expected 1 to 256"));
    }
    ASSERT_TRUE(g.rebuildConstraint(100).ok());
    EXPECT_TRUE(g.hasConstraint());
    for (const char* f : {"cmsm.dck", "cmsm.dckev", "cmsm.mck", "constraint.list"})
        EXPECT_TRUE(Exists(work / f)) << f;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(BestId(g, i, Method::Cmsm), i + 1);
        EXPECT_EQ(BestId(g, i, Method::CmsmFirstSpace), i + 1);
    }
    // A person enrolled after the space was built is projected into the space as it is (its
    // files stay as they were until the next rebuild) and found, also by a stream made before
    // the enrolment.
    const std::vector<std::string> space = {
        ReadText(work / "cmsm.dck"), ReadText(work / "cmsm.dckev"), ReadText(work / "cmsm.mck"),
        ReadText(work / "constraint.list")};
    auto stream = msmface::Stream::create(g, msmface::StreamOptions{Method::Cmsm, -1, -2, nullptr});
    ASSERT_TRUE(stream.ok()) << stream.message();
    EnrolOrDie(g, 3);
    EXPECT_TRUE(space == (std::vector<std::string>{
                             ReadText(work / "cmsm.dck"), ReadText(work / "cmsm.dckev"),
                             ReadText(work / "cmsm.mck"), ReadText(work / "constraint.list")}));
    EXPECT_EQ(BestId(g, 3, Method::Cmsm), 4);
    const gallerytest::Take& probe = Population::get().probe[3];
    msmface::Result<msmface::StreamState> st =
        msmface::Status::failure(msmface::ErrorKind::Internal, "no frame");
    for (std::size_t k = 0; k < probe.frames.size(); ++k)
        st = stream->push(probe.view(k), probe.points(k));
    ASSERT_TRUE(st.ok()) << st.message();
    ASSERT_EQ(st->ranking.matches.size(), 4u);
    EXPECT_EQ(st->ranking.matches[0].id, 4);
    Gallery again = OpenOrDie(work.path());
    EXPECT_TRUE(again.hasConstraint());
    EXPECT_EQ(BestId(again, 3, Method::Cmsm), 4);
    // The next rebuild takes every person into the space.
    ASSERT_TRUE(again.rebuildConstraint(100).ok());
    for (int i = 0; i < 4; ++i) EXPECT_EQ(BestId(again, i, Method::Cmsm), i + 1);
}

}  // namespace
