#include "image_io.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "picture_header.h"

namespace msmcli {
namespace {

bool sizeAllowed(long long width, long long height) {
    return width >= 1 && height >= 1 && width <= kMaxPictureSide && height <= kMaxPictureSide &&
           width * height <= kMaxPicturePixels;
}

std::string sizeRefused(const std::string& path, long long width, long long height) {
    return path + ": " + std::to_string(width) + " x " + std::to_string(height) +
           " pixels is outside what a camera frame can be";
}

std::string readBytes(const std::string& path, std::vector<unsigned char>& bytes) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return path + ": cannot open the image (" + std::strerror(errno) + ")";
    if (!S_ISREG(st.st_mode)) return path + ": cannot open the image (expected a file)";
    if (st.st_size > kMaxPictureFileBytes)
        return path + ": larger than 512 MiB; expected a picture";
    std::ifstream in(path, std::ios::binary);
    if (!in) return path + ": cannot open the image (" + std::strerror(errno) + ")";
    bytes.resize(static_cast<std::size_t>(st.st_size));
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
        return path + ": cannot open the image (read failed)";
    return {};
}

}  // namespace

std::string loadPicture(const std::string& path, cv::Mat& out) {
    std::vector<unsigned char> bytes;
    std::string error = readBytes(path, bytes);
    if (!error.empty()) return error;
    const PictureHeader header = readPictureHeader(bytes.data(), bytes.size());
    if (header.known && header.deep)
        return path + ": 16 bits per sample; expected an 8-bit picture";
    if (header.known && !sizeAllowed(header.width, header.height))
        return sizeRefused(path, header.width, header.height);
    cv::Mat decoded;
    std::string reason;
    try {
        // Any depth, so that a deep picture of a format not read above is told apart rather than
        // silently cut to 8 bits; not IMREAD_UNCHANGED, which would skip the EXIF orientation.
        decoded = cv::imdecode(bytes, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR);
    } catch (const cv::Exception& e) {
        reason = e.err;
    }
    if (decoded.empty()) {
        if (!header.known && reason.empty())
            return path +
                   ": not a picture of a known kind (expected PNG, JPEG, BMP, PGM/PPM, TIFF or "
                   "WebP)";
        return path + ": the picture does not decode" + (reason.empty() ? "" : " (" + reason + ")");
    }
    if (decoded.depth() != CV_8U) return path + ": 16 bits per sample; expected an 8-bit picture";
    if (!sizeAllowed(decoded.cols, decoded.rows))
        return sizeRefused(path, decoded.cols, decoded.rows);
    if (decoded.channels() == 4)  // the alpha channel says nothing about a face
        cv::cvtColor(decoded, decoded, cv::COLOR_BGRA2BGR);
    else if (decoded.channels() != 1 && decoded.channels() != 3)
        return path + ": " + std::to_string(decoded.channels()) +
               " channels; expected a grey or colour picture";
    out = decoded;
    return {};
}

GreyImage greyOf(const cv::Mat& picture) {
    GreyImage g;
    g.width = picture.cols;
    g.height = picture.rows;
    g.pixels.resize(static_cast<std::size_t>(g.width) * g.height);
    for (int y = 0; y < g.height; ++y) {
        const unsigned char* row = picture.ptr<unsigned char>(y);
        unsigned char* to = g.pixels.data() + static_cast<std::size_t>(y) * g.width;
        if (picture.channels() == 1) {
            std::memcpy(to, row, static_cast<std::size_t>(g.width));
            continue;
        }
        for (int x = 0; x < g.width; ++x, row += 3)
            to[x] = static_cast<unsigned char>((row[2] * 299 + row[1] * 587 + row[0] * 114) / 1000);
    }
    return g;
}

std::string loadGreyImage(const std::string& path, GreyImage& out) {
    cv::Mat picture;
    std::string error = loadPicture(path, picture);
    if (!error.empty()) return error;
    out = greyOf(picture);
    return {};
}

std::vector<unsigned char> encodePng(int width, int height, int channels,
                                     const unsigned char* pixels) {
    std::vector<unsigned char> png;
    if (width < 1 || height < 1 || (channels != 1 && channels != 3) || pixels == nullptr)
        return png;
    cv::Mat rgb(height, width, channels == 1 ? CV_8UC1 : CV_8UC3,
                const_cast<unsigned char*>(pixels));
    cv::Mat encoded;
    if (channels == 3)
        cv::cvtColor(rgb, encoded, cv::COLOR_RGB2BGR);
    else
        encoded = rgb;
    try {
        cv::imencode(".png", encoded, png);
    } catch (const cv::Exception&) {
        png.clear();
    }
    return png;
}

bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<unsigned char>& pixels) {
    if (pixels.size() != static_cast<std::size_t>(width) * height * channels) return false;
    const std::vector<unsigned char> png = encodePng(width, height, channels, pixels.data());
    if (png.empty()) return false;
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
    return static_cast<bool>(out.flush());
}

bool writePicture(const std::string& path, const cv::Mat& picture) {
    try {
        return cv::imwrite(path, picture);
    } catch (const cv::Exception&) {
        return false;
    }
}

}  // namespace msmcli
