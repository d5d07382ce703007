#include "store/store_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace msm {
namespace {

constexpr std::size_t kMaxHostLength = 255;
constexpr std::size_t kMaxCommandLength = 200;
constexpr std::size_t kMaxLockText = 1024;

bool printable(char c) {
    return c > ' ' && c < 0x7f;
}

std::string sanitised(const std::string& s, std::size_t limit, bool blanks) {
    std::string out;
    for (char c : s) {
        if (out.size() == limit) break;
        out += printable(c) || (blanks && c == ' ') ? c : '?';
    }
    return out;
}

std::string thisCommand() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string raw{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    for (char& c : raw)
        if (c == '\0') c = ' ';
    while (!raw.empty() && raw.back() == ' ') raw.pop_back();
    // The program's own name without its folder keeps the message short.
    const std::size_t firstBlank = raw.find(' ');
    const std::size_t slash = raw.rfind('/', firstBlank);
    if (slash != std::string::npos) raw.erase(0, slash + 1);
    return sanitised(raw, kMaxCommandLength, true);
}

std::string thisHost() {
    char name[kMaxHostLength + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return sanitised(name, kMaxHostLength, false);
}

std::string readLockText(int fd) {
    std::string text(kMaxLockText, '\0');
    const ssize_t n = ::pread(fd, text.data(), text.size(), 0);
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return text;
}

std::string holderText(const std::string& text) {
    LockHolder h;
    if (!parseLockHolder(text, h)) return {};
    std::string out = "PID " + std::to_string(h.pid);
    if (!h.command.empty() || !h.host.empty()) {
        out += " (";
        out += h.command.empty() ? std::string("a process") : h.command;
        if (!h.host.empty()) out += " on " + h.host;
        out += ")";
    }
    return out;
}

bool sameFile(int fd, const std::string& path) {
    struct stat a {
    }, b{};
    return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// Why the lock file open on fd must not be locked by a writer ("" when it may): a writer rewrites
// its text, so it must be this directory's own file and nothing else's name.
std::string notOwnLockFile(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return std::string("cannot be examined (") + std::strerror(errno) + ")";
    if (!S_ISREG(st.st_mode)) return "a folder, a device or a pipe";
    if (st.st_nlink != 1)
        return "a file with " + std::to_string(st.st_nlink) + " names (a hard link)";
    return {};
}

// A directory shared by several users has one lock file, made by whoever wrote first: the others
// lock it too, but only its owner records itself in it.
bool ownsLockFile(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && st.st_uid == ::geteuid();
}

int lockOnce(int fd, int operation) {
    for (;;) {
        if (::flock(fd, operation) == 0) return 0;
        if (errno != EINTR) return errno;
    }
}

}  // namespace

std::string formatLockHolder(const LockHolder& holder) {
    const std::string host = sanitised(holder.host, kMaxHostLength, false);
    return std::to_string(holder.pid) + " " + (host.empty() ? std::string("-") : host) + " " +
           sanitised(holder.command, kMaxCommandLength, true) + "\n";
}

bool parseLockHolder(const std::string& text, LockHolder& out) {
    if (text.size() > kMaxLockText) return false;
    const std::size_t end = text.find('\n');
    if (end == std::string::npos || end + 1 != text.size()) return false;
    const std::string line = text.substr(0, end);
    std::size_t at = 0;
    long pid = 0;
    while (at < line.size() && line[at] >= '0' && line[at] <= '9') {
        if (pid > (LONG_MAX - 9) / 10 || at >= 10) return false;
        pid = pid * 10 + (line[at] - '0');
        ++at;
    }
    if (at == 0 || pid < 1 || pid > INT_MAX || at >= line.size() || line[at] != ' ') return false;
    const std::size_t hostStart = ++at;
    while (at < line.size() && printable(line[at])) ++at;
    const std::string host = line.substr(hostStart, at - hostStart);
    if (host.empty() || host.size() > kMaxHostLength || at >= line.size() || line[at] != ' ')
        return false;
    const std::string command = line.substr(at + 1);
    if (command.size() > kMaxCommandLength) return false;
    for (char c : command)
        if (!printable(c) && c != ' ') return false;
    out.pid = pid;
    out.host = host == "-" ? std::string() : host;
    out.command = command;
    return true;
}

DirectoryLock::~DirectoryLock() {
    release();
}

DirectoryLock::DirectoryLock(DirectoryLock&& other) noexcept
    : fd_(other.fd_), recordsHolder_(other.recordsHolder_) {
    other.fd_ = -1;
}

DirectoryLock& DirectoryLock::operator=(DirectoryLock&& other) noexcept {
    if (this != &other) {
        release();
        fd_ = other.fd_;
        recordsHolder_ = other.recordsHolder_;
        other.fd_ = -1;
    }
    return *this;
}

void DirectoryLock::release() {
    if (fd_ < 0) return;
    // The next waiter should not name a writer that has finished.
    if (recordsHolder_) (void)::ftruncate(fd_, 0);
    ::close(fd_);  // drops the flock
    fd_ = -1;
}

msmface::Status DirectoryLock::acquire(const std::string& dir, LockMode mode, const LockWait& how,
                                       DirectoryLock& out) {
    using msmface::ErrorKind;
    using msmface::Status;
    out.release();
    const std::string path = dir + "/" + kLockFileName;
    const bool exclusive = mode == LockMode::Exclusive;
    bool noticed = false;
    // A lock file removed by hand while we waited on it locks nothing: take the lock again on the
    // file that is there now.
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0 && !exclusive) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            if (!exclusive) return {};
            return Status::failure(ErrorKind::File, dir +
                                                        ": cannot write in the dictionary "
                                                        "directory (" +
                                                        std::strerror(errno) + ")");
        }
        const int kind = exclusive ? LOCK_EX : LOCK_SH;
        int error = lockOnce(fd, kind | LOCK_NB);
        if (error == EWOULDBLOCK) {
            std::string who = holderText(readLockText(fd));
            if (who.empty()) who = "another process";
            if (!how.wait) {
                ::close(fd);
                return Status::failure(
                    ErrorKind::Busy,
                    dir + ": the dictionary directory is locked by " + who + "; try again later");
            }
            if (!noticed && how.notice)
                how.notice("waiting for the lock on " + dir + " held by " + who);
            noticed = true;
            const auto start = std::chrono::steady_clock::now();
            error = lockOnce(fd, kind);
            const double waited =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (error == 0 && how.notice) {
                char line[64];
                std::snprintf(line, sizeof line, " after %.2f s", waited);
                how.notice("got the lock on " + dir + line);
            }
        }
        if (error != 0) {
            ::close(fd);
            return Status::failure(ErrorKind::File,
                                   path + ": cannot be locked (" + std::strerror(error) + ")");
        }
        if (!sameFile(fd, path)) {
            ::close(fd);
            continue;
        }
        if (exclusive) {
            const std::string found = notOwnLockFile(fd);
            if (!found.empty()) {
                ::close(fd);
                return Status::failure(ErrorKind::File,
                                       path +
                                           ": expected the directory's own lock file (a regular "
                                           "file with one name), found " +
                                           found + "; move it away");
            }
        }
        out.fd_ = fd;
        out.recordsHolder_ = exclusive && ownsLockFile(fd);
        if (out.recordsHolder_) {
            const std::string text = formatLockHolder(
                LockHolder{static_cast<long>(::getpid()), thisHost(), thisCommand()});
            // Only informative: a failure to record the holder does not fail the lock.
            if (::ftruncate(fd, 0) == 0) (void)!::pwrite(fd, text.data(), text.size(), 0);
        }
        return {};
    }
    return Status::failure(ErrorKind::File, path + ": keeps being replaced; cannot be locked");
}

std::string describeLockHolder(const std::string& dir) {
    const int fd = ::open((dir + "/" + kLockFileName).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return {};
    std::string who = holderText(readLockText(fd));
    ::close(fd);
    return who;
}

}  // namespace msm
