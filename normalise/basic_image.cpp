// Image buffers and the lifetime of the counted image.
#include <msmface/BasicImage.h>

#include <limits>
#include <new>

#include "normalise/image_session.h"
#include "normalise/image_shape.h"

namespace msm {

int64_t imageByteCount(int64_t width, int64_t height, int64_t bitsPerPixel) {
    if (width < 1 || height < 1) return -1;
    if (bitsPerPixel != 8 && bitsPerPixel != 24) return -1;
    constexpr int64_t kLimit = std::numeric_limits<int32_t>::max();
    // Checked factor by factor so that not even the 64-bit product can overflow.
    if (width > kLimit / bitsPerPixel) return -1;
    int64_t bitsPerRow = width * bitsPerPixel;
    if (height > kLimit / bitsPerRow) return -1;
    return bitsPerRow * height / 8;
}

}  // namespace msm

BasicImageData::BasicImageData()
    : pixels(nullptr), comment(nullptr), width(0), height(0), bitsPerPixel(0) {}

BasicImageData::BasicImageData(int width, int height, int bitsPerPixel) : BasicImageData() {
    Allocate(width, height, bitsPerPixel);
}

BasicImageData::~BasicImageData() {
    Release();
}

bool BasicImageData::Allocate(int width, int height, int bitsPerPixel) {
    int64_t bytes = msm::imageByteCount(width, height, bitsPerPixel);
    if (bytes < 0) return false;
    Release();
    // Contents left uninitialised: every caller overwrites the whole picture.
    pixels = new (std::nothrow) unsigned char[static_cast<std::size_t>(bytes)];
    if (pixels == nullptr) return false;
    this->width = width;
    this->height = height;
    this->bitsPerPixel = bitsPerPixel;
    return true;
}

void BasicImageData::Release() {
    delete[] pixels;
    delete[] comment;
    pixels = nullptr;
    comment = nullptr;
    width = 0;
    height = 0;
    bitsPerPixel = 0;
}

BasicImageFile::BasicImageFile() {
    msm::registerImage();
}

BasicImageFile::BasicImageFile(int width, int height, int bitsPerPixel)
    : BasicImageData(width, height, bitsPerPixel) {
    msm::registerImage();
}

BasicImageFile::~BasicImageFile() {
    msm::unregisterImage();
}
