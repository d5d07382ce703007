// The msmface program's picture-header reader on arbitrary bytes: no crash, no read past the end
// (the sanitizers watch), and a header it knows states a size that is not negative.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "input/picture_header.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of exactly size bytes, so that a read past the end is one the sanitizer sees.
    const std::vector<unsigned char> bytes(data, data + size);
    const msmcli::PictureHeader h = msmcli::readPictureHeader(bytes.data(), bytes.size());
    if (h.known && (h.width < 0 || h.height < 0)) std::abort();
    return 0;
}
