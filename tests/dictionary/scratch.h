// Scratch folders and raw file helpers shared by the dictionary tests.
#ifndef MSMFACE_TESTS_DICTIONARY_SCRATCH_H
#define MSMFACE_TESTS_DICTIONARY_SCRATCH_H

#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace msmtest {

// A fresh folder, removed with its files afterwards.
class ScratchDir {
  public:
    ScratchDir() {
        const char* base = std::getenv("MSMFACE_TEST_TMP");
        std::string root = base != nullptr ? base : "/tmp";
        std::string cmd = "mkdir -p '" + root + "'";
        (void)std::system(cmd.c_str());
        std::string pattern = root + "/dictXXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        path_ = mkdtemp(buf.data()) != nullptr ? buf.data() : "";
    }
    ~ScratchDir() {
        for (const std::string& name : Entries()) ::unlink((path_ + "/" + name).c_str());
        ::rmdir(path_.c_str());
    }
    const std::string& path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        if (DIR* d = ::opendir(path_.c_str())) {
            while (dirent* e = ::readdir(d))
                if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                    names.push_back(e->d_name);
            ::closedir(d);
        }
        return names;
    }

  private:
    std::string path_;
};

inline std::vector<unsigned char> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

inline int32_t Int32At(const std::vector<unsigned char>& b, std::size_t at) {
    int32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}

inline void PutInt32(std::vector<unsigned char>& b, int32_t v) {
    unsigned char raw[4];
    std::memcpy(raw, &v, 4);
    b.insert(b.end(), raw, raw + 4);
}

inline void PutFloat(std::vector<unsigned char>& b, float v) {
    unsigned char raw[4];
    std::memcpy(raw, &v, 4);
    b.insert(b.end(), raw, raw + 4);
}

}  // namespace msmtest

#endif  // MSMFACE_TESTS_DICTIONARY_SCRATCH_H
