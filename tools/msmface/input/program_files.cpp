#include "input/program_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "io/atomic_file.h"
#include "io/byte_reader.h"

namespace msmcli {
namespace {

std::string megabytes(std::size_t bytes) {
    return std::to_string(bytes >> 20) + " MiB";
}

std::string resolved(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) != nullptr ? std::string(buf) : std::string();
}

// Where a file not yet written would be: its folder resolved, its own name kept.
std::string resolvedOutput(const std::string& path) {
    const std::string whole = resolved(path);
    if (!whole.empty()) return whole;
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string where = resolved(folder);
    if (where.empty() || name.empty() || name == "." || name == "..") return {};
    return where == "/" ? "/" + name : where + "/" + name;
}

}  // namespace

std::string readInputFile(const std::string& path, std::size_t maxBytes, const std::string& what,
                          std::vector<unsigned char>& bytes) {
    bytes.clear();
    // Judged before reading, so that the reason can be told; the read itself opens without
    // blocking and checks the opened file again, so that a file swapped meanwhile is no threat.
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return path + ": cannot be read (" + std::strerror(errno) + "); expected " + what;
    if (S_ISDIR(st.st_mode)) return path + ": is a folder; expected " + what;
    if (!S_ISREG(st.st_mode))
        return path + ": not a regular file (a pipe, a socket or a device); expected " + what;
    if (static_cast<unsigned long long>(st.st_size) > maxBytes)
        return path + ": larger than " + megabytes(maxBytes) + "; expected " + what;
    errno = 0;
    if (!msm::readWholeFile(path.c_str(), bytes)) {
        const int error = errno;
        return path + ": cannot be read (" +
               (error != 0 ? std::string(std::strerror(error)) : "it changed while read") +
               "); expected " + what;
    }
    if (bytes.size() > maxBytes) {  // grew between the check and the read
        bytes.clear();
        return path + ": larger than " + megabytes(maxBytes) + "; expected " + what;
    }
    return {};
}

std::string writeOutputFile(const std::string& path, const void* bytes, std::size_t size) {
    msm::clearWriteFailure();
    msm::AtomicFile file(path.c_str());
    const bool ok =
        file.stream() != nullptr && msm::writeAll(file.stream(), bytes, size) && file.Commit();
    if (ok) return {};
    const std::string reason = msm::lastWriteFailure();
    return reason.empty() ? path + ": cannot be written" : reason;
}

OutputBeside::OutputBeside(std::string target) : target_(std::move(target)) {
    const std::size_t slash = target_.rfind('/');
    const std::size_t dot = target_.rfind('.');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::string ending =
        dot == std::string::npos || dot <= nameStart ? std::string() : target_.substr(dot);
    std::string pattern =
        target_.substr(0, nameStart) + "." + target_.substr(nameStart) + ".tmpXXXXXX" + ending;
    const int fd = ::mkstemps(pattern.data(), static_cast<int>(ending.size()));
    if (fd < 0) {
        error_ = target_ + ": cannot be written (" + std::strerror(errno) + ")";
        return;
    }
    ::close(fd);
    temp_ = pattern;
}

OutputBeside::~OutputBeside() {
    if (!temp_.empty()) ::unlink(temp_.c_str());
}

std::string OutputBeside::commit() {
    if (temp_.empty()) return error_.empty() ? target_ + ": cannot be written" : error_;
    if (::rename(temp_.c_str(), target_.c_str()) != 0)
        return target_ + ": cannot be written (" + std::strerror(errno) + ")";
    temp_.clear();
    const std::size_t slash = target_.rfind('/');
    msm::syncDirectory(slash == std::string::npos ? "."
                       : slash == 0               ? "/"
                                                  : target_.substr(0, slash));
    return {};
}

void InputFiles::add(const std::string& path) {
    if (path.empty()) return;
    Input in;
    in.path = path;
    // An input named but not there yet (a model to come) is still never to be written over.
    in.resolved = resolvedOutput(path);
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        in.exists = true;
        in.device = st.st_dev;
        in.inode = st.st_ino;
    }
    inputs_.push_back(std::move(in));
}

void InputFiles::addFolder(const std::string& path) {
    add(path);
    if (!inputs_.empty() && inputs_.back().path == path) inputs_.back().folder = true;
}

std::string InputFiles::refuseOverwrite(const std::string& option, const std::string& path) const {
    struct stat st {};
    const bool exists = ::stat(path.c_str(), &st) == 0;
    const std::string where = resolvedOutput(path);
    for (const Input& in : inputs_) {
        const bool same =
            (exists && in.exists && st.st_dev == in.device && st.st_ino == in.inode) ||
            (!where.empty() && where == in.resolved);
        const bool inside = in.folder && !in.resolved.empty() &&
                            where.compare(0, in.resolved.size() + 1, in.resolved + "/") == 0;
        if (same && !in.folder)
            return option + " " + path + ": is the input " + in.path +
                   "; expected a file that is not read by this command";
        if (same || inside)
            return option + " " + path + ": is inside " + in.path +
                   ", which this command reads; expected a file elsewhere";
    }
    return {};
}

}  // namespace msmcli
