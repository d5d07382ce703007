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

#include "common/scratch_dir.h"

namespace msmtest {

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
