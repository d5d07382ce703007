// A fresh folder for one benchmark's files under the system's temporary folder ($TMPDIR or /tmp),
// removed with everything in it.
#ifndef MSMFACE_BENCH_SUPPORT_SCRATCH_FOLDER_H
#define MSMFACE_BENCH_SUPPORT_SCRATCH_FOLDER_H

#include <string>

namespace msmbench {

class ScratchFolder {
  public:
    explicit ScratchFolder(const std::string& prefix = "msmface-bench");
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    // Empty when no folder could be made.
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

}  // namespace msmbench

#endif  // MSMFACE_BENCH_SUPPORT_SCRATCH_FOLDER_H
