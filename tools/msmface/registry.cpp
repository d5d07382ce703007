#include "registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace msmcli {
namespace {

constexpr std::size_t kMaxRegistryBytes = 16 * 1024 * 1024;

bool writeAllBytes(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// The rename is only durable once the directory entry itself reached the disk.
void syncDirectory(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    (void)::fsync(fd);
    ::close(fd);
}

}  // namespace

bool validKeyName(const std::string& name) {
    if (name.empty() || name.size() > static_cast<std::size_t>(kMaxKeyNameLength) ||
        name.front() == '.')
        return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-' || c == '.'))
            return false;
    return true;
}

std::string registryPath(const std::string& dir) {
    return dir + "/" + kRegistryName;
}

std::string loadRegistry(const std::string& dir, std::vector<Person>& out) {
    out.clear();
    const std::string path = registryPath(dir);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return {};
        return path + ": cannot be read (" + std::strerror(errno) + ")";
    }
    if (!S_ISREG(st.st_mode) || static_cast<std::size_t>(st.st_size) > kMaxRegistryBytes)
        return path + ": expected a list of persons, found something else";
    std::ifstream in(path);
    if (!in) return path + ": cannot be read";
    std::string line;
    std::set<int> ids;
    std::set<std::string> names;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Person p;
        std::string rest;
        if (!(fields >> p.id >> p.name) || (fields >> rest) || p.id < 1 || !validKeyName(p.name))
            return path + ": line " + std::to_string(number) +
                   ": expected \"<ID number> <key name>\"";
        if (!ids.insert(p.id).second || !names.insert(p.name).second)
            return path + ": line " + std::to_string(number) + ": ID number or key name twice";
        out.push_back(p);
    }
    return {};
}

std::string saveRegistry(const std::string& dir, const std::vector<Person>& persons) {
    std::string text = "# msmface persons: ID number, key name\n";
    for (const Person& p : persons) text += std::to_string(p.id) + " " + p.name + "\n";
    const std::string path = registryPath(dir);
    const std::string temp = path + ".tmp" + std::to_string(::getpid());
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return dir + ": cannot write in the dictionary directory (" + std::strerror(errno) + ")";
    const bool written = writeAllBytes(fd, text) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temp.c_str(), path.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        ::unlink(temp.c_str());
        return path + ": cannot be written (" + reason + ")";
    }
    syncDirectory(dir);
    return {};
}

}  // namespace msmcli
