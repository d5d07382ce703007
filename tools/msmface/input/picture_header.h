// The size and sample depth a picture file states in its header, read without decoding a pixel,
// so that a file claiming an absurd size is refused before anything is allocated for it. Plain
// byte parsing, no image library: the fuzzer drives it on its own.
#ifndef MSMFACE_TOOLS_MSMFACE_PICTURE_HEADER_H
#define MSMFACE_TOOLS_MSMFACE_PICTURE_HEADER_H

#include <cstddef>

namespace msmcli {

struct PictureHeader {
    bool known = false;  // PNG, JPEG, BMP, PGM/PPM/PBM, TIFF or WebP with a complete size field
    long long width = 0;
    long long height = 0;
    bool deep = false;  // more than 8 bits per sample
};

// The header of the file whose first size bytes are at data. Not known: another format, or too
// few bytes to tell; such a file is not handed to a decoder.
PictureHeader readPictureHeader(const unsigned char* data, std::size_t size);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_PICTURE_HEADER_H
