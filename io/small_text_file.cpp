#include "io/small_text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "io/atomic_file.h"

namespace msmface::detail {

SmallFileRead readSmallTextFile(const std::string& path, std::size_t maxBytes, std::string& text,
                                Links links) {
    text.clear();
    // O_NONBLOCK: a FIFO put where a file belongs must not hang the open; fstat then refuses it.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK |
                                            (links == Links::Refuse ? O_NOFOLLOW : 0));
    if (fd < 0 && errno == ELOOP && links == Links::Refuse) return SmallFileRead::Link;
    if (fd < 0) return errno == ENOENT ? SmallFileRead::Missing : SmallFileRead::Failed;
    struct stat st {};
    SmallFileRead result = SmallFileRead::Ok;
    if (::fstat(fd, &st) != 0)
        result = SmallFileRead::Failed;
    else if (!S_ISREG(st.st_mode))
        result = SmallFileRead::NotAFile;
    else if (static_cast<std::size_t>(st.st_size) > maxBytes)
        result = SmallFileRead::TooLarge;
    char buffer[4096];
    while (result == SmallFileRead::Ok) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result = SmallFileRead::Failed;
            break;
        }
        if (n == 0) break;
        // A file that grows while we read is held to the same limit.
        if (text.size() + static_cast<std::size_t>(n) > maxBytes) {
            result = SmallFileRead::TooLarge;
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
    const int saved = errno;
    ::close(fd);
    errno = saved;
    if (result != SmallFileRead::Ok) text.clear();
    return result;
}

std::string smallFileReadProblem(SmallFileRead read, const std::string& path,
                                 const std::string& expected, const std::string& limit) {
    switch (read) {
        case SmallFileRead::Ok:
        case SmallFileRead::Missing:
            return {};
        case SmallFileRead::NotAFile:
            return path + ": " + expected + " in a file, found a folder or a device";
        case SmallFileRead::Link:
            return path + ": " + expected + " in a file of the directory, found a symbolic link";
        case SmallFileRead::TooLarge:
            return path + ": larger than " + limit + "; " + expected;
        case SmallFileRead::Failed:
            break;
    }
    return path + ": cannot be read (" + std::strerror(errno) + ")";
}

std::string quoteForMessage(const std::string& text, std::size_t maxChars) {
    std::string out;
    for (std::size_t i = 0; i < text.size() && i < maxChars; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    if (text.size() > maxChars) out += "...";
    return out;
}

std::string replaceSmallTextFile(const std::string& dir, const std::string& path,
                                 const std::string& text) {
    msm::AtomicFile file(path.c_str());
    if (file.stream() == nullptr)
        return dir + ": cannot write in the dictionary directory (" + std::strerror(errno) + ")";
    errno = 0;
    msm::clearWriteFailure();
    if (!msm::writeAll(file.stream(), text.data(), text.size()) || !file.Commit()) {
        const std::string failure = msm::lastWriteFailure();
        if (!failure.empty()) return failure;
        return path + ": cannot be written (" + std::strerror(errno != 0 ? errno : EIO) + ")";
    }
    return {};
}

}  // namespace msmface::detail
