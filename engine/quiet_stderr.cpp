#include "engine/quiet_stderr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

namespace msmface::detail {
namespace {

std::mutex& quietMutex() {
    static std::mutex m;
    return m;
}
int quietDepth = 0;
int savedDescriptor = -1;

}  // namespace

QuietStandardError::QuietStandardError() {
    std::lock_guard<std::mutex> lock(quietMutex());
    if (quietDepth++ > 0) return;
    std::fflush(stderr);
    savedDescriptor = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (savedDescriptor >= 0 && null >= 0) ::dup2(null, 2);
    if (null >= 0) ::close(null);
}

QuietStandardError::~QuietStandardError() {
    std::lock_guard<std::mutex> lock(quietMutex());
    if (--quietDepth > 0) return;
    std::fflush(stderr);
    if (savedDescriptor >= 0) {
        ::dup2(savedDescriptor, 2);
        ::close(savedDescriptor);
        savedDescriptor = -1;
    }
}

}  // namespace msmface::detail
