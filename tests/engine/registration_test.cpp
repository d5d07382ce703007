// Registration and addition as a host drives them: the files written, the dictionary built, the
// failures that write nothing.
#include <gtest/gtest.h>

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
