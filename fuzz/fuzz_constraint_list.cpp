// Hostile constraint-space list files: counts, selections, keywords, over-long tokens.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "recognition/constraint_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::string path = [] {
        char name[] = "/tmp/fuzz_constraint_list_XXXXXX";
        int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        return std::string(name);
    }();
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    msm::ConstraintList list;
    if (msm::readConstraintList(path.c_str(), list) == msm::ListRead::Accepted &&
        static_cast<int>(list.entries.size()) != (list.declared > 0 ? list.declared : 0))
        __builtin_trap();
    return 0;
}
