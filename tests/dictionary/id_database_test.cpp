#include <msmface/IDDatabase.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "dictionary/DictChunk.h"
#include "dictionary/fixed_point.h"
#include "scratch.h"

namespace {

using msmtest::ScratchDir;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// A person's dictionary whose first value tells whose it is.
void WriteDictionary(const std::string& path, float marker, int vectors = 3) {
    DictChunk chunk;
    ASSERT_EQ(chunk.Allocate(2), 1);
    for (int c = 0; c < 2; ++c) {
        ASSERT_EQ(chunk.prims[c].Allocate(8, vectors, 2), 1);
        for (int k = 0; k < vectors; ++k)
            for (int i = 0; i < 8; ++i) chunk.prims[c].frows[k][i] = marker + c + k * 0.01f;
    }
    ASSERT_EQ(chunk.Write(path.c_str(), 0, 2), 1);
}

class IDDatabaseTest : public testing::Test {
  protected:
    void SetUp() override {
        db = std::make_unique<IDDatabase>();
        db->SetDicPath(dir.path().c_str());
        for (int i = 0; i < 3; ++i) {
            names[i] = "person" + std::to_string(i);
            persons[i] = HumanID{10 + i, names[i].data()};
        }
    }
    void LoadThree(int firstVectors = 3) {
        for (int i = 0; i < 3; ++i)
            WriteDictionary(dir.File(names[i] + ".dck"), i + 1.0f, i == 0 ? firstVectors : 3);
        ASSERT_EQ(db->InitIdDictionary(3), 1);
        for (HumanID& h : persons) ASSERT_EQ(db->PushIdDictionary(&h), 1);
        ASSERT_EQ(db->ReadIdDictionaries(), 1);
    }
    float Marker(int inside) { return db->dictionaries[inside].prims[0].frows[0][0]; }

    ScratchDir dir;
    std::unique_ptr<IDDatabase> db;
    std::string names[3];
    HumanID persons[3];
};

TEST_F(IDDatabaseTest, StartUpReadsEveryPersonAsFloatAndFixedRows) {
    LoadThree(30);
    EXPECT_EQ(db->GetAllNum(), 3);
    // The file of person 0 holds 30 vectors: the default limit keeps 20.
    EXPECT_EQ(db->dictionaries[0].prims[0].count, 20);
    EXPECT_EQ(db->dictionaries[0].prims[0].mode, 2);
    EXPECT_EQ(Marker(2), 3.0f);
    ASSERT_NE(db->dictionaries[0].prims[0].qrows, nullptr);
    EXPECT_EQ(db->dictionaries[0].prims[0].qrows[19][0], msm::toQ14(1.0f + 19 * 0.01f));
}

TEST_F(IDDatabaseTest, ReadFailuresReportAndEmptyTheRegistry) {
    ASSERT_EQ(db->InitIdDictionary(3), 1);
    ASSERT_EQ(db->PushIdDictionary(&persons[0]), 1);
    ASSERT_EQ(db->PushIdDictionary(&persons[1]), 1);
    CaptureStderr();
    EXPECT_EQ(db->ReadIdDictionaries(), 0);
    EXPECT_EQ(GetCapturedStderr(), "PushDic Error");

    WriteDictionary(dir.File("person0.dck"), 1.0f);
    ASSERT_EQ(db->PushIdDictionary(&persons[2]), 1);
    CaptureStderr();
    EXPECT_EQ(db->ReadIdDictionaries(), 0);
    EXPECT_EQ(GetCapturedStderr(),
              "person1(11)\x82\xcc\x8e\xab\x8f\x91\x83\x74\x83\x40\x83\x43\x83\x8b\x82\xaa\x93\xc7"
              "\x82\xdd\x8d\x9e\x82\xdf\x82\xdc\x82\xb9\x82\xf1\x81\x42");
    EXPECT_EQ(db->GetAllNum(), 0);
    EXPECT_EQ(Marker(0), 1.0f);  // read before the failure, kept
}

TEST_F(IDDatabaseTest, NumbersAndNamesLookup) {
    EXPECT_FALSE(db->CheckIDNum(0));
    EXPECT_TRUE(db->CheckIDNum(5));
    EXPECT_EQ(db->GetMaxIDNum(), 0);
    LoadThree();
    EXPECT_FALSE(db->CheckIDNum(11));
    EXPECT_TRUE(db->CheckIDNum(13));
    EXPECT_EQ(db->GetMaxIDNum(), 12);
    EXPECT_EQ(db->ConvertIDNumToInsidenum(99), -1);
    persons[2].id = 11;
    EXPECT_EQ(db->ConvertIDNumToInsidenum(11), 1);  // lowest inside number wins
    persons[0].id = persons[1].id = persons[2].id = -5;
    EXPECT_EQ(db->GetMaxIDNum(), 0);
    EXPECT_FALSE(db->CheckIDName("person2"));
    EXPECT_TRUE(db->CheckIDName("Person2"));
}

TEST_F(IDDatabaseTest, RemovingTheFirstShiftsDictionariesMasksAndProjections) {
    LoadThree();
    db->SetNumCS(2);
    db->MaskArrayOn(0);
    db->MaskArrayOff(1);
    db->MaskArrayOn(2);
    DictChunk* projectedOfThird = new DictChunk[2];
    db->projected[2] = projectedOfThird;
    db->projected[0] = new DictChunk[2];
    for (const char* ext : {"mck", "bmp", "jpg", "fpi"}) {
        msmtest::WriteBytes(dir.File("person0." + std::string(ext)), {1});
        msmtest::WriteBytes(dir.File("person1." + std::string(ext)), {1});
    }
    ASSERT_EQ(db->RemoveIdFromDictionary(0, true), 1);
    EXPECT_EQ(db->GetAllNum(), 2);
    EXPECT_EQ(db->pushed, 2);
    EXPECT_EQ(Marker(0), 2.0f);
    EXPECT_EQ(Marker(1), 3.0f);
    EXPECT_EQ(db->dictionaries[2].count, 0);
    EXPECT_FALSE(db->CheckMaskArray(0));
    EXPECT_TRUE(db->CheckMaskArray(1));
    EXPECT_EQ(db->projected[1], projectedOfThird);
    EXPECT_EQ(db->projected[2], nullptr);
    for (const char* ext : {"dck", "mck", "bmp", "jpg", "fpi"}) {
        EXPECT_NE(::access(dir.File("person0." + std::string(ext)).c_str(), F_OK), 0) << ext;
        EXPECT_EQ(::access(dir.File("person1." + std::string(ext)).c_str(), F_OK), 0) << ext;
    }
}

TEST_F(IDDatabaseTest, RemovalBoundsAreInclusive) {
    LoadThree();
    CaptureStderr();
    EXPECT_EQ(db->RemoveIdFromDictionary(-1, false), 0);
    EXPECT_EQ(db->RemoveIdFromDictionary(4, false), 0);
    EXPECT_EQ(GetCapturedStderr(), "Cannot find selected ID.Cannot find selected ID.");
    EXPECT_EQ(db->GetAllNum(), 3);
    // inside = count passes; nothing shifts, the last slot is dropped.
    EXPECT_EQ(db->RemoveIdFromDictionary(3, true), 1);
    EXPECT_EQ(db->GetAllNum(), 2);
    EXPECT_EQ(Marker(0), 1.0f);
    EXPECT_EQ(Marker(1), 2.0f);
    EXPECT_EQ(::access(dir.File("person2.dck").c_str(), F_OK), 0);
}

TEST_F(IDDatabaseTest, ReplaceReloadsOnePerson) {
    LoadThree();
    db->SetNumCS(1);
    db->projected[1] = new DictChunk[1];
    WriteDictionary(dir.File("person1.dck"), 7.0f);
    ASSERT_EQ(db->ReplaceIdDictionary(1), 1);
    EXPECT_EQ(Marker(1), 7.0f);
    EXPECT_EQ(db->projected[1], nullptr);
    CaptureStderr();
    EXPECT_EQ(db->ReplaceIdDictionary(-1), 0);
    EXPECT_EQ(db->ReplaceIdDictionary(4), 0);
    EXPECT_EQ(GetCapturedStderr(), "cannot find selected ID.cannot find selected ID.");
    ::unlink(dir.File("person2.dck").c_str());
    CaptureStderr();
    EXPECT_EQ(db->ReplaceIdDictionary(2), 0);
    EXPECT_NE(GetCapturedStderr().find("person2(12)"), std::string::npos);
    EXPECT_EQ(db->GetAllNum(), 0);
}

TEST_F(IDDatabaseTest, EnrolmentConsumesThePendingName) {
    LoadThree();
    EXPECT_EQ(db->SetNewKeyname("newcomer"), 1);
    CaptureStderr();
    EXPECT_EQ(db->SetNewKeyname("other"), 0);
    EXPECT_EQ(GetCapturedStderr(), "Error::SetNewKeyname");
    EXPECT_STREQ(db->GetNewKeyname(), "newcomer");
    std::string name = "newcomer";
    HumanID h{40, name.data()};
    ASSERT_EQ(db->AddNewDictionary(&h), 1);
    EXPECT_EQ(db->GetNewKeyname(), nullptr);
    EXPECT_EQ(db->GetAllNum(), 4);
    EXPECT_EQ(db->ConvertIDNumToInsidenum(40), 3);
    EXPECT_EQ(db->SetNewKeyname("next"), 1);
    db->FreeNewKeyname();
    EXPECT_EQ(db->SetNewKeyname("again"), 1);
}

TEST_F(IDDatabaseTest, TablesNeverGrowPastTwoThousand) {
    EXPECT_EQ(db->InitIdDictionary(IDDatabase::kMaxPersons + 1), 0);
    EXPECT_EQ(db->InitIdDictionary(-1), 0);
    ASSERT_EQ(db->InitIdDictionary(IDDatabase::kMaxPersons), 1);
    for (int i = 0; i < IDDatabase::kMaxPersons; ++i)
        ASSERT_EQ(db->PushIdDictionary(&persons[0]), 1);
    EXPECT_EQ(db->PushIdDictionary(&persons[0]), 0);
    EXPECT_EQ(db->AddNewDictionary(&persons[1]), 0);
    EXPECT_EQ(db->GetAllNum(), IDDatabase::kMaxPersons);
    EXPECT_EQ(db->RemoveIdFromDictionary(IDDatabase::kMaxPersons, false), 1);
    EXPECT_EQ(db->GetAllNum(), IDDatabase::kMaxPersons - 1);
    EXPECT_FALSE(db->CheckMaskArray(IDDatabase::kMaxPersons));
    db->MaskArrayOn(-1);
    EXPECT_EQ(db->ResetOneDictionary(IDDatabase::kMaxPersons), 0);
}

TEST_F(IDDatabaseTest, RemoveAllAndFreeEmptyTheRegistry) {
    LoadThree();
    EXPECT_EQ(db->RemoveAllDictionary(true), 1);
    EXPECT_EQ(db->GetAllNum(), 0);
    EXPECT_EQ(db->dictionaries[1].count, 0);
    EXPECT_TRUE(dir.Entries().empty());
    EXPECT_EQ(db->FreeIdDictionary(), 0);
    LoadThree();
    EXPECT_EQ(db->FreeIdDictionary(), 1);
    EXPECT_EQ(db->dictionaries[0].count, 0);
    EXPECT_EQ(db->pushed, 0);
}

TEST_F(IDDatabaseTest, DicPathIsCopiedAndBounded) {
    std::string longPath(400, 'a');
    db->SetDicPath(longPath.c_str());
    EXPECT_EQ(std::string(db->GetDicPath()), longPath.substr(0, 255));
}

}  // namespace
