// The reset of the current constraint space after every person was deleted.
#ifndef MSMFACE_ENGINE_CONSTRAINT_RESET_H
#define MSMFACE_ENGINE_CONSTRAINT_RESET_H

class MWMSMRecognition;

namespace msm {

// Empties the class data. With a "CMSML" space, its files (".dck", ".dckev", ".mck" under the
// file header) are then rewritten from the default header's files when all three read, else from
// the empty class data for no person, and the space is reloaded. Returns the reload status, or 1
// when there is no "CMSML" space.
int resetCurrentConstraintSpace(MWMSMRecognition& recognizer);

}  // namespace msm

#endif  // MSMFACE_ENGINE_CONSTRAINT_RESET_H
