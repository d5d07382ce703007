#include "io/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace msm {

namespace {

thread_local std::string writeFailure;
// errno of the last short fwrite, which a later fflush may no longer see.
thread_local int pendingWriteError = 0;

std::string directoryOf(const std::string& path) {
    std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// The process umask, read without changing it (umask() would race with other threads).
mode_t currentUmask() {
    mode_t mask = 022;
    if (std::FILE* f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        unsigned value = 0;
        while (std::fgets(line, sizeof line, f) != nullptr)
            if (std::sscanf(line, "Umask: %o", &value) == 1) {
                mask = static_cast<mode_t>(value);
                break;
            }
        std::fclose(f);
    }
    return mask;
}

// A temporary is created private; the finished file gets the permissions of the one it
// replaces, or those a plain fopen would have given.
void setFinalPermissions(int fd, const std::string& target) {
    // lstat: a link in the target's place is replaced, and the mode of what it points at is none
    // of the new file's business.
    struct stat st {};
    mode_t mode = ::lstat(target.c_str(), &st) == 0 && S_ISREG(st.st_mode)
                      ? (st.st_mode & 07777)
                      : (0666 & ~currentUmask());
    ::fchmod(fd, mode);
}

}  // namespace

// The rename itself lives in the directory; without this a power cut could bring back the old
// name after we reported success.
void syncDirectory(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

bool AtomicFile::Replaceable() {
    // A rename replaces a file or a link; a device, a pipe or a folder in the target's place is
    // not ours to replace (a device node swapped for a plain file would break every user of it).
    struct stat st {};
    if (::lstat(target_.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
        writeFailure = target_ + ": cannot be written (not a regular file)";
        return false;
    }
    return true;
}

AtomicFile::AtomicFile(const char* target, NamedWriter) {
    if (target == nullptr || *target == '\0') return;
    target_ = target;
    if (!Replaceable()) return;
    const std::size_t slash = target_.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = target_.rfind('.');
    const std::string ending =
        dot == std::string::npos || dot <= nameStart ? std::string() : target_.substr(dot);
    std::string name =
        target_.substr(0, nameStart) + "." + target_.substr(nameStart) + ".tmpXXXXXX" + ending;
    const int fd = ::mkstemps(name.data(), static_cast<int>(ending.size()));
    if (fd < 0) {
        noteWriteFailure(target_, errno);
        return;
    }
    setFinalPermissions(fd, target_);
    ::close(fd);
    temp_ = name;
}

AtomicFile::AtomicFile(const char* target) {
    if (target == nullptr || *target == '\0') return;
    target_ = target;
    if (!Replaceable()) return;
    std::vector<char> name(target_.begin(), target_.end());
    static const char kSuffix[] = ".tmpXXXXXX";
    name.insert(name.end(), kSuffix, kSuffix + sizeof kSuffix);  // with the terminator
    pendingWriteError = 0;
    int fd = ::mkstemp(name.data());
    if (fd < 0) {
        noteWriteFailure(target_, errno);
        return;
    }
    temp_ = name.data();
    setFinalPermissions(fd, target_);
    stream_ = ::fdopen(fd, "wb");
    if (stream_ == nullptr) {
        noteWriteFailure(target_, errno);
        ::close(fd);
        ::unlink(temp_.c_str());
        temp_.clear();
    }
}

AtomicFile::~AtomicFile() {
    // A writer that stopped at a failed write without calling Commit still names the file.
    if (stream_ != nullptr && pendingWriteError != 0) noteWriteFailure(target_, pendingWriteError);
    Abandon();
}

void AtomicFile::Abandon() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
        stream_ = nullptr;
    }
    if (!temp_.empty()) {
        ::unlink(temp_.c_str());
        temp_.clear();
    }
}

bool AtomicFile::Finish(int& error) {
    error = 0;
    if (stream_ == nullptr) {
        // The named writer closed its file: what it wrote is made durable here.
        const int fd = ::open(temp_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            error = errno;
            return false;
        }
        const bool synced = ::fsync(fd) == 0;
        if (!synced) error = errno;
        ::close(fd);
        return synced;
    }
    error = pendingWriteError;
    errno = 0;
    bool ok = std::fflush(stream_) == 0 && !std::ferror(stream_);
    if (!ok && error == 0) error = errno;
    ok = ok && ::fsync(::fileno(stream_)) == 0;
    if (!ok && error == 0) error = errno;
    int closed = std::fclose(stream_);
    stream_ = nullptr;
    if (ok && closed != 0) error = errno;
    return ok && closed == 0;
}

bool AtomicFile::Commit() {
    if (temp_.empty()) return false;
    int error = 0;
    const bool finished = Finish(error);
    if (finished && ::rename(temp_.c_str(), target_.c_str()) == 0) {
        temp_.clear();
        syncDirectory(directoryOf(target_));
        return true;
    }
    if (finished) error = errno;
    noteWriteFailure(target_, error);
    Abandon();
    return false;
}

std::string lastWriteFailure() {
    return writeFailure;
}

void clearWriteFailure() {
    writeFailure.clear();
}

void noteWriteFailure(const std::string& path, int err) {
    writeFailure = path + ": cannot be written (" +
                   (err != 0 ? std::string(std::strerror(err)) : std::string("write failed")) + ")";
}

bool writeAll(std::FILE* f, const void* data, std::size_t n) {
    if (n == 0) return true;
    errno = 0;
    if (std::fwrite(data, 1, n, f) == n) return true;
    if (pendingWriteError == 0) pendingWriteError = errno;
    return false;
}

bool writeInt32(std::FILE* f, int32_t v) {
    return writeAll(f, &v, sizeof v);
}

}  // namespace msm
