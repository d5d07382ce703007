#include "io/folders.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace msm {

std::string makeDirectories(const std::string& dir) {
    if (dir.empty()) return "expected a folder name";
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? std::string() : dir + ": expected a folder, found a file";
    const std::size_t slash = dir.find_last_of('/', dir.size() > 1 ? dir.size() - 2 : 0);
    if (slash != std::string::npos && slash > 0) {
        std::string error = makeDirectories(dir.substr(0, slash));
        if (!error.empty()) return error;
    }
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return dir + ": cannot create the folder (" + std::strerror(errno) + ")";
    return {};
}

}  // namespace msm
