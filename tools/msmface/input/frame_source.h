// Frames from the files a user names: a manifest (all rows of one identity, optionally of some
// videos only) or a points file, with their images decoded and checked against the rows.
#ifndef MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H
#define MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <msmface/frame_lists.h>

#include "input/frames.h"

namespace msmcli {

using msmface::FrameRow;

// Decodes the images of rows (relative names resolved against listPath's folder; each image once)
// and pairs them with their points. A row that states width and height must match the image.
std::string loadFrames(const std::string& listPath, const std::vector<FrameRow>& rows,
                       std::vector<Frame>& out);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_FRAME_SOURCE_H
