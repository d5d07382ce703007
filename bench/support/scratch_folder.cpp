#include "support/scratch_folder.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>

namespace msmbench {

ScratchFolder::ScratchFolder(const std::string& prefix) {
    std::error_code ec;
    const std::filesystem::path root = std::filesystem::temp_directory_path(ec);
    if (ec) return;
    std::string pattern = (root / (prefix + "XXXXXX")).string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

}  // namespace msmbench
