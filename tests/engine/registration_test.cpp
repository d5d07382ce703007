// Registration and addition as a host drives them: the files written, the dictionary built, the
// failures that write nothing.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <numeric>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "engine_host.h"

namespace {

using enginetest::Exists;
using enginetest::Host;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

TEST(Registration, EnrolsThreePeopleWhoAreThenRecognised) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson people[3] = {SyntheticPerson(11), SyntheticPerson(22), SyntheticPerson(33)};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(host.Enrol(i + 1, "p" + std::to_string(i), people[i])) << i;
    ASSERT_EQ(host.engine.idDatabase->GetAllNum(), 3);
    for (int i = 0; i < 3; ++i) {
        RECOGRESULT best = host.Recognise(people[i], 500, 12);
        EXPECT_EQ(best.id, i);
        const RECOGRESULT second = host.engine.Get_ResultRecog()[1];
        EXPECT_GT(best.similarity, second.similarity + 30) << second.id;
    }
}

}  // namespace

namespace {

using enginetest::Exists;
using enginetest::Host;
using enginetest::ScratchDir;
using enginetest::SyntheticPerson;

// Registers `name` by calling Registration directly after gathering `frames` frames.
void Gather(Host& host, const SyntheticPerson& person, int first, int frames) {
    host.engine.Set_DICACQUISITIONNUM(frames);
    host.engine.Reset_gather_counter();
    for (int k = 0; k < frames; ++k) host.Crop(person, first + k);
}

TEST(Registration, WritesExactlyTheThreeFiles) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson dora(44);
    ASSERT_TRUE(host.Enrol(7, "dora", dora));
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"dora.bmp", "dora.dck", "dora.mck"}));
    EXPECT_EQ(host.engine.Get_RecogORRegist(), 1);

    MtrxChunk records;
    ASSERT_EQ(records.ReadAll(dir.File("dora.mck").c_str()), 1);
    ASSERT_EQ(records.count, 5);
    DictChunk dictionary;
    dictionary.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(dictionary.ReadAll(dir.File("dora.dck").c_str()), 1);
    ASSERT_EQ(dictionary.count, 5);
    for (int c = 0; c < 5; ++c) {
        EXPECT_EQ(records.prims[c].number, 50);
        EXPECT_EQ(records.prims[c].order, 256);
        const DicPrim& d = dictionary.prims[c];
        EXPECT_EQ(d.dim, 256);
        EXPECT_GE(d.count, 30) << "50 noisy frames span more than the generation uses";
        EXPECT_LE(d.count, 50) << "never more vectors than frames";
        // The basis is orthonormal: every pair, every norm.
        for (int i = 0; i < d.count; ++i)
            for (int j = 0; j <= i; ++j) {
                double dot = 0;
                for (int k = 0; k < 256; ++k) dot += double(d.frows[i][k]) * d.frows[j][k];
                EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-4) << c << ": " << i << "," << j;
            }
    }
    // The work buffer holds the last channel's spectrum divided by its trace.
    float spectrum[256];
    std::memcpy(spectrum, host.engine.workBuffer, sizeof spectrum);
    EXPECT_NEAR(std::accumulate(spectrum, spectrum + 256, 0.0), 1.0, 1e-4);
    for (int i = 1; i < 256; ++i) EXPECT_LE(spectrum[i], spectrum[i - 1] + 1e-7f);
}

// A link put where the person's picture goes is replaced by the picture: the file it pointed at
// outside the directory stays as it was, and the picture is the one a plain folder gets.
TEST(Registration, ThePictureReplacesALinkInsteadOfWritingThroughIt) {
    ScratchDir dir, plain, outside;
    const std::string secret = outside.File("secret");
    enginetest::WriteText(secret, "the user's own file\n");
    ASSERT_EQ(::symlink(secret.c_str(), dir.File("dora.bmp").c_str()), 0);
    SyntheticPerson dora(44);
    Host linked(dir.path());
    ASSERT_TRUE(linked.Enrol(7, "dora", dora));
    Host clean(plain.path());
    ASSERT_TRUE(clean.Enrol(7, "dora", dora));
    EXPECT_EQ(enginetest::ReadBytes(secret).size(), 20u);
    struct stat st {};
    ASSERT_EQ(::lstat(dir.File("dora.bmp").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(enginetest::ReadBytes(dir.File("dora.bmp")),
              enginetest::ReadBytes(plain.File("dora.bmp")));
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"dora.bmp", "dora.dck", "dora.mck"}));
}

TEST(Registration, WrittenVectorsAreLimited) {
    ScratchDir dir;
    Host host(dir.path());
    host.engine.Set_LimitWriteVectNum(12);
    ASSERT_TRUE(host.Enrol(1, "erin", SyntheticPerson(55)));
    DictChunk dictionary;
    dictionary.SetModeAndLimit(kDicPrimFloat, 0);
    ASSERT_EQ(dictionary.ReadAll(dir.File("erin.dck").c_str()), 1);
    for (int c = 0; c < 5; ++c) EXPECT_EQ(dictionary.prims[c].count, 12);
}

TEST(Registration, TooSmallDictionaryWritesNothing) {
    ScratchDir dir;
    Host host(dir.path());
    ASSERT_EQ(host.engine.Change_need_eigen_num(20), 1);
    ASSERT_EQ(host.engine.idDatabase->SetNewKeyname("fay"), 1);
    Gather(host, SyntheticPerson(66), 0, 12);  // 12 frames span at most 12 directions
    host.engine.Set_RecogORRegist(0);
    EXPECT_EQ(host.engine.Registration(), 1);
    EXPECT_FALSE(host.engine.Get_RegistCondition());
    EXPECT_EQ(host.engine.Get_RecogORRegist(), 1);
    EXPECT_TRUE(dir.Entries().empty());

    // The same frames pass with the default basis count.
    ASSERT_EQ(host.engine.Change_need_eigen_num(7), 1);
    EXPECT_EQ(host.engine.Registration(), 1);
    EXPECT_TRUE(host.engine.Get_RegistCondition());
    EXPECT_TRUE(Exists(dir.File("fay.dck")));
}

TEST(Registration, RefusesWithoutPendingNameOrUsableCount) {
    ScratchDir dir;
    Host host(dir.path());
    Gather(host, SyntheticPerson(67), 0, 20);
    EXPECT_EQ(host.engine.Registration(), 1);
    EXPECT_FALSE(host.engine.Get_RegistCondition());
    ASSERT_EQ(host.engine.idDatabase->SetNewKeyname("gus"), 1);
    for (int n : {0, -5, 502}) {
        host.engine.Set_DICACQUISITIONNUM(n);
        host.engine.Set_RegistCondition(true);
        EXPECT_EQ(host.engine.Registration(), 1);
        EXPECT_FALSE(host.engine.Get_RegistCondition()) << n;
    }
    // All-black faces: no direction above the eigenvalue floor.
    BasicImageFile black(enginetest::kFrameSide, enginetest::kFrameSide, 8), face(64, 64, 8);
    std::memset(black.pixels, 0, black.width * black.height);
    SyntheticPerson shape(68);
    host.engine.Set_DICACQUISITIONNUM(20);
    host.engine.Reset_gather_counter();
    for (int k = 0; k < 20; ++k) {
        BasicImageFile scratch(enginetest::kFrameSide, enginetest::kFrameSide, 8);
        PartsPosition parts{};
        shape.Render(k, scratch, parts);
        ASSERT_EQ(host.engine.FaceCropping(&black, nullptr, &parts, &face), 1);
    }
    EXPECT_EQ(host.engine.Registration(), 1);
    EXPECT_FALSE(host.engine.Get_RegistCondition());
    EXPECT_TRUE(dir.Entries().empty());
}

TEST(Addition, MergesRecordsAndHalvesPastTheLimit) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson hal(77);
    ASSERT_TRUE(host.Enrol(1, "hal", hal));
    // The record of the new frames alone, from a registration of the same frames.
    ASSERT_EQ(host.engine.idDatabase->SetNewKeyname("probe"), 1);
    Gather(host, hal, 100, 20);
    host.engine.Registration();
    ASSERT_TRUE(host.engine.Get_RegistCondition());
    host.engine.idDatabase->FreeNewKeyname();
    MtrxChunk added;
    ASSERT_EQ(added.ReadAll(dir.File("probe.mck").c_str()), 1);

    // Pretend hal has accumulated 50000 patterns.
    MtrxChunk stored;
    ASSERT_EQ(stored.ReadAll(dir.File("hal.mck").c_str()), 1);
    for (int c = 0; c < 5; ++c) stored.prims[c].number = 50000;
    ASSERT_EQ(stored.Write(dir.File("hal.mck").c_str()), 1);

    Gather(host, hal, 100, 20);
    host.engine.Set_Addition_id(0);
    EXPECT_EQ(host.engine.Addition(), 1);
    ASSERT_TRUE(host.engine.Get_RegistCondition());
    EXPECT_EQ(host.engine.Get_RecogORRegist(), 1);
    MtrxChunk merged;
    ASSERT_EQ(merged.ReadAll(dir.File("hal.mck").c_str()), 1);
    for (int c = 0; c < 5; ++c) {
        EXPECT_EQ(merged.prims[c].number, 25000 + 20);
        for (int i = 0; i < merged.prims[c].elementCount; i += 97)
            ASSERT_FLOAT_EQ(merged.prims[c].elements[i],
                            stored.prims[c].elements[i] * 0.5f + added.prims[c].elements[i]);
    }

    // Below the limit the counts simply add.
    Gather(host, hal, 200, 20);
    host.engine.Addition();
    MtrxChunk again;
    ASSERT_EQ(again.ReadAll(dir.File("hal.mck").c_str()), 1);
    EXPECT_EQ(again.prims[0].number, 25040);
}

TEST(Addition, RenewsThePictureOnlyWhenAsked) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson ivy(88);
    ASSERT_TRUE(host.Enrol(1, "ivy", ivy));
    enginetest::WriteText(dir.File("ivy.jpg"), "old picture");
    enginetest::WriteText(dir.File("ivy.fpi"), "old picture");
    const auto bmp = enginetest::ReadBytes(dir.File("ivy.bmp"));
    Gather(host, ivy, 100, 20);
    host.engine.Set_Addition_id(0);
    host.engine.Addition();
    ASSERT_TRUE(host.engine.Get_RegistCondition());
    EXPECT_TRUE(Exists(dir.File("ivy.jpg")));
    EXPECT_TRUE(Exists(dir.File("ivy.fpi")));

    host.engine.SetRenewDicFaceImage(true);
    host.engine.Addition();
    EXPECT_FALSE(Exists(dir.File("ivy.jpg")));  // only the first picture found goes
    EXPECT_TRUE(Exists(dir.File("ivy.fpi")));
    EXPECT_TRUE(Exists(dir.File("ivy.bmp")));
    EXPECT_EQ(enginetest::ReadBytes(dir.File("ivy.bmp")).size(), bmp.size());
}

TEST(Addition, RefusesUnknownPersonOrMissingRecord) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson jo(99);
    ASSERT_TRUE(host.Enrol(1, "jo", jo));
    Gather(host, jo, 100, 20);
    const auto before = enginetest::ReadBytes(dir.File("jo.dck"));
    for (int id : {-1, 1, 5}) {
        host.engine.Set_Addition_id(id);
        host.engine.Addition();
        EXPECT_FALSE(host.engine.Get_RegistCondition()) << id;
        EXPECT_EQ(host.engine.Get_RecogORRegist(), 1);
    }
    ::unlink(dir.File("jo.mck").c_str());
    host.engine.Set_Addition_id(0);
    host.engine.Addition();
    EXPECT_FALSE(host.engine.Get_RegistCondition());
    EXPECT_EQ(enginetest::ReadBytes(dir.File("jo.dck")), before);
    EXPECT_FALSE(Exists(dir.File("jo.mck")));
}

TEST(Addition, FromTheLastAcceptedRecognition) {
    ScratchDir dir;
    Host host(dir.path());
    SyntheticPerson kim(111);
    ASSERT_TRUE(host.Enrol(1, "kim", kim));
    EXPECT_EQ(host.engine.AdditionFromPrevRecog(0), 0);  // nothing kept yet
    EXPECT_EQ(host.engine.Get_RecogORRegist(), 1);
    EXPECT_FALSE(host.engine.Get_RegistCondition());

    host.Recognise(kim, 300, 14);
    host.engine.NoticeCompleteRecognition();
    EXPECT_EQ(host.engine.GetBufferCount(), 14);
    EXPECT_EQ(host.engine.AdditionFromPrevRecog(0), 1);
    EXPECT_TRUE(host.engine.Get_RegistCondition());
    EXPECT_EQ(host.engine.Get_Addition_id(), 0);
    MtrxChunk merged;
    ASSERT_EQ(merged.ReadAll(dir.File("kim.mck").c_str()), 1);
    EXPECT_EQ(merged.prims[4].number, 50 + 14);
}

TEST(Registration, ScreeningDropsFramesUnlikeTheRest) {
    ScratchDir dir;
    Host host(dir.path());
    host.engine.SetBScreeningFlag(1);
    host.engine.SetBScreeningThres(4000);
    SyntheticPerson lee(122);
    ASSERT_EQ(host.engine.idDatabase->SetNewKeyname("lee"), 1);
    host.engine.Set_DICACQUISITIONNUM(40);
    host.engine.Reset_gather_counter();
    // Frames 10..13 are blank: no edges where the others have them.
    BasicImageFile blank(enginetest::kFrameSide, enginetest::kFrameSide, 8), face(64, 64, 8);
    std::memset(blank.pixels, 200, blank.width * blank.height);
    for (int k = 0; k < 40; ++k) {
        if (k >= 10 && k < 14) {
            BasicImageFile scratch(enginetest::kFrameSide, enginetest::kFrameSide, 8);
            PartsPosition parts{};
            lee.Render(k, scratch, parts);
            host.engine.FaceCropping(&blank, nullptr, &parts, &face);
        } else {
            host.Crop(lee, k);
        }
    }
    host.engine.Registration();
    const std::string flags(host.engine.screeningSelection, 40);
    ASSERT_TRUE(host.engine.Get_RegistCondition()) << flags;
    EXPECT_EQ(flags, std::string(10, '1') + "0000" + std::string(26, '1'));
    MtrxChunk records;
    ASSERT_EQ(records.ReadAll(dir.File("lee.mck").c_str()), 1);
    EXPECT_EQ(records.prims[0].number, 36);
}

}  // namespace
