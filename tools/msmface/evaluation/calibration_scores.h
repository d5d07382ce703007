// The scores msmface calibrate measures a threshold on: every video of every manifest identity
// recognised against the persons of a dictionary directory. An identity's score against its own
// person is genuine, every other score an impostor score. Identities that no person of the
// directory stands for (matched by key name, see key_name.h) give impostor scores only: they are
// the strangers a threshold must reject.
#ifndef MSMFACE_TOOLS_MSMFACE_EVALUATION_CALIBRATION_SCORES_H
#define MSMFACE_TOOLS_MSMFACE_EVALUATION_CALIBRATION_SCORES_H

#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <msmface/frame_lists.h>
#include <msmface/gallery.h>

#include "commands/commands.h"

namespace msmcli {

struct CalibrationScores {
    std::vector<int> genuine;
    std::vector<int> impostor;
    std::map<std::string, bool> identities;  // identity -> enrolled
    std::size_t videos = 0;
    int unusable = 0;  // videos without a face to recognise
};

class FrameDescriber;

// Recognises every video of list (one probe each, in the manifest's order) against persons, the
// gallery's, by o's method from o.probeFrames jittered frames, or for a directory of descriptors
// (describer given) from the descriptors of at most o.probeFrames of its frames. rows, when
// given, receives every score as "probe,video,candidate,score,genuine". An empty string or the
// one line that ends the calibration (a frame that cannot be read).
std::string gatherCalibrationScores(msmface::Gallery& g,
                                    const std::vector<msmface::Person>& persons,
                                    const CalibrateOptions& o,
                                    const std::vector<msmface::FrameRow>& list, std::FILE* rows,
                                    CalibrationScores& out, FrameDescriber* describer = nullptr);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_EVALUATION_CALIBRATION_SCORES_H
