// The face descriptor's weights as the network's publisher ships them: a JSON manifest naming each
// tensor (shape, dtype, and for most a uint8 quantisation: value = q * scale + min) and one or
// more binary files holding the tensors back to back in manifest order. Pure functions over bytes,
// so that a fuzzer can drive them; nothing here knows the network.
#ifndef MSMFACE_DETECT_DESCRIPTOR_WEIGHTS_MANIFEST_H
#define MSMFACE_DETECT_DESCRIPTOR_WEIGHTS_MANIFEST_H

#include <msmface/result.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace msmface::detail {

// Bounds that no manifest of this network comes near (it has 117 tensors, 1.5 million values and
// a 20 KB manifest); beyond them the input is refused before anything is allocated for it.
inline constexpr std::size_t kMaxManifestBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxTensorValues = std::size_t{1} << 24;
inline constexpr std::size_t kMaxWeightValues = std::size_t{1} << 24;
inline constexpr std::size_t kMaxWeightFiles = 16;

struct WeightTensor {
    std::string name;
    std::vector<int> shape;
    std::size_t values = 0;  // product of shape
    bool quantised = false;  // uint8 codes, else little-endian float32
    double scale = 1;
    double min = 0;
    std::size_t offset = 0;  // bytes from the start of the concatenated weight files
    std::size_t bytes() const { return quantised ? values : 4 * values; }
};

struct WeightsManifest {
    std::vector<std::string> files;  // plain file names beside the manifest, in order
    std::vector<WeightTensor> tensors;
    std::size_t totalBytes = 0;  // what the files must hold together, exactly
};

// The manifest in json; a failure names what is wrong (File kind). Accepts only what the
// network's loader needs: one group, float32 tensors (or int32 ones quantised), uint8
// quantisation or none, 0 to 4 dimensions from 1 to 65536, names unique, file names without
// folders.
Result<WeightsManifest> parseWeightsManifest(std::string_view json);

// Every tensor's values, decoded from the concatenated weight files. A failure when the bytes
// are not exactly manifest.totalBytes long or a value is not finite.
Result<std::vector<std::vector<float>>> decodeWeights(const WeightsManifest& manifest,
                                                      const unsigned char* data, std::size_t size);

}  // namespace msmface::detail

#endif  // MSMFACE_DETECT_DESCRIPTOR_WEIGHTS_MANIFEST_H
