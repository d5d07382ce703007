// A progress bar on standard error, drawn only when standard error is a terminal, so that logs
// and pipes receive the results alone.
#ifndef MSMFACE_TOOLS_MSMFACE_PROGRESS_H
#define MSMFACE_TOOLS_MSMFACE_PROGRESS_H

#include <unistd.h>

#include <cstdio>
#include <string>

namespace msmcli {

class Progress {
  public:
    explicit Progress(std::string stage, int total)
        : stage_(std::move(stage)), total_(total), shown_(::isatty(2) == 1) {}
    ~Progress() {
        if (shown_ && drawn_) std::fprintf(stderr, "\r%*s\r", 79, "");
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void step(int done) {
        if (!shown_ || total_ <= 0) return;
        constexpr int kWidth = 40;
        const int filled = done * kWidth / total_;
        std::fprintf(stderr, "\r%-16.16s [%.*s%*s] %d/%d", stage_.c_str(), filled,
                     "########################################", kWidth - filled, "", done, total_);
        std::fflush(stderr);
        drawn_ = true;
    }

  private:
    std::string stage_;
    int total_;
    bool shown_;
    bool drawn_ = false;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_PROGRESS_H
