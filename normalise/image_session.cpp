// One lock for the instance count and the codec session, held for every change of either.
#include "normalise/image_session.h"

#include <mutex>

namespace msm {
namespace {

// std::mutex has a constexpr constructor and the counters are constants, so all of this is
// initialised before any code runs: an image built by another library's static constructor
// still finds a working lock. The mutex is never destroyed on this platform (its destructor does
// nothing), so images destroyed after unload are still safe to count.
std::mutex sessionLock;
int64_t liveImages = 0;
uintptr_t sessionToken = 0;
int64_t sessionShutdowns = 0;

// requires: sessionLock held.
void closeSessionLocked() {
    if (sessionToken == 0) return;
    // Nothing on this platform owns the session beyond the token itself; a codec that stores
    // one releases its library here.
    sessionToken = 0;
    ++sessionShutdowns;
}

// Runs when the library is unloaded (or the process ends), after hosts have had their chance to
// destroy their images.
__attribute__((destructor)) void closeSessionOnUnload() {
    shutdownImageSessionAtUnload();
}

}  // namespace

void registerImage() {
    std::lock_guard<std::mutex> hold(sessionLock);
    ++liveImages;
}

void unregisterImage() {
    std::lock_guard<std::mutex> hold(sessionLock);
    --liveImages;
    if (liveImages == 0) closeSessionLocked();
}

void storeImageSessionToken(uintptr_t token) {
    std::lock_guard<std::mutex> hold(sessionLock);
    sessionToken = token;
}

void shutdownImageSessionAtUnload() {
    std::lock_guard<std::mutex> hold(sessionLock);
    closeSessionLocked();
}

ImageSessionSnapshot imageSessionSnapshot() {
    std::lock_guard<std::mutex> hold(sessionLock);
    return {liveImages, sessionToken, sessionShutdowns};
}

}  // namespace msm
