#include "recognition/person_dictionary.h"

#include <string>

#include "recognition/kl_expansion.h"

namespace msm {

GatheredPatterns::GatheredPatterns(int channels, int dimension, int capacity)
    : channels_(channels), dimension_(dimension), capacity_(capacity) {
    const std::size_t slots = static_cast<std::size_t>(capacity) * channels;
    values_.assign(slots * static_cast<std::size_t>(dimension), 0.0f);
    pointers_.resize(slots);
    for (std::size_t i = 0; i < slots; ++i)
        pointers_[i] = values_.data() + i * static_cast<std::size_t>(dimension);
}

std::vector<std::vector<float*>> GatheredPatterns::rows() const {
    std::vector<std::vector<float*>> out(static_cast<std::size_t>(channels_));
    for (int c = 0; c < channels_; ++c)
        for (int k = 0; k < count_; ++k)
            out[static_cast<std::size_t>(c)].push_back(
                pointers_[static_cast<std::size_t>(k) * channels_ + c]);
    return out;
}

msmface::Status buildPersonRecords(const std::vector<std::vector<float*>>& rows, int dimension,
                                   MtrxChunk& records) {
    const int channels = static_cast<int>(rows.size());
    for (const auto& channel : rows)
        if (channel.size() != rows.front().size())
            return msmface::Status::failure(msmface::ErrorKind::Internal,
                                            "the channels hold different numbers of patterns");
    if (channels < 1 || records.Allocate(channels) != 1)
        return msmface::Status::failure(msmface::ErrorKind::Internal,
                                        "out of memory for a person's records");
    for (int c = 0; c < channels; ++c) {
        const auto& channel = rows[static_cast<std::size_t>(c)];
        if (buildAutocorrelationRecord(channel.data(), static_cast<int>(channel.size()), dimension,
                                       records.prims[c]) != 0)
            return msmface::Status::failure(
                msmface::ErrorKind::Internal,
                "channel " + std::to_string(c) + ": no record was built");
    }
    return {};
}

msmface::Status expandPersonRecords(const MtrxChunk& records, int channels, int minimumBasis,
                                    const std::function<void(const float*)>& spectrum,
                                    DictChunk& dictionaries) {
    if (records.count != channels || dictionaries.Allocate(channels) != 1)
        return msmface::Status::failure(
            msmface::ErrorKind::Internal,
            "the records do not hold " + std::to_string(channels) + " channels");
    float values[kMaxExpansionOrder];
    for (int c = 0; c < channels; ++c) {
        if (expandAutocorrelation(records.prims[c], dictionaries.prims[c],
                                  spectrum ? values : nullptr) != 0)
            return msmface::Status::failure(
                msmface::ErrorKind::Argument,
                "channel " + std::to_string(c) + ": the expansion failed");
        if (spectrum) spectrum(values);
    }
    // A subspace smaller than what recognition compares would be scored on vectors it lacks.
    for (int c = 0; c < channels; ++c)
        if (dictionaries.prims[c].count < minimumBasis)
            return msmface::Status::failure(msmface::ErrorKind::Argument,
                                            "channel " + std::to_string(c) + ": the faces span " +
                                                std::to_string(dictionaries.prims[c].count) +
                                                " directions; " + std::to_string(minimumBasis) +
                                                " needed");
    return {};
}

}  // namespace msm
