// The frame lists a host reads its frames from: a face manifest (one row per frame with the
// person, the video, the image and its fourteen feature points) and a points file (one row per
// image of the user's own). The parsers take text and open no file, so that a fuzzer can drive
// them; the readers read a file and parse it.
//
// Returns. Every parser and reader returns a Result: the rows, or one line that names the file
// (readers only) and the line, what was expected and what was found ("m.csv: line 4: expected a
// number for x3, found \"abc\""). A list longer than kMaxListRows or a file larger than
// kMaxListFileBytes is refused before it is held in memory.
//
// Threads. Pure functions: any number of threads at once.
#ifndef MSMFACE_FRAME_LISTS_H
#define MSMFACE_FRAME_LISTS_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <msmface/export.h>
#include <msmface/frame.h>
#include <msmface/result.h>

namespace msmface {

// Coordinates beyond this are not a frame's pixels but a broken detector's output.
inline constexpr double kMaxListCoordinate = 1.0e6;
inline constexpr int kMaxListImageSide = 16384;
inline constexpr std::size_t kMaxListRows = 1000000;
inline constexpr std::size_t kMaxListFileBytes = std::size_t{256} * 1024 * 1024;

// x0, y0, ... x13, y13 as written in the file (see toFacePoints in <msmface/face_input.h>).
using ListPoints = std::array<double, 2 * kFacePointCount>;

struct FrameRow {
    std::string identity;  // empty in a points file
    std::string video;     // empty in a points file
    std::string split;
    std::string image;  // as written in the file, relative to the file's folder unless absolute
    int width = 0;      // 0: not stated (points files)
    int height = 0;
    ListPoints points{};
    int line = 0;  // 1-based line in the file
};

// A manifest: a header row naming at least identity, video, image and x0, y0 ... x13, y13
// (split, frame, width and height are read when present), then one row per frame with as many
// comma-separated fields as the header. Blank lines are skipped. Errors start "line N: ".
MSMFACE_API Result<std::vector<FrameRow>> parseManifest(std::string_view text);

// A points file: rows "image, x0, y0, ... x13, y13" (29 fields, commas or blanks between them);
// blank lines and lines starting with '#' are skipped, and so is a first row whose first field
// is "image". An image name that starts with a double quote and closes it before a blank, a comma
// or the line's end is a quoted name (see pointsFileRow); any other name is read as it stands.
// A UTF-8 byte order mark before the first row (of either kind of list) is no part of it. At
// least one row. Errors start "line N: " (or say the file has no rows).
MSMFACE_API Result<std::vector<FrameRow>> parsePointsFile(std::string_view text);

// The file at path (a regular file of at most kMaxListFileBytes, opened without blocking) parsed
// as above. Errors start with the path.
MSMFACE_API Result<std::vector<FrameRow>> readManifest(const std::string& path);
MSMFACE_API Result<std::vector<FrameRow>> readPointsFile(const std::string& path);

// One row of a points file, ending in a newline, that parsePointsFile reads back as image and
// points (to two decimals). A name that would not read back as it stands (blanks, commas, quotes,
// backslashes, control characters, a leading '#' or byte order mark, empty, or "image") is written
// in double quotes with \", \\, \n, \r, \t and \xHH escapes; every other name as it stands.
MSMFACE_API std::string pointsFileRow(std::string_view image, const ListPoints& points);

}  // namespace msmface

#endif  // MSMFACE_FRAME_LISTS_H
