// Binary PGM/PPM output, used for dumps of normalised faces that any viewer can open.
#include <cstdio>
#include <cstring>

#include <msmface/BasicImage.h>

#include "io/atomic_file.h"
#include "normalise/image_shape.h"

namespace {

bool endsWithLineFeed(const char* text) {
    std::size_t length = std::strlen(text);
    return length > 0 && text[length - 1] == '\n';
}

}  // namespace

bool BasicImageFile::WritePnm(const char* path) {
    int64_t bytes = 0;
    if (pixels != nullptr) {
        bytes = msm::imageByteCount(width, height, bitsPerPixel);
        if (bytes < 0) return false;  // fields changed by hand no longer describe the buffer
    }
    // Through a temporary renamed over the target: a link of that name is replaced, not followed.
    msm::AtomicFile atomic(path);
    std::FILE* file = atomic.stream();
    if (file == nullptr) return false;

    // kept: anything that is not 8-bit is written as colour, an empty image included.
    std::fprintf(file, "P%d\n", bitsPerPixel == 8 ? 5 : 6);
    if (comment != nullptr) {
        std::fprintf(file, "# %s", comment);
        if (!endsWithLineFeed(comment)) std::fputc('\n', file);
    }
    std::fprintf(file, "%d %d\n%d\n", width, height, 255);
    if (bytes > 0) std::fwrite(pixels, 1, static_cast<std::size_t>(bytes), file);

    // Committed only when every byte went out: a full disk leaves the old file, or none.
    return std::ferror(file) == 0 && atomic.Commit();
}
