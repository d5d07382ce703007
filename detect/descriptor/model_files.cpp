// Reading the networks' model files.
#include "detect/descriptor/model_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "io/byte_reader.h"

namespace msmface::detail {

namespace {

const char* const kInstallHint =
    "run ./quickstart test or tools/fetch_descriptor_model.sh to install it, or name its folder "
    "in MSMFACE_DESCRIPTOR_MODEL";

Result<std::vector<unsigned char>> readModelFile(const std::string& path, std::size_t maxBytes,
                                                 const ModelLabel& label) {
    const std::string what = std::string(label.files) + ": " + path;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        const int error = errno;
        if (error == ENOENT || error == ENOTDIR)
            return Status::failure(ErrorKind::NotFound, what + " does not exist: " + kInstallHint);
        return Status::failure(ErrorKind::File, what + " cannot be read: " + std::strerror(error));
    }
    if (!S_ISREG(st.st_mode))
        return Status::failure(ErrorKind::File, what + " is not a regular file");
    if (static_cast<uint64_t>(st.st_size) > maxBytes)
        return Status::failure(ErrorKind::File, what + " has " + std::to_string(st.st_size) +
                                                    " bytes, expected at most " +
                                                    std::to_string(maxBytes));
    std::vector<unsigned char> bytes;
    if (!msm::readWholeFile(path.c_str(), bytes) || bytes.size() > maxBytes)
        return Status::failure(ErrorKind::File, what +
                                                    " cannot be read completely (changed "
                                                    "while read, or not a regular file)");
    return bytes;
}

std::string text(const std::vector<int>& shape) {
    std::string s = "[";
    for (std::size_t i = 0; i < shape.size(); ++i) s += (i ? "," : "") + std::to_string(shape[i]);
    return s + "]";
}

}  // namespace

Status internalFailure(const ModelLabel& label, const std::exception& e) {
    if (dynamic_cast<const std::bad_alloc*>(&e) != nullptr)
        return Status::failure(ErrorKind::Internal, std::string(label.runtime) + ": out of memory");
    std::string what = e.what();
    what = what.substr(0, what.find('\n'));
    return Status::failure(ErrorKind::Internal, std::string(label.runtime) + ": " + what);
}

Result<LoadedWeights> loadWeights(const std::string& path, const char* manifestName,
                                  std::size_t maxWeightBytes, const ModelLabel& label) {
    struct stat st {};
    const bool folder = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    LoadedWeights out;
    out.manifestPath = folder ? path + "/" + manifestName : path;
    const std::string dir =
        folder ? path
               : (path.find('/') == std::string::npos ? "." : path.substr(0, path.rfind('/')));
    auto text = readModelFile(out.manifestPath, kMaxManifestBytes, label);
    if (!text) return text.status();
    auto manifest = parseWeightsManifest(
        std::string_view(reinterpret_cast<const char*>(text->data()), text->size()));
    if (!manifest)
        return Status::failure(ErrorKind::File, out.manifestPath + ": " + manifest.message());
    std::vector<unsigned char> bytes;
    for (const std::string& name : manifest->files) {
        auto part = readModelFile(dir + "/" + name, maxWeightBytes - bytes.size(), label);
        if (!part) return part.status();
        bytes.insert(bytes.end(), part->begin(), part->end());
    }
    auto values = decodeWeights(*manifest, bytes.data(), bytes.size());
    if (!values)
        return Status::failure(ErrorKind::File,
                               dir + "/" + manifest->files.front() + ": " + values.message());
    out.manifest = std::move(manifest).value();
    out.values = std::move(values).value();
    return out;
}

std::size_t Weights::find(const std::string& name) {
    if (taken_.empty()) taken_.assign(manifest_.tensors.size(), false);
    for (std::size_t i = 0; i < manifest_.tensors.size(); ++i)
        if (manifest_.tensors[i].name == name) {
            if (!taken_[i]) ++count_;
            taken_[i] = true;
            return i;
        }
    error_ = "tensor " + name + " is missing";
    return manifest_.tensors.size();
}

const std::vector<float>* Weights::take(const std::string& name, const std::vector<int>& shape) {
    if (!error_.empty()) return nullptr;
    const std::size_t i = find(name);
    if (i == manifest_.tensors.size()) return nullptr;
    if (manifest_.tensors[i].shape != shape) {
        error_ = "tensor " + name + " has shape " + text(manifest_.tensors[i].shape) +
                 ", the network needs " + text(shape);
        return nullptr;
    }
    return &values_[i];
}

void Weights::skip(const std::string& name) {
    if (error_.empty()) find(name);
}

std::string Weights::error() const {
    if (!error_.empty() || count_ == manifest_.tensors.size()) return error_;
    return std::to_string(manifest_.tensors.size() - count_) +
           " tensors that the network does not have";
}

cv::Mat filtersToOpenCv(const std::vector<float>& filters, int kernel, int in, int out) {
    const int sizes[] = {out, in, kernel, kernel};
    cv::Mat oihw(4, sizes, CV_32F);
    float* dst = oihw.ptr<float>();
    for (int h = 0; h < kernel; ++h)
        for (int w = 0; w < kernel; ++w)
            for (int i = 0; i < in; ++i)
                for (int o = 0; o < out; ++o)
                    dst[((o * in + i) * kernel + h) * kernel + w] =
                        filters[((h * kernel + w) * in + i) * out + o];
    return oihw;
}

cv::Mat rowOf(const std::vector<float>& values) {
    return cv::Mat(1, static_cast<int>(values.size()), CV_32F, const_cast<float*>(values.data()))
        .clone();
}

}  // namespace msmface::detail
