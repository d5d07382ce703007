// The process-wide state shared by every BasicImageFile: the number of live instances and the
// session token of an image codec. No codec of ours opens a session, so the token stays 0 unless
// one stores it; the count and the shutdown on the last instance are kept so that such a codec
// can share one session across all images and have it closed when the last image goes.
//
// Threads. Every function here may be called from any thread; all of them take the same
// process-wide lock, which is usable before and after static initialisation and destruction.
#ifndef MSMFACE_NORMALISE_IMAGE_SESSION_H
#define MSMFACE_NORMALISE_IMAGE_SESSION_H

#include <cstdint>

namespace msm {

struct ImageSessionSnapshot {
    int64_t liveImages;  // BasicImageFile objects constructed and not yet destroyed
    uintptr_t token;     // 0 when no session is open
    int64_t shutdowns;   // sessions closed since the library was loaded
};

// Counts one more live image.
void registerImage();
// Counts one image less; closes the session when the count falls from 1 to 0.
void unregisterImage();
// Hands the session a codec opened to the shared state; the last image to go closes it.
// requires: token is the codec's handle of an open session (0 means none).
void storeImageSessionToken(uintptr_t token);
// Closes the session if one is open, whatever the count; run when the library is unloaded.
void shutdownImageSessionAtUnload();
// A consistent copy of the shared state, taken under the lock.
ImageSessionSnapshot imageSessionSnapshot();

}  // namespace msm

#endif  // MSMFACE_NORMALISE_IMAGE_SESSION_H
