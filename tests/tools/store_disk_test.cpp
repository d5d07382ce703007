// A full disk, a read-only medium and a folder the user may not write: an enrolment or a
// constraint rebuild that cannot write leaves the directory exactly as it was and says which file
// and why. The disk is a small tmpfs mounted in a mount namespace of a child process (as root, or
// in a user namespace otherwise), filled until only the room for the files before the one under
// test is left; where no namespace can be made the tests skip.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_support.h"

namespace {

using clitest::Scratch;
using clitest::WriteText;
using storetest::Finished;
using storetest::Launch;
using storetest::Wait;

constexpr long kPage = 4096;
constexpr int kSkipped = 3;

long Pages(long bytes) {
    return (bytes + kPage - 1) / kPage;
}

bool WriteFile(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

// The child's own mount namespace with a tmpfs at mountPoint. Empty or why it could not be made.
std::string MountScratchFs(const std::string& mountPoint) {
    if (::unshare(CLONE_NEWNS) != 0) {
        const uid_t uid = ::getuid();
        const gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return "no mount namespace can be made";
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return "the mounts cannot be made private";
    if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=16m,mode=0755") != 0)
        return "no tmpfs can be mounted";
    return {};
}

// Each file's bytes: "exactly as it was" is compared byte for byte.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
    std::map<std::string, std::string> files;
    for (const std::string& name : clitest::Entries(dir))
        files[name] = clitest::ReadText(dir + "/" + name);
    return files;
}

std::string Differences(const std::map<std::string, std::string>& before,
                        const std::map<std::string, std::string>& after) {
    std::string d;
    for (const auto& [name, bytes] : before)
        if (!after.count(name))
            d += " " + name + " vanished;";
        else if (after.at(name) != bytes)
            d += " " + name + " changed;";
    for (const auto& [name, bytes] : after)
        if (!before.count(name)) d += " " + name + " appeared;";
    return d;
}

// Leaves exactly `room` bytes free on the file system of dir (rounded to pages) with a filler.
std::string Fill(const std::string& dir, long room) {
    struct statvfs fs {};
    if (::statvfs(dir.c_str(), &fs) != 0) return "statvfs failed";
    const long free = static_cast<long>(fs.f_bavail) * static_cast<long>(fs.f_frsize);
    const long fill = free - Pages(room) * kPage;
    if (fill < 0) return "the scratch file system is too small";
    const int fd = ::open((dir + "/../filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return "no filler";
    const std::string block(kPage, '\0');
    for (long done = 0; done < fill; done += kPage)
        if (::write(fd, block.data(), kPage) != kPage) break;
    ::close(fd);
    return {};
}

constexpr uid_t kOtherUser = 65534;

void BecomeOtherUser() {
    if (::setgid(kOtherUser) != 0 || ::setuid(kOtherUser) != 0) ::_exit(99);
}

bool OtherUserCanRead(const std::string& path) {
    const pid_t child = ::fork();
    if (child == 0) {
        BecomeOtherUser();
        ::_exit(::access(path.c_str(), R_OK) == 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class StoreDisk : public ::testing::Test {
  protected:
    void SetUp() override {
        // Readable by the other user of the forbidden-folder case, whatever umask the test runs
        // under: the frames, the folders, and the scratch root that holds them.
        ::umask(022);
        ::chmod(std::filesystem::path(frames_.path()).parent_path().c_str(), 0755);
        ::chmod(frames_.path().c_str(), 0755);
        ::chmod(work_.path().c_str(), 0755);
        for (int id : {1, 2, 3})
            WriteText(frames_ / ("p" + std::to_string(id) + ".txt"),
                      clitest::Join(clitest::WriteTake(frames_.path(), "p" + std::to_string(id), id,
                                                       700 + id, 10)));
    }

    std::vector<std::string> Enrol(const std::string& dir, int id) const {
        return {"enrol",    dir,
                "--id",     std::to_string(id),
                "--name",   "person" + std::to_string(id),
                "--points", frames_ / ("p" + std::to_string(id) + ".txt"),
                "--copies", "5",
                "--jitter", "1.5"};
    }

    // Persons 1 and 2 in dir; empty, or why not.
    std::string EnrolFirstTwo(const std::string& dir) const {
        for (int id : {1, 2}) {
            const Finished f = Wait(Launch(Enrol(dir, id), work_ / "pre"));
            if (f.status != 0) return "the first enrolments failed: " + f.err;
        }
        return {};
    }

    // Runs body in a child with a fresh tmpfs at work/mnt; body returns what went wrong.
    void InScratchFs(const std::function<std::string(const std::string& mnt)>& body) {
        const std::string mnt = work_ / "mnt";
        ASSERT_EQ(::mkdir(mnt.c_str(), 0755), 0);
        const std::string result = work_ / "result";
        const pid_t child = ::fork();
        if (child == 0) {
            const std::string why = MountScratchFs(mnt);
            if (!why.empty()) {
                WriteFile(result, why);
                ::_exit(kSkipped);
            }
            const std::string failure = body(mnt);
            WriteFile(result, failure);
            ::_exit(failure.empty() ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        const std::string text = clitest::ReadText(result);
        if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << text;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    }

    // The one-line failure naming the file and the reason, and the directory as it was.
    std::string ExpectRefused(
        const std::string& dir, const std::vector<std::string>& args, const std::string& message,
        const std::string& label, const std::function<void()>& prepare = [] {}) {
        const auto before = Snapshot(dir);
        const Finished f = Wait(Launch(args, work_ / label, prepare));
        std::string failure;
        if (f.status != 1) failure += label + ": exit " + std::to_string(f.status) + "; ";
        if (f.err.find(message) == std::string::npos || f.err.find('\n') + 1 != f.err.size())
            failure += label + ": expected one line with \"" + message + "\", got: " + f.err + "; ";
        const std::string changed = Differences(before, Snapshot(dir));
        if (!changed.empty()) failure += label + ":" + changed + " ";
        return failure;
    }

    Scratch frames_{"diskframes"};
    Scratch work_{"disk"};
};

TEST_F(StoreDisk, AFullDiskRefusesEachFileOfAnEnrolmentAndLeavesTheDirectoryAsItWas) {
    InScratchFs([&](const std::string& mnt) -> std::string {
        const std::string dir = mnt + "/dict";
        const std::string enrolled = EnrolFirstTwo(dir);
        if (!enrolled.empty()) return enrolled;
        // The sizes of one person's files, in the order an enrolment writes them.
        const auto size = [&](const char* ext) {
            struct stat st {};
            return ::stat((dir + "/person1" + ext).c_str(), &st) == 0 ? Pages(st.st_size) * kPage
                                                                      : 0L;
        };
        const long mck = size(".mck"), dck = size(".dck"), bmp = size(".bmp");
        if (mck == 0 || dck == 0 || bmp == 0) return "the first person's files are missing";
        // One page more for the lock file, whose text names the writer while it writes.
        struct Case {
            const char* file;
            long room;
        } cases[] = {{".mck", kPage + mck / 2},
                     {".dck", kPage + mck + dck / 2},
                     {".bmp", kPage + mck + dck + bmp / 2},
                     {"persons.txt", kPage + mck + dck + bmp}};
        std::string failures;
        for (const Case& c : cases) {
            const std::string filled = Fill(dir, c.room);
            if (!filled.empty()) return filled;
            const std::string file = c.file[0] == '.' ? "person3" + std::string(c.file) : c.file;
            failures += ExpectRefused(
                dir, Enrol(dir, 3),
                dir + "/" + file + ": cannot be written (No space left on device)", c.file);
            ::unlink((mnt + "/filler").c_str());
        }
        // With room again, the same enrolment succeeds: nothing of the failed ones is in its way.
        const Finished f = Wait(Launch(Enrol(dir, 3), work_ / "after"));
        if (f.status != 0) failures += "the enrolment after the full disk failed: " + f.err;
        return failures;
    });
}

TEST_F(StoreDisk, AFullDiskRefusesTheConstraintSpaceAndKeepsTheOldOne) {
    InScratchFs([&](const std::string& mnt) -> std::string {
        const std::string dir = mnt + "/dict";
        const std::string enrolled = EnrolFirstTwo(dir);
        if (!enrolled.empty()) return enrolled;
        std::string failures;
        std::string filled = Fill(dir, 8 * kPage);
        if (!filled.empty()) return filled;
        failures += ExpectRefused(dir, {"constraint", dir, "--dimension", "20"},
                                  ": cannot be written (No space left on device)", "first space");
        ::unlink((mnt + "/filler").c_str());
        const Finished built = Wait(Launch({"constraint", dir, "--dimension", "20"}, work_ / "c"));
        if (built.status != 0) return failures + "the constraint space was not built: " + built.err;
        long total = 0;
        for (const std::string& name : clitest::Entries(dir)) {
            struct stat st {};
            if (name.rfind("cmsm", 0) == 0 && ::stat((dir + "/" + name).c_str(), &st) == 0)
                total += Pages(st.st_size) * kPage;
        }
        // A rebuild that runs out of room part-way keeps every file of the old space.
        for (long room : {2 * kPage, kPage + total / 3, kPage + 2 * total / 3, total}) {
            filled = Fill(dir, room);
            if (!filled.empty()) return filled;
            failures += ExpectRefused(dir, {"constraint", dir, "--dimension", "20"},
                                      ": cannot be written (No space left on device)",
                                      "rebuild with " + std::to_string(room / kPage) + " pages");
            ::unlink((mnt + "/filler").c_str());
        }
        return failures;
    });
}

// With not a byte free, the registry's replacement has no room for its temporary: a deletion
// still succeeds (the person's own files give the room) and loses no one else.
TEST_F(StoreDisk, ADeletionFreesSpaceOnAFullDisk) {
    InScratchFs([&](const std::string& mnt) -> std::string {
        const std::string dir = mnt + "/dict";
        const std::string enrolled = EnrolFirstTwo(dir);
        if (!enrolled.empty()) return enrolled;
        const auto before = Snapshot(dir);
        const std::string filled = Fill(dir, 0);
        if (!filled.empty()) return filled;
        const bool roomLeft = WriteFile(mnt + "/probe", std::string(kPage, 'x'));
        ::unlink((mnt + "/probe").c_str());
        if (roomLeft) return "the scratch file system is not full";
        const Finished f = Wait(Launch({"delete", dir, "--id", "1"}, work_ / "delete"));
        std::string failures;
        if (f.status != 0)
            failures +=
                "delete on a full disk: exit " + std::to_string(f.status) + ": " + f.err + "; ";
        if (clitest::ReadText(dir + "/persons.txt").find("1 person1") != std::string::npos ||
            clitest::ReadText(dir + "/persons.txt").find("2 person2\n") == std::string::npos)
            failures += "persons.txt: " + clitest::ReadText(dir + "/persons.txt") + "; ";
        const auto after = Snapshot(dir);
        for (const auto& [name, bytes] : before) {
            const bool gone = name.rfind("person1.", 0) == 0;
            if (gone && after.count(name)) failures += name + " is still there; ";
            if (!gone && name.rfind("person2.", 0) == 0 &&
                (!after.count(name) || after.at(name) != bytes))
                failures += name + " changed; ";
        }
        return failures;
    });
}

TEST_F(StoreDisk, ReadOnlyMediaAndForbiddenFoldersAreNamedWithTheirReason) {
    InScratchFs([&](const std::string& mnt) -> std::string {
        const std::string dir = mnt + "/dict";
        const std::string enrolled = EnrolFirstTwo(dir);
        if (!enrolled.empty()) return enrolled;
        std::string failures;
        if (::getuid() == 0 && !OtherUserCanRead(frames_ / "p3.txt")) {
            std::fprintf(stderr,
                         "the forbidden-folder case is left out: user 65534 cannot read "
                         "%s (a folder above it is closed to others)\n",
                         (frames_ / "p3.txt").c_str());
        } else if (::getuid() == 0) {
            // Another user than the directory's owner.
            failures += ExpectRefused(
                dir, Enrol(dir, 3),
                dir + ": cannot write in the dictionary directory (Permission denied)", "forbidden",
                BecomeOtherUser);
        }
        if (::mount(nullptr, mnt.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            return failures + "the scratch file system cannot be made read-only";
        failures += ExpectRefused(dir, Enrol(dir, 3),
                                  dir +
                                      ": cannot write in the dictionary directory (Read-only file "
                                      "system)",
                                  "read-only enrol");
        failures += ExpectRefused(dir, {"delete", dir, "--id", "1"},
                                  dir +
                                      ": cannot write in the dictionary directory (Read-only file "
                                      "system)",
                                  "read-only delete");
        // Reading still works.
        const Finished list = Wait(Launch({"list", dir}, work_ / "list"));
        if (list.status != 0 || list.out.find("2 persons") == std::string::npos)
            failures += "list on read-only media: " + list.out + list.err;
        return failures;
    });
}

}  // namespace
