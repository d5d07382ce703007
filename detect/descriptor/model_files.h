// The networks' model files (the descriptor's and the face finder's, all from one package): where
// they are, their bytes read with bounds, and their tensors taken by name with the shapes the
// network needs.
#ifndef MSMFACE_DETECT_DESCRIPTOR_MODEL_FILES_H
#define MSMFACE_DETECT_DESCRIPTOR_MODEL_FILES_H

#include <msmface/result.h>

#include <opencv2/core.hpp>

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include "detect/descriptor/weights_manifest.h"

namespace msmface::detail {

// What the networks' failures say first, e.g. "descriptor model" or "face network".
struct ModelLabel {
    const char* files;    // before a file's name: "descriptor model"
    const char* runtime;  // before an OpenCV failure: "descriptor"
};

// One line for an exception thrown while a network is built or run (OpenCV's messages span
// lines; the first names what failed).
Status internalFailure(const ModelLabel& label, const std::exception& e);

// The manifest named by path (a folder holding manifestName, or the manifest itself), its weight
// files read beside it and decoded. A missing file names the command that installs the models; a
// folder, pipe or device is never opened for reading, nor files beyond maxWeightBytes together.
struct LoadedWeights {
    std::string manifestPath;
    WeightsManifest manifest;
    std::vector<std::vector<float>> values;  // by tensor, in manifest order
};
Result<LoadedWeights> loadWeights(const std::string& path, const char* manifestName,
                                  std::size_t maxWeightBytes, const ModelLabel& label);

// The network's tensors by name, each taken once with the shape the network needs.
class Weights {
  public:
    explicit Weights(LoadedWeights& loaded) : manifest_(loaded.manifest), values_(loaded.values) {}

    // The values of name, or nullptr with error() set when it is absent or shaped otherwise.
    const std::vector<float>* take(const std::string& name, const std::vector<int>& shape);
    // Marks a tensor as known but unused (constants of the publisher's graph that the network
    // built here does not need); an error when it is absent.
    void skip(const std::string& name);
    // Empty when every tensor was taken and none is left over.
    std::string error() const;

  private:
    const WeightsManifest& manifest_;
    const std::vector<std::vector<float>>& values_;
    std::vector<bool> taken_;
    std::size_t count_ = 0;
    std::string error_;
    std::size_t find(const std::string& name);
};

// Convolution filters from the publisher's layout (height, width, in, out) to OpenCV's (out, in,
// height, width).
cv::Mat filtersToOpenCv(const std::vector<float>& filters, int kernel, int in, int out);
// Values as a one-row matrix of their own (OpenCV's biases and scales).
cv::Mat rowOf(const std::vector<float>& values);

}  // namespace msmface::detail

#endif  // MSMFACE_DETECT_DESCRIPTOR_MODEL_FILES_H
