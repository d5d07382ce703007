// The dictionary a demo or an evaluation makes in its output folder. A second run may replace
// what the first left there, and nothing else: a folder holding someone's gallery, or any file
// no run of the command recorded writing, is refused untouched. The record (a file beside the
// dictionary) names each file the run left with its inode, size and modification time, so that
// a file put there later under the same name is not taken for ours.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "input/program_files.h"
#include "io/folders.h"

namespace msmcli {
namespace {

constexpr const char* kLockFileName = ".msmface.lock";
constexpr std::size_t kMaxRecordBytes = 4u << 20;

std::string recordPath(const std::string& out, const std::string& command) {
    return out + "/.msmface-" + command + "-run";
}

// "<inode> <size> <mtime seconds> <mtime nanoseconds>": what tells this very file from another
// one put in its place.
std::string identityOf(const struct stat& st) {
    return std::to_string(st.st_ino) + " " + std::to_string(st.st_size) + " " +
           std::to_string(st.st_mtim.tv_sec) + " " + std::to_string(st.st_mtim.tv_nsec);
}

bool listFolder(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return false;
    while (dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
    return true;
}

// The record's lines "<identity>\t<name>", by name; empty when there is no readable record.
std::map<std::string, std::string> readRecord(const std::string& path, const std::string& header) {
    std::map<std::string, std::string> files;
    std::vector<unsigned char> bytes;
    if (!readInputFile(path, kMaxRecordBytes, "a run record", bytes).empty()) return files;
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::string line;
    if (!std::getline(in, line) || line != header) return files;
    while (std::getline(in, line)) {
        const std::size_t tab = line.find('\t');
        if (tab != std::string::npos) files[line.substr(tab + 1)] = line.substr(0, tab);
    }
    return files;
}

std::string recordHeader(const std::string& command) {
    return "# the files msmface " + command + " left in dictionary/; the next run replaces them";
}

}  // namespace

std::string prepareRunDictionary(const std::string& out, const std::string& command) {
    const std::string dictionary = out + "/dictionary";
    std::string error = msm::makeDirectories(dictionary);
    if (!error.empty()) return error;
    std::vector<std::string> names;
    if (!listFolder(dictionary, names))
        return dictionary + ": cannot be listed (" + std::strerror(errno) + ")";
    if (names.empty()) return {};
    const std::map<std::string, std::string> recorded =
        readRecord(recordPath(out, command), recordHeader(command));
    for (const std::string& name : names) {
        struct stat st {};
        const auto it = recorded.find(name);
        const bool ours =
            it != recorded.end() && ::lstat((dictionary + "/" + name).c_str(), &st) == 0 &&
            S_ISREG(st.st_mode) && st.st_nlink == 1 &&
            // the lock file's text changes with every writer; its inode does not
            (name == kLockFileName
                 ? it->second.substr(0, it->second.find(' ')) == std::to_string(st.st_ino)
                 : it->second == identityOf(st));
        if (!ours)
            return dictionary + ": holds " + name + ", which no finished msmface " + command +
                   " wrote there; expected an empty folder or one an earlier " + command +
                   " made (nothing was changed; choose another --out)";
    }
    // Forgotten first, so that a run interrupted from here on leaves a folder that is refused
    // rather than one whose files are taken for a finished run's.
    if (::unlink(recordPath(out, command).c_str()) != 0 && errno != ENOENT)
        return recordPath(out, command) + ": cannot be removed (" + std::strerror(errno) + ")";
    for (const std::string& name : names) {
        // The lock file stays: another process may hold it this moment.
        if (name == kLockFileName) continue;
        const std::string path = dictionary + "/" + name;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
            return path + ": cannot be removed (" + std::strerror(errno) + ")";
    }
    return {};
}

std::string recordRunDictionary(const std::string& out, const std::string& command) {
    const std::string dictionary = out + "/dictionary";
    std::vector<std::string> names;
    if (!listFolder(dictionary, names))
        return dictionary + ": cannot be listed (" + std::strerror(errno) + ")";
    std::string text = recordHeader(command) + "\n";
    for (const std::string& name : names) {
        struct stat st {};
        if (name.find('\n') != std::string::npos ||
            ::lstat((dictionary + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;  // not ours to replace next time
        text += identityOf(st) + "\t" + name + "\n";
    }
    return writeOutputFile(recordPath(out, command), text);
}

}  // namespace msmcli
