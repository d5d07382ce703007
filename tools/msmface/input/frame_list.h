// The frame lists a user hands the msmface program: a face manifest (one row per frame with the
// person, the video, the image and its fourteen feature points) and a points file (one row per
// image of the user's own). Parsing only: no file is opened here, so that the fuzzer can drive it
// without the rest of the program.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAME_LIST_H
#define MSMFACE_TOOLS_MSMFACE_FRAME_LIST_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace msmcli {

inline constexpr int kPointCount = 14;
// Coordinates beyond this are not a frame's pixels but a broken detector's output.
inline constexpr double kMaxCoordinate = 1.0e6;
inline constexpr int kMaxImageSide = 16384;
// A list longer than this is refused rather than read into memory.
inline constexpr std::size_t kMaxListRows = 1000000;

struct FrameRow {
    std::string identity;  // empty in a points file
    std::string video;     // empty in a points file
    std::string split;
    std::string image;  // as written in the file, relative to the file's folder unless absolute
    int width = 0;      // 0: not stated (points files)
    int height = 0;
    std::array<double, 2 * kPointCount> points{};  // x0, y0, ... x13, y13
    int line = 0;                                  // 1-based line in the file
};

struct FrameList {
    std::vector<FrameRow> rows;
    std::string error;  // empty when the whole text parsed; else "line N: ..."
    bool ok() const { return error.empty(); }
};

// A manifest: a header row naming at least identity, video, image and x0, y0 ... x13, y13
// (split, frame, width and height are read when present), then one row per frame with as many
// comma-separated fields as the header. Blank lines are skipped.
FrameList parseManifest(std::string_view text);

// A points file: rows "image, x0, y0, ... x13, y13" (29 fields, commas or blanks between them);
// blank lines and lines starting with '#' are skipped, and so is a first row whose first field
// is "image". An image name that starts with a double quote and closes it before a blank, a comma
// or the line's end is a quoted name (see pointsFileRow); any other name is read as it stands.
// A UTF-8 byte order mark before the first row (of either kind of list) is no part of it.
FrameList parsePointsFile(std::string_view text);

// One row of a points file, ending in a newline, that parsePointsFile reads back as image and
// points. A name that would not read back as it stands (blanks, commas, quotes, backslashes,
// control characters, a leading '#' or byte order mark, empty, or "image") is written in double
// quotes with \", \\, \n, \r, \t and \xHH escapes; every other name is written as before.
std::string pointsFileRow(std::string_view image,
                          const std::array<double, 2 * kPointCount>& points);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAME_LIST_H
