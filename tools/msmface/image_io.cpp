#include "image_io.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

// The decoder and encoder are compiled here and only here, as private functions of this file.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_HDR
#define STBI_NO_PSD
#define STBI_NO_PIC
#define STBI_NO_GIF
#define STBI_NO_TGA
#define STBI_FAILURE_USERMSG
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#endif
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace msmcli {

std::string loadGreyImage(const std::string& path, GreyImage& out) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return path + ": cannot open the image (" + std::strerror(errno) + ")";
    int width = 0, height = 0, channels = 0;
    const bool known = stbi_info_from_file(f, &width, &height, &channels) != 0;
    const bool deep = known && stbi_is_16_bit_from_file(f) != 0;
    if (!known) {
        std::fclose(f);
        return path + ": not a picture of a known kind (expected PGM, PPM, PNG, JPEG or BMP)";
    }
    if (deep) {
        std::fclose(f);
        return path + ": 16 bits per sample; expected an 8-bit picture";
    }
    if (width < 1 || height < 1 || width > kMaxPictureSide || height > kMaxPictureSide ||
        static_cast<long long>(width) * height > kMaxPicturePixels) {
        std::fclose(f);
        return path + ": " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels is outside what a camera frame can be";
    }
    int w = 0, h = 0, n = 0;
    unsigned char* data = stbi_load_from_file(f, &w, &h, &n, 1);
    std::fclose(f);
    if (data == nullptr)
        return path + ": the picture does not decode (" + stbi_failure_reason() + ")";
    out.width = w;
    out.height = h;
    out.pixels.assign(data, data + static_cast<std::size_t>(w) * h);
    stbi_image_free(data);
    return {};
}

bool writePng(const std::string& path, int width, int height, int channels,
              const std::vector<unsigned char>& pixels) {
    if (width < 1 || height < 1 || (channels != 1 && channels != 3) ||
        pixels.size() != static_cast<std::size_t>(width) * height * channels)
        return false;
    return stbi_write_png(path.c_str(), width, height, channels, pixels.data(), width * channels) !=
           0;
}

}  // namespace msmcli
