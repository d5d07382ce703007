#include "engine/tick_clock.h"

#include <atomic>
#include <chrono>

namespace msm {

namespace {
std::atomic<TickSource> replacement{nullptr};
}  // namespace

uint32_t tickMilliseconds() {
    if (const TickSource source = replacement.load(std::memory_order_acquire)) return source();
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    return static_cast<uint32_t>(static_cast<uint64_t>(ms));
}

void setTickSource(TickSource source) {
    replacement.store(source, std::memory_order_release);
}

}  // namespace msm
