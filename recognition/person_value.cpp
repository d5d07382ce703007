#include "recognition/person_value.h"

namespace msm {

void offerSubspaceBatch(SimilarityBatch& batch, const int* persons, const int* slots, int count,
                        int channels, int distNum, RankingPass& pass) {
    batch.Solve();
    for (int q = 0; q < count; ++q) {
        const int* own = slots + q * channels;
        double sum = 0.0;
        double last = 0.0;
        for (int c = 0; c < channels; ++c) {
            const float similarity = own[c] < 0 ? 0.0f : batch.Similarity(own[c], distNum);
            last = similarity * (1.0 / 16384.0);
            sum += last;
        }
        const double value = sum / channels;
        pass.Offer(persons[q], truncScore(1000.0 * value), value, last);
    }
}

void offerSpacesBatch(SimilarityBatch& batch, const int* persons, const int* slots, int count,
                      int spaces, int channels, int distNum, RankingPass& pass) {
    batch.Solve();
    for (int q = 0; q < count; ++q) {
        const int* own = slots + q * spaces * channels;
        double value = 0.0;
        for (int s = 0; s < spaces; ++s) {
            double sum = 0.0;
            for (int c = 0; c < channels; ++c) {
                const int slot = own[s * channels + c];
                if (slot >= 0) sum += batch.Similarity(slot, distNum);
            }
            value += sum / channels * (1.0 / 16384.0);
        }
        if (spaces > 1) value /= spaces;
        pass.Offer(persons[q], truncScore(1000.0 * value), value, value);
    }
}

}  // namespace msm
