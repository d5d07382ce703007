// The engine reports some failures on standard error in its own words; where the library returns
// a message of its own for the same failure, those lines would only confuse the host's user.
#ifndef MSMFACE_ENGINE_QUIET_STDERR_H
#define MSMFACE_ENGINE_QUIET_STDERR_H

namespace msmface::detail {

// Sends standard error to /dev/null while it lives. Process-wide and counted: the first of
// several overlapping instances (on any threads) redirects, the last one restores, so two
// streams reloading at once cannot leave the descriptor pointing at /dev/null. Lines that other
// threads write meanwhile are lost too; the windows are short (a dictionary load).
class QuietStandardError {
  public:
    QuietStandardError();
    ~QuietStandardError();
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;
};

}  // namespace msmface::detail

#endif  // MSMFACE_ENGINE_QUIET_STDERR_H
