// Built in place of descriptor/face_batch.cpp when OpenCV's dnn module was not found.
#include "detect/face_batch.h"

namespace msmface::detail {

Result<std::unique_ptr<FaceBatch>> loadFaceBatch(const std::string&, int) {
    return Status::failure(ErrorKind::NotFound,
                           "watcher: the gallery holds descriptors, and this library was built "
                           "without the face descriptor (OpenCV's dnn module)");
}

}  // namespace msmface::detail
