#include "dictionary/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace msm {

namespace {

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
    struct stat st {};
    mode_t mode =
        ::stat(target.c_str(), &st) == 0 ? (st.st_mode & 07777) : (0666 & ~currentUmask());
    ::fchmod(fd, mode);
}

// The rename itself lives in the directory; without this a power cut could bring back the old
// name after we reported success.
void syncDirectory(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

AtomicFile::AtomicFile(const char* target) {
    if (target == nullptr || *target == '\0') return;
    target_ = target;
    std::vector<char> name(target_.begin(), target_.end());
    static const char kSuffix[] = ".tmpXXXXXX";
    name.insert(name.end(), kSuffix, kSuffix + sizeof kSuffix);  // with the terminator
    int fd = ::mkstemp(name.data());
    if (fd < 0) return;
    temp_ = name.data();
    setFinalPermissions(fd, target_);
    stream_ = ::fdopen(fd, "wb");
    if (stream_ == nullptr) {
        ::close(fd);
        ::unlink(temp_.c_str());
        temp_.clear();
    }
}

AtomicFile::~AtomicFile() {
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

bool AtomicFile::Commit() {
    if (stream_ == nullptr) return false;
    bool ok = std::fflush(stream_) == 0 && !std::ferror(stream_);
    ok = ok && ::fsync(::fileno(stream_)) == 0;
    int closed = std::fclose(stream_);
    stream_ = nullptr;
    ok = ok && closed == 0;
    if (ok && ::rename(temp_.c_str(), target_.c_str()) == 0) {
        temp_.clear();
        syncDirectory(directoryOf(target_));
        return true;
    }
    Abandon();
    return false;
}

bool writeAll(std::FILE* f, const void* data, std::size_t n) {
    return n == 0 || std::fwrite(data, 1, n, f) == n;
}

bool writeInt32(std::FILE* f, int32_t v) {
    return writeAll(f, &v, sizeof v);
}

}  // namespace msm
