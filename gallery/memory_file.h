// A file only this process reads, such as a constraint list that names the directory through
// /proc/self/fd: in memory, named by /proc/self/fd/N while the object lives.
#ifndef MSMFACE_GALLERY_MEMORY_FILE_H
#define MSMFACE_GALLERY_MEMORY_FILE_H

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "store/store_files.h"

namespace msmface::detail {

class MemoryFile {
  public:
    explicit MemoryFile(const std::string& text) {
        fd_.reset(::memfd_create("msmface", MFD_CLOEXEC));
        if (!fd_.valid()) {
            error_ = errno;
        } else if (::write(fd_.get(), text.data(), text.size()) !=
                   static_cast<ssize_t>(text.size())) {
            error_ = errno != 0 ? errno : EIO;
            fd_.reset(-1);
        }
    }
    bool ok() const { return fd_.valid(); }
    int error() const { return error_; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

  private:
    msm::FileDescriptor fd_;
    int error_ = 0;
};

}  // namespace msmface::detail

#endif  // MSMFACE_GALLERY_MEMORY_FILE_H
