// The names and files of a dictionary directory: no person may share a file with the
// constraint space, an enrolment never touches a file it did not create, links put in the place
// of the directory's files are replaced or refused and never written or read through, and a
// copied directory does not quietly use the original's constraint space.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <msmface/FaceRecognition.h>
#include <msmface/store.h>

#include "gallery_support.h"

namespace {

using gallerytest::Exists;
using gallerytest::ExpectFailure;
using gallerytest::Names;
using gallerytest::Population;
using gallerytest::ReadText;
using gallerytest::ScratchDir;
using gallerytest::Snapshot;
using gallerytest::WriteText;
using msmface::ErrorKind;
using msmface::Gallery;
using msmface::Method;
using msmface::StoreProblemKind;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

Gallery Open(const std::string& dir) {
    auto g = Gallery::open(dir, {true, {}});
    EXPECT_TRUE(g.ok()) << g.message();
    return std::move(g).value();
}

std::vector<msmface::Sample> Frames(int person) {
    return Population::get().enrol[static_cast<std::size_t>(person)].samples();
}

bool IsLink(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

TEST(StoreNames, TheConstraintSpaceNamesAreRefusedAsKeyNamesInAnyCase) {
    ScratchDir work;
    Gallery g = Open(work.path());
    const auto before = Snapshot(work.path());
    for (const char* name : {"cmsm", "cmsm-2", "cmsm-3", "CMSM", "Cmsm-2"})
        ExpectFailure(g.enrol(1, name, Frames(0)), ErrorKind::Argument,
                      std::string("name ") + name +
                          ": the dictionary directory keeps its constraint space under this name");
    EXPECT_EQ(Snapshot(work.path()), before);
    // Names that only look alike are people's names.
    ASSERT_TRUE(g.enrol(1, "cmsm-22", Frames(0)).ok());
    ASSERT_TRUE(g.enrol(2, "cmsm.x", Frames(1)).ok());
    EXPECT_THAT(Names(g.persons()), ElementsAre("1 cmsm-22", "2 cmsm.x"));
}

// A directory an older version left with a person enrolled as "cmsm": its files stay as they are
// through every rebuild, it is left out of loading, and check names it.
TEST(StoreNames, APersonListedUnderAConstraintNameKeepsItsFilesThroughRebuilds) {
    ScratchDir work;
    {
        Gallery g = Open(work.path());
        ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
        ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
        ASSERT_TRUE(g.enrol(3, "carol", Frames(2)).ok());
    }
    // What the older version wrote: carol's files under the name "cmsm".
    for (const char* ext : {".dck", ".mck", ".bmp"})
        std::filesystem::rename(work / (std::string("carol") + ext),
                                work / (std::string("cmsm") + ext));
    WriteText(work / "persons.txt", "1 alice\n2 bob\n3 cmsm\n");
    std::vector<std::pair<std::string, std::string>> files;
    for (const char* ext : {".dck", ".mck", ".bmp"})
        files.emplace_back(ext, ReadText(work / (std::string("cmsm") + ext)));

    Gallery g = Open(work.path());
    EXPECT_THAT(Names(g.persons()), ElementsAre("1 alice", "2 bob"));
    EXPECT_THAT(Names(g.orphans()), ElementsAre("3 cmsm"));
    for (int rebuild = 0; rebuild < 3; ++rebuild) {
        ASSERT_TRUE(g.rebuildConstraint(20).ok()) << rebuild;
        for (const auto& [ext, bytes] : files)
            EXPECT_EQ(ReadText(work / ("cmsm" + ext)), bytes)
                << ext << " after rebuild " << rebuild;
        const auto r = g.recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1});
        ASSERT_TRUE(r.ok()) << r.message();
        ASSERT_FALSE(r->matches.empty());
        EXPECT_EQ(r->matches.front().name, "alice");
    }
    const auto report = msmface::checkStore(work.path());
    ASSERT_TRUE(report.ok()) << report.message();
    ASSERT_FALSE(report->problems.empty());
    EXPECT_EQ(report->problems.front().kind, StoreProblemKind::Registry);
    EXPECT_THAT(report->problems.front().message,
                HasSubstr("persons.txt: person 3 cmsm: the dictionary directory keeps its "
                          "constraint space under this name"));
    // Deleting the entry leaves the files: they may be the space's.
    ASSERT_TRUE(g.remove(3).ok());
    EXPECT_TRUE(g.orphans().empty());
    for (const auto& [ext, bytes] : files)
        EXPECT_TRUE(ReadText(work / ("cmsm" + ext)) == bytes) << ext;
}

// A person taken out of the registry by hand leaves its files unlisted; an enrolment of that
// name (which here fails for too few frames) neither replaces nor removes them.
TEST(StoreNames, AnEnrolmentNeverTouchesFilesItDidNotCreate) {
    ScratchDir work;
    {
        Gallery g = Open(work.path());
        ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
        ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
    }
    WriteText(work / "persons.txt", "1 alice\n");
    Gallery g = Open(work.path());
    const auto before = Snapshot(work.path());
    const std::string bobDictionary = ReadText(work / "bob.dck");
    std::vector<msmface::Sample> few = Frames(1);
    few.resize(20);
    ExpectFailure(
        g.enrol(2, "bob", few), ErrorKind::File,
        work / "bob.dck" +
            ": exists, and no person of the registry names it; move it away or repair the "
            "directory (repairStore moves it to lost+found)");
    ExpectFailure(g.enrol(2, "bob", Frames(1)), ErrorKind::File, work / "bob.dck");
    EXPECT_TRUE(Snapshot(work.path()) == before);
    // Any file of the name is in the way, a dangling link as well.
    ASSERT_EQ(::symlink("nowhere", (work / "dave.dckev").c_str()), 0);
    ExpectFailure(g.enrol(4, "dave", Frames(3)), ErrorKind::File, work / "dave.dckev");
    EXPECT_TRUE(IsLink(work / "dave.dckev"));
    // Once the repair moved them to lost+found, the name is free again.
    const auto repaired = msmface::repairStore(work.path());
    ASSERT_TRUE(repaired.ok()) << repaired.message();
    EXPECT_TRUE(ReadText(work / "lost+found/bob.dck") == bobDictionary);
    ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
}

// A link where the picture goes: the outside file is left alone, whether the enrolment is
// refused (the gallery: a file of that name that no entry lists) or writes the picture (a host
// of the engine).
TEST(StoreNames, APictureLinkedOutsideIsNeverWrittenThrough) {
    ScratchDir work, outside;
    const std::string secret = outside / "secret";
    WriteText(secret, "not a picture\n");
    Gallery g = Open(work.path());
    ASSERT_EQ(::symlink(secret.c_str(), (work / "carol.bmp").c_str()), 0);
    ExpectFailure(g.enrol(3, "carol", Frames(2)), ErrorKind::File, work / "carol.bmp");
    EXPECT_EQ(ReadText(secret), "not a picture\n");
    EXPECT_TRUE(IsLink(work / "carol.bmp"));
}

// The registry and threshold linked to a file elsewhere are refused without a byte of the other
// file in the message; so is a constraint list.
TEST(StoreNames, TheDirectorysTextFilesAreNotReadThroughLinks) {
    ScratchDir work, outside;
    const std::string secret = outside / "secret";
    WriteText(secret, "hunter2 is the password\n");
    {
        Gallery g = Open(work.path());
        ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
        ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
    }
    for (const char* file : {"threshold.txt", "persons.txt"}) {
        const std::string saved = work / "saved";
        if (Exists(work / file)) std::filesystem::rename(work / file, saved);
        ASSERT_EQ(::symlink(secret.c_str(), (work / file).c_str()), 0);
        const auto g = Gallery::open(work.path());
        ASSERT_FALSE(g.ok()) << file;
        EXPECT_THAT(g.message(), HasSubstr(work / file + ": expected"));
        EXPECT_THAT(g.message(), HasSubstr("found a symbolic link"));
        EXPECT_THAT(g.message(), Not(HasSubstr("hunter")));
        const auto report = msmface::checkStore(work.path());
        ASSERT_TRUE(report.ok());
        // The check names the link as its one problem, again without a byte of the other file.
        ASSERT_EQ(report->problems.size(), 1u) << file;
        EXPECT_THAT(report->problems[0].message,
                    AllOf(StartsWith(work / file + ": expected"), EndsWith("found a symbolic link"),
                          Not(HasSubstr("hunter"))));
        ::unlink((work / file).c_str());
        if (Exists(saved)) std::filesystem::rename(saved, work / file);
    }
    Gallery g = Open(work.path());
    ASSERT_EQ(::symlink(secret.c_str(), (work / "constraint.list").c_str()), 0);
    const auto r = g.recognise(Population::get().probe[0].samples(), {Method::Cmsm, -1});
    ASSERT_FALSE(r.ok());
    EXPECT_THAT(r.message(), HasSubstr("constraint.list: expected a file of the directory, found a "
                                       "symbolic link"));
    const auto report = msmface::checkStore(work.path());
    ASSERT_TRUE(report.ok());
    ASSERT_EQ(report->problems.size(), 1u);
    EXPECT_EQ(report->problems[0].kind, StoreProblemKind::Constraint);
    // A rebuild replaces the link by a list of its own; the secret stays as it was.
    ASSERT_TRUE(g.rebuildConstraint(20).ok());
    EXPECT_FALSE(IsLink(work / "constraint.list"));
    EXPECT_EQ(ReadText(secret), "hunter2 is the password\n");
}

// A pipe in the list's place is not read (it would block while the lock is held): loading the
// space names it, and a rebuild replaces it by a list of its own.
TEST(StoreNames, APipeAsTheConstraintListIsNamedAndReplacedWithoutBeingRead) {
    ScratchDir work;
    {
        Gallery g = Open(work.path());
        ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
        ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
    }
    ASSERT_EQ(::mkfifo((work / "constraint.list").c_str(), 0644), 0);
    const auto probe = Population::get().probe[0].samples();
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);  // a call that blocks on the pipe ends the child here and fails the test
        Gallery g = Open(work.path());
        const auto refused = g.recognise(probe, {Method::Cmsm, -1});
        const bool named =
            !refused.ok() && refused.message() == work / "constraint.list" +
                                                      ": expected a file of the directory, found a "
                                                      "folder, a device or a pipe; run \"msmface "
                                                      "constraint " +
                                                      work.path() + "\" again";
        if (!named) std::fprintf(stderr, "%s\n", refused.message().c_str());
        const bool rebuilt = g.rebuildConstraint(20).ok();
        const auto r = g.recognise(probe, {Method::Cmsm, -1});
        ::_exit(named && rebuilt && r.ok() && r->matches.front().name == "alice" ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "a call blocked on the pipe";
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
    EXPECT_FALSE(IsLink(work / "constraint.list"));
    EXPECT_THAT(ReadText(work / "constraint.list"), HasSubstr("CMSML "));
}

// The list names its space by absolute path: in a copy of the directory it names the original's
// files, which the copy refuses to use until its own space is built.
TEST(StoreNames, ACopiedDirectoryDoesNotUseTheOriginalsConstraintSpace) {
    ScratchDir original, copy;
    {
        Gallery g = Open(original.path());
        ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
        ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
        ASSERT_TRUE(g.rebuildConstraint(20).ok());
    }
    for (const auto& [name, bytes] : Snapshot(original.path()))
        if (name != ".msmface.lock") WriteText(copy / name, bytes);
    Gallery g = Open(copy.path());
    const auto probe = Population::get().probe[1].samples();
    const auto refused = g.recognise(probe, {Method::Cmsm, -1});
    ExpectFailure(refused.status(), ErrorKind::File,
                  copy / "constraint.list: names " + original.path());
    EXPECT_THAT(refused.message(), HasSubstr("which is not in this directory"));
    const auto report = msmface::checkStore(copy.path());
    ASSERT_TRUE(report.ok());
    EXPECT_TRUE(report->damaged());
    // Built again, the copy's list names the copy.
    ASSERT_TRUE(g.rebuildConstraint(20).ok());
    EXPECT_THAT(ReadText(copy / "constraint.list"), HasSubstr(copy.path() + "/cmsm"));
    const auto r = g.recognise(probe, {Method::Cmsm, -1});
    ASSERT_TRUE(r.ok()) << r.message();
    ASSERT_FALSE(r->matches.empty());
    EXPECT_EQ(r->matches.front().name, "bob");
}

// A folder whose path holds blanks: the list names the space by its bare names, the gallery and
// its streams load it, and every file of the space stays in the folder.
TEST(StoreNames, AConstraintSpaceWorksInAFolderWithBlanksInItsPath) {
    ScratchDir work;
    const std::string dir = work / "my faces\tand more";
    Gallery g = Open(dir);
    ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
    ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
    const msmface::Status built = g.rebuildConstraint(20);
    ASSERT_TRUE(built.ok()) << built.message();
    EXPECT_EQ(ReadText(dir + "/constraint.list"), "1\n1\nCMSML cmsm 20 cmsm\n");
    for (int person : {0, 1}) {
        const auto r =
            g.recognise(Population::get().probe[static_cast<std::size_t>(person)].samples(),
                        {Method::Cmsm, -1});
        ASSERT_TRUE(r.ok()) << r.message();
        EXPECT_EQ(r->matches.front().id, person + 1);
    }
    // An enrolment moves the loaded space, a second rebuild takes the other stem.
    ASSERT_TRUE(g.enrol(3, "carol", Frames(2)).ok());
    ASSERT_TRUE(g.rebuildConstraint(20).ok());
    EXPECT_EQ(ReadText(dir + "/constraint.list"), "1\n1\nCMSML cmsm-2 20 cmsm-2\n");
    auto stream = msmface::Stream::create(g, {Method::Cmsm, -1, -2, nullptr});
    ASSERT_TRUE(stream.ok()) << stream.message();
    const auto& take = Population::get().probe[2];
    msmface::Result<msmface::StreamState> last = msmface::StreamState{};
    for (std::size_t k = 0; k < take.frames.size(); ++k)
        last = stream->push(take.view(k), take.points(k));
    ASSERT_TRUE(last.ok()) << last.message();
    ASSERT_FALSE(last->ranking.matches.empty());
    EXPECT_EQ(last->ranking.matches.front().name, "carol");
    const auto report = msmface::checkStore(dir);
    ASSERT_TRUE(report.ok());
    EXPECT_TRUE(report->problems.empty()) << report->problems.front().message;
    // Only the folder itself is beside it: nothing was written through a split path.
    EXPECT_THAT(work.Entries(), ElementsAre("my faces\tand more"));
    std::vector<std::string> names;
    for (const auto& [name, bytes] : Snapshot(dir)) names.push_back(name);
    EXPECT_THAT(names, ElementsAre(".msmface.lock", "alice.bmp", "alice.dck", "alice.mck",
                                   "bob.bmp", "bob.dck", "bob.mck", "carol.bmp", "carol.dck",
                                   "carol.mck", "cmsm-2.dck", "cmsm-2.dckev", "cmsm-2.mck",
                                   "constraint.list", "persons.txt"));
}

// Without blanks the list names the space by absolute path, as hosts of the engine read it.
TEST(StoreNames, AHostOfTheEngineLoadsTheListTheGalleryWrote) {
    ScratchDir work;
    Gallery g = Open(work.path());
    ASSERT_TRUE(g.enrol(1, "alice", Frames(0)).ok());
    ASSERT_TRUE(g.enrol(2, "bob", Frames(1)).ok());
    ASSERT_TRUE(g.rebuildConstraint(20).ok());
    const std::string here = std::filesystem::canonical(work.path()).string();
    EXPECT_EQ(ReadText(work / "constraint.list"),
              "1\n1\nCMSML " + here + "/cmsm 20 " + here + "/cmsm\n");
    FaceRecognition host(320, 240);
    EXPECT_GE(host.InitConstraintMSM((work / "constraint.list").c_str()), 1);
}

}  // namespace
