// The feature points a host hands in with each camera frame.
#ifndef MSMFACE_PARTSPOSITION_H
#define MSMFACE_PARTSPOSITION_H

#include <cstdint>

// Fourteen facial feature points found by the host's face detector, in frame pixels
// (x = column, y = row), in the host's order: 0/1 eye centres (image left, image right), 2/3
// nostrils, 4/5 mouth corners, 6 outer and 7 inner corner of the image-left eye, 8 inner and
// 9 outer corner of the image-right eye, 10/11 inner eyebrow ends, 12 nose tip, 13 mouth centre.
//
// A point is absent when its x or its y, read as an unsigned 32-bit number, exceeds 9998: 9999
// and every negative value mean "not found".
struct PartsPosition {
    int32_t header[12];  // the host's own values; the engine never reads them
    int32_t points[28];  // x0, y0, x1, y1, ... x13, y13
};

#endif  // MSMFACE_PARTSPOSITION_H
