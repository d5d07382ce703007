// The descriptors of all the faces of one frame, on one or several threads: what the Watcher
// needs of the descriptor, kept apart so that the Watcher builds whether or not the descriptor
// (OpenCV's dnn module) is part of the library.
#ifndef MSMFACE_DETECT_FACE_BATCH_H
#define MSMFACE_DETECT_FACE_BATCH_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <msmface/detect.h>
#include <msmface/frame.h>
#include <msmface/result.h>

namespace msmface::detail {

class FaceBatch {
  public:
    virtual ~FaceBatch() = default;
    // out[i]: the descriptor of faces[i], or empty when the face cannot be described (too small,
    // too close to the border). The same for any number of threads.
    virtual void describe(const FrameView& frame, const std::vector<DetectedFace>& faces,
                          std::vector<std::optional<FaceDescriptor>>& out) = 0;
    virtual int threads() const = 0;
};

// One descriptor per thread, each loaded from the model at modelPath (empty: the descriptor's
// own default place). A library without the descriptor fails (NotFound).
Result<std::unique_ptr<FaceBatch>> loadFaceBatch(const std::string& modelPath, int threads);

}  // namespace msmface::detail

#endif  // MSMFACE_DETECT_FACE_BATCH_H
