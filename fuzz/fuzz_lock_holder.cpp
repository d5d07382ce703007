// Hostile lock files: whatever a lock file holds, reading it never crashes, and what it accepts
// writes back to the same text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "store/store_lock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    msm::LockHolder holder;
    if (!msm::parseLockHolder(text, holder)) return 0;
    msm::LockHolder again;
    if (!msm::parseLockHolder(msm::formatLockHolder(holder), again) || again.pid != holder.pid ||
        again.host != holder.host || again.command != holder.command)
        __builtin_trap();
    return 0;
}
