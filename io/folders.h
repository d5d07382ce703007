// Making folders, the one way the library and its programs do it.
#ifndef MSMFACE_IO_FOLDERS_H
#define MSMFACE_IO_FOLDERS_H

#include <string>

namespace msm {

// Creates dir and its missing parents (mode 0755 before the umask). Returns an empty string when
// dir is a folder afterwards, or one line naming the path that is not a folder or cannot be made.
std::string makeDirectories(const std::string& dir);

}  // namespace msm

#endif  // MSMFACE_IO_FOLDERS_H
