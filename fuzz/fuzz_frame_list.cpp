// The msmface program's manifest and points-file parsers on arbitrary text: no crash, no hang,
// every row they accept carries finite coordinates of a sane size, and every image name, written
// as the program writes points files, reads back as the same name.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "input/frame_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const msmcli::FrameList& list :
         {msmcli::parseManifest(text), msmcli::parsePointsFile(text)}) {
        if (!list.ok()) continue;
        for (const msmcli::FrameRow& row : list.rows) {
            for (double v : row.points)
                if (!std::isfinite(v) || std::fabs(v) > msmcli::kMaxCoordinate) std::abort();
            const msmcli::FrameList back =
                msmcli::parsePointsFile(msmcli::pointsFileRow(row.image, row.points));
            if (!back.ok() || back.rows.size() != 1 || back.rows.front().image != row.image)
                std::abort();
        }
    }
    return 0;
}
