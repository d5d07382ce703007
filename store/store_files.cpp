#include "store/store_files.h"

#include <msmface/store.h>

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "io/small_text_file.h"
#include "recognition/constraint_list.h"

namespace msm {
namespace {

bool endsWith(const std::string& s, const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool alnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool digits(const std::string& s) {
    return !s.empty() && s.size() <= 10 &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool writtenByUs(const std::string& name) {
    if (name == msmface::kRegistryFileName || name == msmface::kThresholdFileName ||
        name == msmface::kConstraintListFileName || name == msmface::kPatternsFileName)
        return true;
    return !personStemOf(name).empty();
}

}  // namespace

std::string realPath(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) != nullptr ? std::string(buf) : std::string();
}

bool isConstraintStem(const std::string& stem) {
    for (const char* s : kConstraintStems)
        if (stem == s) return true;
    return false;
}

void FileDescriptor::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

bool isReservedKeyName(const std::string& name) {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return isConstraintStem(lower);
}

std::string reservedKeyNameReason(const std::string& name) {
    std::string stems;
    for (const char* s : kConstraintStems) stems += std::string(stems.empty() ? "" : ", ") + s;
    return name + ": the dictionary directory keeps its constraint space under this name (" +
           stems + ", in any case); a person needs another key name";
}

std::string constraintListProblem(const std::string& dir) {
    const std::string list = dir + "/" + msmface::kConstraintListFileName;
    const std::string again = "; run \"msmface constraint " + dir + "\" again";
    struct stat st {};
    if (::lstat(list.c_str(), &st) != 0) return {};
    if (S_ISLNK(st.st_mode))
        return list + ": expected a file of the directory, found a symbolic link" + again;
    if (!S_ISREG(st.st_mode))
        return list + ": expected a file of the directory, found a folder, a device or a pipe" +
               again;
    ConstraintList parsed;
    if (readConstraintList(list.c_str(), parsed) != ListRead::Accepted)
        return list + ": expected a constraint list" + again;
    const std::string here = realPath(dir);
    for (const ConstraintListEntry& e : parsed.entries)
        for (const std::string* stem : {&e.stem, &e.stem2}) {
            if (stem->empty()) continue;
            // A bare name (the list of a folder whose path holds blanks) is a file of the list's
            // own folder.
            const std::size_t slash = stem->find_last_of('/');
            if (slash == std::string::npos) continue;
            const std::string parent = slash == 0 ? "/" : stem->substr(0, slash);
            if (here.empty() || realPath(parent) != here)
                return list + ": names " + msmface::detail::quoteForMessage(*stem, 200) +
                       ", which is not in this directory (was it copied or moved?)" + again;
        }
    return {};
}

DirectoryStamp stampOf(const std::string& dir) {
    DirectoryStamp stamp;
    const char* names[] = {msmface::kRegistryFileName, msmface::kThresholdFileName,
                           msmface::kConstraintListFileName};
    for (int i = 0; i < 3; ++i) {
        struct stat st {};
        if (::stat((dir + "/" + names[i]).c_str(), &st) != 0) continue;
        DirectoryStamp::File& f = stamp.files[i];
        f.exists = true;
        f.device = st.st_dev;
        f.inode = st.st_ino;
        f.size = static_cast<uint64_t>(st.st_size);
        f.modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    }
    return stamp;
}

std::string personStemOf(const std::string& name) {
    for (const char* ext : kPersonExtensions)
        if (endsWith(name, ext) && name.size() > std::strlen(ext) && name.front() != '.')
            return name.substr(0, name.size() - std::strlen(ext));
    return {};
}

bool isOwnTemporaryName(const std::string& name) {
    static const std::string kProbe = ".msmface-write-check";
    if (name.rfind(kProbe, 0) == 0) return digits(name.substr(kProbe.size()));
    const std::size_t at = name.rfind(".tmp");
    if (at == std::string::npos || at == 0) return false;
    const std::string tail = name.substr(at + 4);
    const bool mkstempTail = tail.size() == 6 && std::all_of(tail.begin(), tail.end(), alnum);
    if (!mkstempTail && !digits(tail)) return false;
    return writtenByUs(name.substr(0, at));
}

std::vector<std::string> regularFilesIn(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return names;
    while (dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        struct stat st {};
        if (::lstat((dir + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
            names.push_back(name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> removeOwnTemporaries(const std::string& dir) {
    std::vector<std::string> removed;
    for (const std::string& name : regularFilesIn(dir))
        if (isOwnTemporaryName(name) && ::unlink((dir + "/" + name).c_str()) == 0)
            removed.push_back(name);
    return removed;
}

}  // namespace msm
