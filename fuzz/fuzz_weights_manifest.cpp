// The face descriptor's weights manifest parser on arbitrary bytes: no crash, no hang, and every
// manifest it accepts lays its tensors out back to back, each as large as its shape, so that
// decoding weights of exactly that size succeeds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "detect/descriptor/weights_manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace msmface::detail;
    const auto manifest =
        parseWeightsManifest(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!manifest.ok()) {
        if (manifest.message().empty() || manifest.message().find('\n') != std::string::npos)
            std::abort();
        return 0;
    }
    std::size_t offset = 0;
    for (const WeightTensor& t : manifest->tensors) {
        std::size_t values = 1;
        for (int d : t.shape) values *= static_cast<std::size_t>(d);
        if (t.offset != offset || values != t.values || values > kMaxTensorValues) std::abort();
        offset += t.bytes();
    }
    if (offset != manifest->totalBytes || manifest->files.empty()) std::abort();
    // Zero bytes decode to each tensor's minimum, a finite number: small layouts are decoded.
    if (manifest->totalBytes <= (std::size_t{1} << 16)) {
        const std::vector<unsigned char> zeros(manifest->totalBytes, 0);
        const auto values = decodeWeights(*manifest, zeros.data(), zeros.size());
        if (!values.ok() || values->size() != manifest->tensors.size()) std::abort();
    }
    return 0;
}
