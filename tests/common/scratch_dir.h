// A fresh folder per test under MSMFACE_TEST_TMP (or /tmp), removed with everything in it.
#ifndef MSMFACE_TESTS_COMMON_SCRATCH_DIR_H
#define MSMFACE_TESTS_COMMON_SCRATCH_DIR_H

#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

namespace msmtest {

class ScratchDir {
  public:
    explicit ScratchDir(const std::string& prefix = "msmface") {
        namespace fs = std::filesystem;
        const char* base = std::getenv("MSMFACE_TEST_TMP");
        const fs::path root = base != nullptr ? fs::path(base) : fs::temp_directory_path();
        std::error_code ec;
        fs::create_directories(root, ec);
        std::string pattern = (root / (prefix + "XXXXXX")).string();
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    // Empty when no folder could be made.
    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    std::string operator/(const std::string& name) const { return File(name); }
    // Names in the folder, sorted.
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(path_, ec))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
};

inline std::vector<unsigned char> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace msmtest

#endif  // MSMFACE_TESTS_COMMON_SCRATCH_DIR_H
