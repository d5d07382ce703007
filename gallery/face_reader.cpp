#include "gallery/face_reader.h"

#include <msmface/face_input.h>

#include "gallery/frame_input.h"

namespace msmface::detail {

FaceReader::FaceReader(core::PatternShape shape)
    : values_(static_cast<std::size_t>(shape.channels) * shape.dimension) {
    for (int c = 0; c < shape.channels; ++c)
        rows_.push_back(values_.data() + static_cast<std::size_t>(c) * shape.dimension);
}

FaceRead FaceReader::read(const FrameView& frame, const FacePoints& points) {
    if (!toGrey(frame, grey_)) return FaceRead::NoMemory;
    const PartsPosition parts = toPartsPosition(points);
    if (!anyPointPresent(parts) || !faces_.normalise(grey_, parts, face_)) return FaceRead::NoFace;
    faces_.patterns(face_, rows_.data());
    return FaceRead::Face;
}

}  // namespace msmface::detail
