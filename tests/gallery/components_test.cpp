// The gallery's enrolment, removal and rebuild on the components: the files are those a legacy
// host writes for the same frames, and a call that fails leaves the directory as it was.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msmface/FaceRecognition.h>
#include <msmface/store.h>

#include <msmface/face_input.h>

#include "common/fixed_clock.h"
#include "gallery/frame_input.h"
#include "gallery/gallery_impl.h"
#include "gallery_support.h"
#include "legacy_host.h"
#include "normalise/face_cropping.h"
#include "numeric/diagnostics.h"

namespace {

using gallerytest::BestId;
using gallerytest::EnrolOrDie;
using gallerytest::Exists;
using gallerytest::ExpectFailure;
using gallerytest::OpenOrDie;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::Snapshot;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Method;
using msmface::Sample;

msm::ClockReading PiDay() {
    return {3, 14, 26, 15, 9, 26};
}

// A host of the legacy engine that enrols as hosts of the exported interface do: the faces of
// the frames cropped one by one while the engine gathers them.
class LegacyHost {
  public:
    explicit LegacyHost(const std::string& dir)
        : engine_(gallerytest::kLegacyFrameWidth, gallerytest::kLegacyFrameHeight), dir_(dir) {
        EXPECT_EQ(gallerytest::LoadPersons(engine_, dir, {}, table_), "");
    }

    bool enrol(const msmface::Person& person, const std::vector<Sample>& frames) {
        if (engine_.idDatabase->SetNewKeyname(person.name.c_str()) != 1) return false;
        engine_.image_size_set(frames.front().frame.width, frames.front().frame.height);
        engine_.Set_RecogORRegist(2);
        engine_.Reset_gather_counter();
        for (const Sample& s : frames) {
            if (engine_.Get_RecogORRegist() != 2) break;
            PartsPosition parts = msmface::toPartsPosition(*s.points);
            if (!msmface::anyPointPresent(parts) || !msmface::detail::toGrey(s.frame, image_) ||
                engine_.FaceCropping(&image_, nullptr, &parts, &face_) != 1)
                continue;
            engine_.FrameProcess(2);
        }
        const bool registered = engine_.Get_RecogORRegist() != 2 && engine_.Get_RegistCondition();
        engine_.Set_RecogORRegist(1);
        if (!registered) return false;
        engine_.idDatabase->AddNewDictionary(table_.add(person));
        return engine_.idDatabase->ReadIdDictionaries() == 1;
    }

    // The constraint space generated from every enrolled person under dir/cmsm.
    bool rebuild(int dimension) {
        const std::string stem = dir_ + "/cmsm";
        const std::string list = dir_ + "/constraint.list";
        gallerytest::WriteText(
            list, "1\n1\nCMSML " + stem + " " + std::to_string(dimension) + " " + stem + "\n");
        engine_.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
        {
            // The files do not exist before the first generation: the engine says so.
            msm::DiagnosticCapture quiet;
            engine_.InitConstraintMSM(list.c_str());
        }
        return engine_.UpdateCMSMDictionary(0) == 1;
    }

  private:
    FaceRecognition engine_;
    std::string dir_;
    gallerytest::PersonTable table_;
    BasicImageFile image_;
    BasicImageFile face_{kNormalisedFaceSize, kNormalisedFaceSize, 8};
};

// Person i's enrolment take, made harder: frames without a face before it, and more faces than a
// registration uses after it.
std::vector<Sample> FramesOf(int i) {
    const Population& population = Population::get();
    std::vector<Sample> frames;
    for (int k = 0; k < i; ++k) {
        Sample blank = population.enrol[static_cast<std::size_t>(i)].samples()[0];
        blank.points->xy.fill(-1.0f);
        frames.push_back(blank);
    }
    for (const Sample& s : population.enrol[static_cast<std::size_t>(i)].samples())
        frames.push_back(s);
    for (const Sample& s : population.probe[static_cast<std::size_t>(i)].samples())
        frames.push_back(s);
    return frames;
}

TEST(Components, AnEnrolmentAndARebuildWriteTheLegacyHostsFilesByteForByte) {
    msmtest::FixedClock clock(PiDay);
    ScratchDir legacyDir, galleryDir;
    LegacyHost legacy(legacyDir.path());
    Gallery gallery = OpenOrDie(galleryDir.path());
    for (int i = 0; i < 3; ++i) {
        const msmface::Person person{i + 1, Population::Name(i)};
        const std::vector<Sample> frames = FramesOf(i);
        ASSERT_TRUE(legacy.enrol(person, frames)) << person.name;
        const msmface::Status enrolled = gallery.enrol(person.id, person.name, frames);
        ASSERT_TRUE(enrolled.ok()) << enrolled.message();
        for (const char* ext : {".dck", ".mck", ".bmp"}) {
            const std::string file = person.name + ext;
            const std::string written = ReadText(galleryDir / file);
            EXPECT_FALSE(written.empty()) << file;
            EXPECT_TRUE(written == ReadText(legacyDir / file)) << file << " differs";
        }
    }
    ASSERT_TRUE(legacy.rebuild(100));
    const msmface::Status rebuilt = gallery.rebuildConstraint(100);
    ASSERT_TRUE(rebuilt.ok()) << rebuilt.message();
    for (const char* file : {"cmsm.dck", "cmsm.dckev", "cmsm.mck"}) {
        const std::string written = ReadText(galleryDir / file);
        EXPECT_FALSE(written.empty()) << file;
        EXPECT_TRUE(written == ReadText(legacyDir / file)) << file << " differs";
    }
}

TEST(Components, ARebuildWhoseSpaceDoesNotLoadLeavesTheOldSpaceCurrent) {
    ScratchDir work;
    Gallery g = OpenOrDie(work.path());
    for (int i = 0; i < 3; ++i) EnrolOrDie(g, i);
    ASSERT_TRUE(g.rebuildConstraint(100).ok());
    const auto before = Snapshot(work.path());
    // The new space's basis written, then cut short: a space that a reader refuses.
    msmface::detail::setSpaceWrittenHook(
        [](const std::string& stem) { ASSERT_EQ(::truncate((stem + ".dck").c_str(), 40), 0); });
    const msmface::Status refused = g.rebuildConstraint(50);
    msmface::detail::setSpaceWrittenHook(nullptr);
    ExpectFailure(refused, ErrorKind::File, "the new constraint space does not load");
    EXPECT_TRUE(Snapshot(work.path()) == before);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(BestId(g, i, Method::Cmsm), i + 1);
    Gallery again = OpenOrDie(work.path());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(BestId(again, i, Method::Cmsm), i + 1);
}

// Rewrites a file's bytes in place, keeping its size and time: a change no stamp shows.
void DamageUnseen(const std::string& path) {
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    gallerytest::WriteText(path, std::string(static_cast<std::size_t>(st.st_size), '#'));
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(Components, ARemovalSucceedsOnceTheRegistryNoLongerListsThePerson) {
    ScratchDir work;
    Gallery g = OpenOrDie(work.path());
    for (int i = 0; i < 3; ++i) EnrolOrDie(g, i);
    ASSERT_TRUE(g.rebuildConstraint(100).ok());
    ASSERT_TRUE(g.setThreshold(400).ok());
    const std::vector<std::string> space = {ReadText(work / "cmsm.dck"),
                                            ReadText(work / "cmsm.mck")};
    ASSERT_EQ(BestId(g, 0, Method::Cmsm), 1);
    // What another reading of the directory would stumble on must not fail the removal.
    DamageUnseen(work / msmface::kThresholdFileName);
    const msmface::Status removed = g.remove(2);
    ASSERT_TRUE(removed.ok()) << removed.message();
    EXPECT_THAT(ReadText(work / msmface::kRegistryFileName),
                ::testing::EndsWith("\n1 person1\n3 person3\n"));
    for (const char* ext : {".dck", ".mck", ".bmp"})
        EXPECT_FALSE(Exists(work / ("person2" + std::string(ext)))) << ext;
    EXPECT_FALSE(g.find(2).has_value());
    EXPECT_EQ(g.persons().size(), 2u);
    // The space stays as it was built, and the others are still told apart in it.
    EXPECT_TRUE(space == (std::vector<std::string>{ReadText(work / "cmsm.dck"),
                                                   ReadText(work / "cmsm.mck")}));
    EXPECT_EQ(BestId(g, 0, Method::Cmsm), 1);
    EXPECT_EQ(BestId(g, 2, Method::Msm), 3);
    EXPECT_EQ(BestId(g, 2, Method::Cmsm), 3);
}

}  // namespace
