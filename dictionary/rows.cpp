#include "dictionary/rows.h"

#include <cstdio>

namespace msm {

void* allocateBlock(std::size_t bytes, std::size_t align) {
    if (align == 0) return std::malloc(bytes == 0 ? 1 : bytes);
    void* p = nullptr;
    if (posix_memalign(&p, align, bytes == 0 ? align : bytes) != 0) return nullptr;
    return p;
}

}  // namespace msm
