#include "frame_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace msmcli {
namespace {

constexpr std::size_t kMaxListBytes = 256u * 1024 * 1024;

std::string readText(const std::string& path, std::string& text) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return path + ": cannot be read (" + std::strerror(errno) + ")";
    if (!S_ISREG(st.st_mode)) return path + ": expected a file, found a folder or a device";
    if (static_cast<std::size_t>(st.st_size) > kMaxListBytes)
        return path + ": larger than 256 MiB; expected a list of frames";
    std::ifstream in(path, std::ios::binary);
    if (!in) return path + ": cannot be read";
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return {};
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

std::string readManifest(const std::string& path, FrameList& out) {
    std::string text;
    std::string error = readText(path, text);
    if (!error.empty()) return error;
    out = parseManifest(text);
    return out.ok() ? std::string() : path + ": " + out.error;
}

std::string readPointsFile(const std::string& path, FrameList& out) {
    std::string text;
    std::string error = readText(path, text);
    if (!error.empty()) return error;
    out = parsePointsFile(text);
    return out.ok() ? std::string() : path + ": " + out.error;
}

std::string loadFrames(const std::string& listPath, const std::vector<FrameRow>& rows,
                       std::vector<Frame>& out) {
    const std::string folder = folderOf(listPath);
    std::map<std::string, std::shared_ptr<const GreyImage>> cache;
    for (const FrameRow& row : rows) {
        const std::string path =
            !row.image.empty() && row.image[0] == '/' ? row.image : folder + "/" + row.image;
        auto it = cache.find(path);
        if (it == cache.end()) {
            auto image = std::make_shared<GreyImage>();
            std::string error = loadGreyImage(path, *image);
            if (!error.empty())
                return listPath + ": line " + std::to_string(row.line) + ": " + error;
            it = cache.emplace(path, std::move(image)).first;
        }
        const GreyImage& image = *it->second;
        if ((row.width > 0 && row.width != image.width) ||
            (row.height > 0 && row.height != image.height))
            return listPath + ": line " + std::to_string(row.line) + ": " + path + " is " +
                   std::to_string(image.width) + " x " + std::to_string(image.height) +
                   " pixels; the row expects " + std::to_string(row.width) + " x " +
                   std::to_string(row.height);
        Frame frame;
        frame.image = it->second;
        frame.points = row.points;
        out.push_back(std::move(frame));
    }
    return {};
}

}  // namespace msmcli
