// The core on dictionaries of known geometry: its scores against the legacy recogniser's on the
// same frames, the properties every score has, the pattern kind as a parameter, and refusals.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/scratch_dir.h"
#include "core/constraint_spaces.h"
#include "core/input.h"
#include "core/snapshot.h"
#include "recognition/MWMSMRecognition.h"
#include "recognition/subspaces.h"

namespace {

using msmface::ErrorKind;
using msmface::core::Input;
using msmface::core::Method;
using msmface::core::PatternShape;
using msmface::core::RankedPerson;
using msmface::core::Snapshot;
using msmface::core::SnapshotOptions;
using msmtest::Basis;

constexpr int kDictionaryVectors = 20;

// Persons of random dictionaries: `channels` sets of kDictionaryVectors orthonormal vectors.
struct People {
    People(int count, PatternShape shape, unsigned seed) : dictionaries(count) {
        for (int p = 0; p < count; ++p) {
            std::vector<Basis> channels;
            for (int c = 0; c < shape.channels; ++c)
                channels.push_back(
                    msmtest::RandomBasis(kDictionaryVectors, shape.dimension, seed + 97 * p + c));
            msmtest::FillDictionary(dictionaries[p], channels);
            bases.push_back(channels);
        }
    }
    std::vector<const DictChunk*> Pointers() const {
        std::vector<const DictChunk*> out;
        for (const DictChunk& d : dictionaries) out.push_back(&d);
        return out;
    }
    // Frame k of a take of person p: in every channel a mix of the person's vectors, so that the
    // frames span (nearly) the person's own subspace.
    std::vector<std::vector<float>> Frame(int p, int k) const {
        std::vector<std::vector<float>> frame;
        for (const Basis& b : bases[p]) {
            std::vector<float> x(b[0].size());
            for (std::size_t i = 0; i < x.size(); ++i)
                x[i] = static_cast<float>(b[k % 7][i] + 0.3 * b[(k + 3) % 7][i]);
            frame.push_back(x);
        }
        return frame;
    }

    std::vector<DictChunk> dictionaries;
    std::vector<std::vector<Basis>> bases;
};

std::vector<float*> Pointers(std::vector<std::vector<float>>& frame) {
    std::vector<float*> out;
    for (auto& x : frame) out.push_back(x.data());
    return out;
}

std::shared_ptr<const Snapshot> Build(PatternShape shape, const People& people) {
    auto s = Snapshot::build(shape, SnapshotOptions{}, people.Pointers());
    EXPECT_TRUE(s.ok()) << s.message();
    return s.ok() ? *s : nullptr;
}

TEST(Core, ScoresEqualTheLegacyRecogniserOnTheSameFrames) {
    const PatternShape shape{256, 5};
    // More persons than one batch of the kernels, so that the batching is compared too.
    People people(19, shape, 11);
    const auto snapshot = Build(shape, people);
    ASSERT_NE(snapshot, nullptr);
    auto input = Input::create(*snapshot);
    ASSERT_TRUE(input.ok()) << input.message();
    for (Method method : {Method::Msm, Method::SinglePattern}) {
        MSMRecognition legacy(shape.dimension, shape.channels);
        legacy.Set_RecognitionResultMode(2, 19);
        (*input)->refresh();
        for (int k = 0; k < 12; ++k) {
            auto frame = people.Frame(4, k);
            std::vector<float*> patterns = Pointers(frame);
            int best = 0;
            if (method == Method::Msm)
                legacy.RecognizeByInputSubspaces(patterns.data(), people.dictionaries.data(), 19,
                                                 &best);
            else
                legacy.RecognizeBySinglePattern(patterns.data(), people.dictionaries.data(), 19,
                                                &best);
            (*input)->update(patterns.data());
            ASSERT_TRUE(msmface::core::score(*snapshot, **input, method).ok());
            const std::vector<RankedPerson>& ranking = (*input)->ranking();
            ASSERT_EQ(ranking.size(), 19u);
            for (int i = 0; i < 19; ++i) {
                EXPECT_EQ(ranking[i].person, legacy.results.candidates[i].id) << k << " " << i;
                EXPECT_EQ(ranking[i].score, legacy.results.candidates[i].similarity)
                    << k << " " << i;
                EXPECT_GE(ranking[i].score, 0);
                EXPECT_LE(ranking[i].score, 1000);
            }
        }
        // The frames lie in person 4's own subspace: it scores (almost) the full 1000.
        EXPECT_EQ((*input)->ranking().front().person, 4);
        EXPECT_GE((*input)->ranking().front().score, 990);
    }
}

TEST(Core, EqualScoresRankInPersonOrder) {
    const PatternShape shape{256, 5};
    People people(3, shape, 23);
    // Person 3 holds person 0's dictionary, person 4 person 1's: twins score alike.
    std::vector<const DictChunk*> persons = people.Pointers();
    persons.push_back(persons[0]);
    persons.push_back(persons[1]);
    auto snapshot = Snapshot::build(shape, SnapshotOptions{}, persons);
    ASSERT_TRUE(snapshot.ok()) << snapshot.message();
    auto input = Input::create(**snapshot);
    ASSERT_TRUE(input.ok());
    for (int k = 0; k < 10; ++k) {
        auto frame = people.Frame(0, k);
        std::vector<float*> patterns = Pointers(frame);
        (*input)->update(patterns.data());
    }
    for (Method method : {Method::Msm, Method::SinglePattern}) {
        ASSERT_TRUE(msmface::core::score(**snapshot, **input, method).ok());
        const auto& r = (*input)->ranking();
        ASSERT_EQ(r.size(), 5u);
        std::vector<int> scoreOf(5);
        for (const RankedPerson& e : r) scoreOf[e.person] = e.score;
        EXPECT_EQ(scoreOf[0], scoreOf[3]);
        EXPECT_EQ(scoreOf[1], scoreOf[4]);
        // Best first; of equal scores the earlier person first.
        for (std::size_t i = 1; i < r.size(); ++i) {
            EXPECT_GE(r[i - 1].score, r[i].score);
            if (r[i - 1].score == r[i].score) {
                EXPECT_LT(r[i - 1].person, r[i].person);
            }
        }
        EXPECT_EQ(r[0].person, 0);
        EXPECT_EQ(r[1].person, 3);
    }
}

TEST(Core, AnotherPatternKindIsAParameter) {
    // One channel of 128 values: a kind of pattern the legacy engine has never had.
    const PatternShape shape{128, 1};
    People people(6, shape, 31);
    const auto snapshot = Build(shape, people);
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(snapshot->paddedLength(), 128);
    for (int who : {2, 5}) {
        auto input = Input::create(*snapshot);
        ASSERT_TRUE(input.ok()) << input.message();
        for (int k = 0; k < 12; ++k) {
            auto frame = people.Frame(who, k);
            std::vector<float*> patterns = Pointers(frame);
            (*input)->update(patterns.data());
        }
        for (Method method : {Method::Msm, Method::SinglePattern}) {
            ASSERT_TRUE(msmface::core::score(*snapshot, **input, method).ok());
            const auto& r = (*input)->ranking();
            ASSERT_EQ(r.size(), 6u);
            EXPECT_EQ(r.front().person, who);
            for (const RankedPerson& e : r) {
                EXPECT_GE(e.score, 0);
                EXPECT_LE(e.score, 1000);
            }
        }
    }
}

TEST(Core, OneSnapshotServesIndependentInputs) {
    const PatternShape shape{256, 5};
    People people(4, shape, 41);
    std::shared_ptr<const Snapshot> snapshot = Build(shape, people);
    ASSERT_NE(snapshot, nullptr);
    const std::size_t bytes = snapshot->bytes();
    auto a = Input::create(*snapshot);
    auto b = Input::create(*snapshot);
    ASSERT_TRUE(a.ok() && b.ok());
    // Creating inputs took nothing from the snapshot, and the snapshot outlives its source.
    EXPECT_EQ(snapshot.use_count(), 1);
    EXPECT_EQ(snapshot->bytes(), bytes);
    people.dictionaries.clear();
    People again(4, shape, 41);
    for (int k = 0; k < 10; ++k) {
        auto fa = again.Frame(1, k), fb = again.Frame(3, k);
        auto pa = Pointers(fa), pb = Pointers(fb);
        (*a)->update(pa.data());
        (*b)->update(pb.data());
        ASSERT_TRUE(msmface::core::score(*snapshot, **a, Method::Msm).ok());
        ASSERT_TRUE(msmface::core::score(*snapshot, **b, Method::Msm).ok());
    }
    EXPECT_EQ((*a)->ranking().front().person, 1);
    EXPECT_EQ((*b)->ranking().front().person, 3);
    EXPECT_EQ((*a)->frameCount(), 10);
    (*a)->refresh();
    EXPECT_EQ((*a)->frameCount(), 0);
    EXPECT_EQ((*b)->frameCount(), 10);
}

TEST(Core, InputsOnThreadsShareOneSnapshot) {
    const PatternShape shape{256, 5};
    People people(12, shape, 61);
    const std::shared_ptr<const Snapshot> snapshot = Build(shape, people);
    ASSERT_NE(snapshot, nullptr);
    // Each input follows its own person; alone, then all at once on threads of their own.
    constexpr int kInputs = 4;
    auto run = [&](int who, std::vector<std::vector<RankedPerson>>& out) {
        auto input = Input::create(*snapshot);
        if (!input.ok()) return;
        for (int k = 0; k < 10; ++k) {
            auto frame = people.Frame(who, k);
            auto patterns = Pointers(frame);
            (*input)->update(patterns.data());
            for (Method m : {Method::Msm, Method::SinglePattern}) {
                if (!msmface::core::score(*snapshot, **input, m).ok()) return;
                out.push_back((*input)->ranking());
            }
        }
    };
    std::vector<std::vector<RankedPerson>> alone[kInputs], together[kInputs];
    for (int i = 0; i < kInputs; ++i) run(3 * i, alone[i]);
    std::vector<std::thread> threads;
    for (int i = 0; i < kInputs; ++i) threads.emplace_back(run, 3 * i, std::ref(together[i]));
    for (std::thread& t : threads) t.join();
    for (int i = 0; i < kInputs; ++i) {
        ASSERT_EQ(alone[i].size(), 20u);
        ASSERT_EQ(together[i].size(), alone[i].size());
        for (std::size_t f = 0; f < alone[i].size(); ++f)
            for (std::size_t r = 0; r < alone[i][f].size(); ++r) {
                EXPECT_EQ(together[i][f][r].person, alone[i][f][r].person);
                EXPECT_EQ(together[i][f][r].score, alone[i][f][r].score);
            }
        EXPECT_EQ(alone[i].back().front().person, 3 * i);
    }
}

void ExpectArgument(const msmface::Status& s, const std::string& what) {
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(s.kind(), ErrorKind::Argument) << s.message();
    EXPECT_NE(s.message().find(what), std::string::npos) << s.message();
    EXPECT_EQ(s.message().find('\n'), std::string::npos) << s.message();
}

TEST(Core, WhatDoesNotFitIsRefusedInOneLine) {
    const PatternShape shape{256, 5};
    People people(2, shape, 53);
    ExpectArgument(Snapshot::build(shape, SnapshotOptions{2}, people.Pointers()).status(),
                   "basis count 2");
    ExpectArgument(Snapshot::build({0, 5}, SnapshotOptions{}, people.Pointers()).status(),
                   "pattern dimension 0");
    ExpectArgument(Snapshot::build({4096, 5}, SnapshotOptions{}, people.Pointers()).status(),
                   "pattern dimension 4096");
    ExpectArgument(Snapshot::build({256, 0}, SnapshotOptions{}, people.Pointers()).status(),
                   "pattern channels 0");
    ExpectArgument(Snapshot::build(shape, SnapshotOptions{}, people.Pointers(), {nullptr}).status(),
                   "constraint space 1");
    ExpectArgument(Input::create(shape, 7, {0}).status(), "frame buffer 0");
    ExpectArgument(Input::create(shape, 7, {25, 0.125f, 8}).status(), "canonical angles 8");

    const auto snapshot = Build(shape, people);
    ASSERT_NE(snapshot, nullptr);
    auto other = Input::create({128, 5}, 7);
    ASSERT_TRUE(other.ok());
    ExpectArgument(msmface::core::score(*snapshot, **other, Method::Msm), "128");
    auto wider = Input::create(shape, 9);
    ASSERT_TRUE(wider.ok());
    ExpectArgument(msmface::core::score(*snapshot, **wider, Method::Msm), "9 basis vectors");
    auto input = Input::create(*snapshot);
    ASSERT_TRUE(input.ok());
    ExpectArgument(msmface::core::score(*snapshot, **input, Method::SinglePattern), "no frame");
    ExpectArgument(msmface::core::score(*snapshot, **input, Method::Cmsm), "no constraint space");
    // A person whose channel is of another length has no dictionary there: similarity 0, as the
    // legacy engine scores it, not a failure.
    People narrow(1, {128, 5}, 59);
    std::vector<const DictChunk*> mixed = people.Pointers();
    mixed.push_back(narrow.Pointers()[0]);
    auto withNarrow = Snapshot::build(shape, SnapshotOptions{}, mixed);
    ASSERT_TRUE(withNarrow.ok()) << withNarrow.message();
    EXPECT_EQ((*withNarrow)->rowCount(2, 0), -1);
    EXPECT_EQ((*withNarrow)->rowCount(1, 0), 7);
}

TEST(Core, ConstraintListsThatDoNotLoadAreRefusedInOneLine) {
    using msmface::core::ConstraintSpaces;
    msmtest::ScratchDir dir("core_spaces");
    const std::string absent = dir.File("absent.txt");
    auto missing = ConstraintSpaces::load(absent, {256, 5});
    EXPECT_EQ(missing.status().kind(), ErrorKind::File);
    EXPECT_NE(missing.message().find("constraint list " + absent), std::string::npos)
        << missing.message();
    // A space whose files are not there.
    std::ofstream(dir.File("list.txt")) << "1\n1\nCMSMF " << dir.File("none") << " 40\n";
    auto unloaded = ConstraintSpaces::load(dir.File("list.txt"), {256, 5});
    EXPECT_EQ(unloaded.status().kind(), ErrorKind::File);
    EXPECT_NE(unloaded.message().find("did not load"), std::string::npos) << unloaded.message();
    // A list of no constraint loads and projects nothing away.
    std::ofstream(dir.File("plain.txt")) << "1\n1\nMSM\n";
    auto plain = ConstraintSpaces::load(dir.File("plain.txt"), {256, 5});
    ASSERT_TRUE(plain.ok()) << plain.message();
    EXPECT_EQ((*plain)->spaces().size(), 1u);
    // Patterns shorter than the engine's (descriptors) have spaces of their own; longer ones
    // have none.
    EXPECT_TRUE(ConstraintSpaces::load(dir.File("plain.txt"), {128, 1}).ok());
    ExpectArgument(ConstraintSpaces::load(dir.File("plain.txt"), {257, 5}).status(), "257");
    ExpectArgument(ConstraintSpaces::load(dir.File("plain.txt"), {0, 5}).status(), "values, not 0");
    for (const auto& r : {missing.status(), unloaded.status()})
        EXPECT_EQ(r.message().find('\n'), std::string::npos);
}

}  // namespace

namespace {

// The rankings of one take of frames scored by the method against the snapshot.
std::vector<std::string> Rankings(const Snapshot& snapshot, const People& people, int person,
                                  Method method) {
    auto input = Input::create(snapshot);
    EXPECT_TRUE(input.ok()) << input.message();
    std::vector<std::string> out;
    for (int k = 0; input.ok() && k < 8; ++k) {
        auto frame = people.Frame(person, k);
        auto rows = Pointers(frame);
        (*input)->update(rows.data());
        EXPECT_TRUE(msmface::core::score(snapshot, **input, method).ok());
        std::string line;
        for (const RankedPerson& r : (*input)->ranking())
            line += std::to_string(r.person) + ":" + std::to_string(r.score) + " ";
        out.push_back(line);
    }
    return out;
}

TEST(Core, ASnapshotCombinedFromOthersScoresAsOneBuiltFromTheSamePersons) {
    const PatternShape shape{256, 5};
    const People people(6, shape, 77);
    ConstraintSpace space;
    space.kind = msm::kKindFile;
    space.dimension = 40;
    std::vector<Basis> directions;
    for (int c = 0; c < shape.channels; ++c)
        directions.push_back(msmtest::RandomBasis(60, 256, 5 + c));
    msmtest::FillDictionary(space.subspace, directions);
    space.eigenvalues.assign(static_cast<std::size_t>(shape.channels) * 256, 0.0f);
    for (int c = 0; c < shape.channels; ++c)
        for (int i = 0; i < 60; ++i) space.channelEigenvalues(c)[i] = 1.0f / (1.0f + i);
    const std::vector<const ConstraintSpace*> spaces{&space};
    const auto& d = people.dictionaries;
    auto first = Snapshot::build(shape, SnapshotOptions{}, {&d[0], &d[1], &d[2]}, spaces);
    auto second = Snapshot::build(shape, SnapshotOptions{}, {&d[3], &d[4], &d[5]}, spaces);
    ASSERT_TRUE(first.ok() && second.ok());
    // Persons of both, one left out and the order changed, as a removal and an enrolment make it.
    auto combined = Snapshot::combine(
        {{second->get(), 1}, {first->get(), 0}, {second->get(), 2}, {first->get(), 2}}, **first);
    ASSERT_TRUE(combined.ok()) << combined.message();
    auto direct = Snapshot::build(shape, SnapshotOptions{}, {&d[4], &d[0], &d[5], &d[2]}, spaces);
    ASSERT_TRUE(direct.ok());
    EXPECT_EQ((*combined)->personCount(), 4);
    EXPECT_EQ((*combined)->spaceCount(), 1);
    EXPECT_EQ((*combined)->bytes(), (*direct)->bytes());
    for (Method method : {Method::SinglePattern, Method::Msm, Method::Cmsm}) {
        SCOPED_TRACE(static_cast<int>(method));
        const auto got = Rankings(**combined, people, 5, method);
        EXPECT_EQ(got, Rankings(**direct, people, 5, method));
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got.back().substr(0, 2), "2:");  // person 5 sits at place 2
    }
    // The combination outlives the snapshots it was taken from.
    const auto before = Rankings(**combined, people, 0, Method::Cmsm);
    first = msmface::Status::failure(ErrorKind::Internal, "released");
    second = msmface::Status::failure(ErrorKind::Internal, "released");
    EXPECT_EQ(Rankings(**combined, people, 0, Method::Cmsm), before);

    auto plain = Snapshot::build(shape, SnapshotOptions{}, {&d[0]});
    ASSERT_TRUE(plain.ok());
    ExpectArgument(Snapshot::combine({{plain->get(), 0}}, **direct).status(), "person source 1");
    ExpectArgument(Snapshot::combine({{direct->get(), 4}}, **direct).status(), "person source 1");
    ExpectArgument(Snapshot::combine({{nullptr, 0}}, **direct).status(), "person source 1");
}

}  // namespace
