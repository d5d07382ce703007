// The Detector: loads the landmark model and finds or fits faces in single frames.
#include <msmface/detect.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <new>
#include <streambuf>
#include <utility>
#include <vector>

#include "detect/detect_internal.h"
#include "io/byte_reader.h"

namespace msmface {

namespace {

std::string modelPathFrom(const DetectorOptions& options) {
    if (!options.modelPath.empty()) return options.modelPath;
    const char* env = std::getenv(kLandmarkModelEnvironment);
    if (env != nullptr && *env != '\0') return env;
    return kDefaultLandmarkModel;
}

// The model's bytes as an input stream for dlib, without a second copy.
class MemoryStreamBuffer : public std::streambuf {
  public:
    explicit MemoryStreamBuffer(std::vector<unsigned char>& bytes) {
        char* begin = reinterpret_cast<char*>(bytes.data());
        setg(begin, begin, begin + bytes.size());
    }
};

Status loadModel(const std::string& path, dlib::shape_predictor& model) {
    // Read whole, as a regular file of bounded size opened without blocking: a pipe or a device
    // named as the model must be refused, not waited on or read forever.
    std::vector<unsigned char> bytes;
    errno = 0;
    if (!msm::readWholeFile(path.c_str(), bytes)) {
        const int readError = errno;
        struct stat st {};
        const bool found = ::stat(path.c_str(), &st) == 0;
        const int error = found ? readError : errno;
        if (!found && (error == ENOENT || error == ENOTDIR))
            return Status::failure(ErrorKind::NotFound,
                                   "landmark model " + path +
                                       " does not exist: install Debian's libdlib-data (it "
                                       "provides " +
                                       kDefaultLandmarkModel + ") or name the model file in " +
                                       kLandmarkModelEnvironment);
        if (found && !S_ISREG(st.st_mode))
            return Status::failure(ErrorKind::File,
                                   "landmark model " + path +
                                       " is not a regular file (a folder, a pipe or a device); "
                                       "expected the model file");
        if (found && static_cast<unsigned long long>(st.st_size) > msm::kMaxFileBytes)
            return Status::failure(ErrorKind::File, "landmark model " + path +
                                                        " is larger than 1 GiB; expected the "
                                                        "model file");
        return Status::failure(ErrorKind::File,
                               "landmark model " + path + " cannot be read: " +
                                   (error != 0 ? std::strerror(error) : "read failed"));
    }
    MemoryStreamBuffer buffer(bytes);
    std::istream in(&buffer);
    try {
        dlib::deserialize(model, in);
    } catch (const std::exception&) {
        // dlib reports a short or damaged file as a serialisation error, and a damaged length
        // field may also end as bad_alloc; either way the file is not the model.
        return Status::failure(ErrorKind::File,
                               "landmark model " + path +
                                   " is not a complete dlib shape predictor (truncated or damaged; "
                                   "reinstall libdlib-data)");
    }
    if (model.num_parts() != detail::kLandmarkCount)
        return Status::failure(ErrorKind::File, "landmark model " + path + " has " +
                                                    std::to_string(model.num_parts()) +
                                                    " landmarks, expected 68");
    return {};
}

Status internalFailure(const std::exception& e) {
    if (dynamic_cast<const std::bad_alloc*>(&e) != nullptr)
        return Status::failure(ErrorKind::Internal, "detector: out of memory");
    return Status::failure(ErrorKind::Internal, std::string("detector: ") + e.what());
}

}  // namespace

#ifndef MSMFACE_HAVE_FACE_NETWORK
// Built without OpenCV's dnn module (the network finder lives beside the descriptor).
Result<std::shared_ptr<const detail::FaceNetwork>> detail::loadFaceNetwork(const DetectorOptions&) {
    return Status::failure(ErrorKind::Argument,
                           "finder: Network needs the library built with OpenCV's dnn module "
                           "(Debian: libopencv-dnn-dev); this one has only Hog");
}
#endif

Result<Detector> Detector::create(const DetectorOptions& options) {
    try {
        // The options are checked before the model is read (a second or more).
        if (options.finder != FaceFinder::Hog && options.finder != FaceFinder::Network)
            return Status::failure(ErrorKind::Argument,
                                   "finder: " + std::to_string(static_cast<int>(options.finder)) +
                                       ", expected Hog (0) or Network (1)");
        if (options.finder == FaceFinder::Network &&
            !(options.networkThreshold > 0 && options.networkThreshold < 1))
            return Status::failure(ErrorKind::Argument,
                                   "networkThreshold: " + std::to_string(options.networkThreshold) +
                                       ", expected a confidence between 0 and 1");
        auto impl = std::make_shared<Impl>();
        // The network's few megabytes before the landmark model's hundred.
        if (options.finder == FaceFinder::Network) {
            auto network = detail::loadFaceNetwork(options);
            if (!network) return network.status();
            impl->network = std::move(network).value();
        }
        const Status loaded = loadModel(modelPathFrom(options), impl->shapes);
        if (!loaded) return loaded;
        impl->faces = dlib::get_frontal_face_detector();
        impl->upsampleBelowWidth = options.upsampleBelowWidth;
        return Detector(std::move(impl));
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

Detector::Detector(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}
Detector::Detector(Detector&&) noexcept = default;
Detector& Detector::operator=(Detector&&) noexcept = default;
Detector::~Detector() = default;

Result<std::vector<DetectedFace>> Detector::detect(const FrameView& frame) const {
    if (!impl_) return Status::failure(ErrorKind::Argument, "detector: used after it was moved");
    const Status valid = detail::checkFrame(frame);
    if (!valid) return valid;
    try {
        detail::GreyImage grey;
        detail::toGrey(frame, grey);
        // The search state lives in the detector object; this Detector is used by one thread at
        // a time (Followers search with copies of their own), so changing it is safe here.
        auto& faces = const_cast<dlib::frontal_face_detector&>(impl_->faces);
        std::vector<DetectedFace> out;
        for (const auto& d : detail::findFaces(*impl_, faces, grey, impl_->upsampleBelowWidth))
            out.push_back(detail::fitFace(impl_->shapes, grey, d.rect, d.detection_confidence));
        return out;
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

Result<DetectedFace> Detector::fit(const FrameView& frame, const FaceBox& box) const {
    if (!impl_) return Status::failure(ErrorKind::Argument, "detector: used after it was moved");
    const Status valid = detail::checkFrame(frame);
    if (!valid) return valid;
    const long right = static_cast<long>(box.left) + box.width;
    const long bottom = static_cast<long>(box.top) + box.height;
    if (box.width < 1 || box.height < 1 || box.width > 4 * detail::kMaxFrameSide ||
        box.height > 4 * detail::kMaxFrameSide || box.left >= frame.width ||
        box.top >= frame.height || right <= 0 || bottom <= 0)
        return Status::failure(
            ErrorKind::Argument,
            "box: " + std::to_string(box.width) + " x " + std::to_string(box.height) + " at (" +
                std::to_string(box.left) + ", " + std::to_string(box.top) +
                "), expected a non-empty box that overlaps the " + std::to_string(frame.width) +
                " x " + std::to_string(frame.height) + " frame");
    try {
        detail::GreyImage grey;
        detail::toGrey(frame, grey);
        const dlib::rectangle r(box.left, box.top, right - 1, bottom - 1);
        return detail::fitFace(impl_->shapes, grey, r, 0);
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

}  // namespace msmface
