// The image container used at the interface and inside the engine: camera frames handed in by the
// host, the warped and normalised faces, the gallery of normalised faces read back by the host.
//
// Threads. An image object is not locked: one thread at a time per object. Constructing and
// destroying `BasicImageFile` objects is safe from any number of threads at once (the process-wide
// instance count is guarded by one lock).
#ifndef MSMFACE_BASICIMAGE_H
#define MSMFACE_BASICIMAGE_H

#include <cstdint>

#include <msmface/export.h>

// An 8-bit grey or 24-bit colour picture, rows top to bottom, no row padding.
//
// Invariant: either pixels is null and width, height and bitsPerPixel are 0, or pixels holds
// exactly (width * height * bitsPerPixel) / 8 bytes. Both buffers are owned (array new/delete).
class MSMFACE_API BasicImageData {
  public:
    unsigned char* pixels;  // 1 byte per pixel (grey) or 3 (colour, in the order the host filled)
    char* comment;          // NUL-terminated text for the PGM header, or null; array new
    int32_t width;
    int32_t height;
    int32_t bitsPerPixel;  // 8 or 24

    // ensures: an empty image (all fields null or 0).
    BasicImageData();
    // As the default constructor followed by Allocate(width, height, bitsPerPixel).
    BasicImageData(int width, int height, int bitsPerPixel);
    virtual ~BasicImageData();

    // Replaces the pixel buffer with an uninitialised one of the given shape and frees the comment.
    // Returns false and changes nothing unless width >= 1, height >= 1, bitsPerPixel is 8 or 24
    // and width * height * bitsPerPixel fits a signed 32-bit integer (at most 256 MiB of pixels).
    // Returns false with an empty image when the allocation fails.
    bool Allocate(int width, int height, int bitsPerPixel);
    // ensures: pixels and comment freed and null; width, height, bitsPerPixel 0.
    void Release();

    BasicImageData(const BasicImageData&) = delete;
    BasicImageData& operator=(const BasicImageData&) = delete;
};

// The container with file output and process-wide instance counting.
class MSMFACE_API BasicImageFile : public BasicImageData {
  public:
    BasicImageFile();
    BasicImageFile(int width, int height, int bitsPerPixel);
    ~BasicImageFile() override;

    // Binary PGM ("P5", 8-bit) or PPM ("P6", any other depth, bytes in buffer order), with the
    // comment as a "# " line when there is one, then "width height\n255\n" and the pixels. An
    // image without pixels writes the header alone.
    // Returns false when the file cannot be opened or a write error occurs (a partial file then
    // stays on disk), and without creating a file when the fields no longer describe a shape
    // Allocate accepts.
    // requires: a non-null pixels holds (width * height * bitsPerPixel) / 8 bytes.
    bool WritePnm(const char* path);
    // Uncompressed bottom-up BMP; 8-bit images get a 256-entry grey palette, 24-bit images have
    // the three bytes of each pixel reversed (red, green, blue in the buffer become the blue,
    // green, red of the file). Returns false without creating a file when there are no pixels or
    // the fields no longer describe a shape Allocate accepts, and false when the file cannot be
    // opened or the row buffer cannot be allocated (an empty file then stays on disk). Write
    // errors are not detected.
    // requires: pixels holds (width * height * bitsPerPixel) / 8 bytes.
    bool WriteBmp(const char* path);
};

#endif  // MSMFACE_BASICIMAGE_H
