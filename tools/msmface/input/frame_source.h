// Frames from the files a user names: a manifest (all rows of one identity, optionally of some
// videos only) or a points file, with their images decoded and checked against the rows.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H
#define MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "input/frame_list.h"
#include "input/frames.h"

namespace msmcli {

// Reads a list file (at most 256 MiB) and parses it as a manifest or a points file. Returns an
// empty string, or a reason naming the file and the line.
std::string readManifest(const std::string& path, FrameList& out);
std::string readPointsFile(const std::string& path, FrameList& out);

// Decodes the images of rows (relative names resolved against listPath's folder; each image once)
// and pairs them with their points. A row that states width and height must match the image.
std::string loadFrames(const std::string& listPath, const std::vector<FrameRow>& rows,
                       std::vector<Frame>& out);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H
