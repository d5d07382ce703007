// The real face set's pictures are binary 8-bit PGM files; the tests read them without the host's
// picture library so that they run wherever the engine does.
#ifndef MSMFACE_TESTS_COMMON_PGM_H
#define MSMFACE_TESTS_COMMON_PGM_H

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

namespace msmtest {

inline bool ReadPgm(const std::string& path, int& width, int& height,
                    std::vector<unsigned char>& pixels) {
    std::ifstream in(path, std::ios::binary);
    std::string magic;
    int maxval = 0;
    if (!(in >> magic >> width >> height >> maxval) || magic != "P5" || maxval != 255 ||
        width < 2 || height < 2 || width > 10000 || height > 10000)
        return false;
    in.get();
    pixels.resize(static_cast<std::size_t>(width) * height);
    return static_cast<bool>(in.read(reinterpret_cast<char*>(pixels.data()), pixels.size()));
}

}  // namespace msmtest

#endif
