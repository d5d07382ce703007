// The library's manifest and points-file parsers on arbitrary text: no crash, no hang, every row
// they accept carries finite coordinates of a sane size, and every image name, written as
// pointsFileRow writes points files, reads back as the same name.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <msmface/frame_lists.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto& list : {msmface::parseManifest(text), msmface::parsePointsFile(text)}) {
        if (!list.ok()) continue;
        for (const msmface::FrameRow& row : list.value()) {
            for (double v : row.points)
                if (!std::isfinite(v) || std::fabs(v) > msmface::kMaxListCoordinate) std::abort();
            const auto back =
                msmface::parsePointsFile(msmface::pointsFileRow(row.image, row.points));
            if (!back.ok() || back->size() != 1 || back->front().image != row.image) std::abort();
        }
    }
    return 0;
}
