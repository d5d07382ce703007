#include "input/image_io.h"

#include <cstring>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "input/picture_header.h"
#include "input/program_files.h"

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

}  // namespace

std::string loadPicture(const std::string& path, cv::Mat& out) {
    std::vector<unsigned char> bytes;
    std::string error =
        readInputFile(path, static_cast<std::size_t>(kMaxPictureFileBytes), "a picture", bytes);
    if (!error.empty()) return error;
    if (bytes.empty()) return path + ": empty file; expected a picture";
    const PictureHeader header = readPictureHeader(bytes.data(), bytes.size());
    // Only a picture whose header states its size is decoded: the size is checked first, so that
    // a small file cannot make the decoder allocate gigabytes before it is refused.
    if (!header.known)
        return path +
               ": not a picture of a known kind, or its header is cut short (expected PNG, JPEG, "
               "BMP, PGM/PPM, TIFF or WebP)";
    if (header.deep) return path + ": 16 bits per sample; expected an 8-bit picture";
    if (!sizeAllowed(header.width, header.height))
        return sizeRefused(path, header.width, header.height);
    cv::Mat decoded;
    try {
        // Any depth, so that a deep picture of a format not read above is told apart rather than
        // silently cut to 8 bits; not IMREAD_UNCHANGED, which would skip the EXIF orientation.
        decoded = cv::imdecode(bytes, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR);
    } catch (const cv::Exception&) {
        // The decoder's own words name its internals, not the user's file.
        decoded.release();
    }
    if (decoded.empty()) return path + ": the picture does not decode (damaged or cut short)";
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
    return !png.empty() && writeOutputFile(path, png.data(), png.size()).empty();
}

std::string writePicture(const std::string& path, const cv::Mat& picture) {
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return path + ": expected a picture name ending in .png, .jpg or another picture format";
    std::vector<unsigned char> encoded;
    try {
        if (!cv::imencode(path.substr(dot), picture, encoded)) encoded.clear();
    } catch (const cv::Exception&) {
        encoded.clear();
    }
    if (encoded.empty()) return path + ": cannot be written as a picture of this kind";
    return writeOutputFile(path, encoded.data(), encoded.size());
}

}  // namespace msmcli
