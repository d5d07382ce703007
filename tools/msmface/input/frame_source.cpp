#include "input/frame_source.h"

#include "input/program_files.h"

namespace msmcli {
namespace {

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

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
