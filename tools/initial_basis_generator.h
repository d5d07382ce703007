// The starting basis of every input subspace: 20 orthonormal rows of 225 values, made from a fixed
// seed so that the committed table can be checked and rebuilt at any time. No outside data goes
// in; the sequence, the seed and the orthonormalisation are all written here.
#ifndef MSMFACE_TOOLS_INITIAL_BASIS_GENERATOR_H
#define MSMFACE_TOOLS_INITIAL_BASIS_GENERATOR_H

#include <cmath>
#include <cstdint>
#include <vector>

namespace msmtools {

constexpr int kBasisRows = 20;
constexpr int kBasisColumns = 225;
constexpr uint64_t kBasisSeed = 0x6d736d6661636531ull;

// A 64-bit mixing generator (increment by an odd constant, then three xor-shift-multiply rounds):
// small, fully determined by its seed, and identical on every platform.
class MixingSequence {
  public:
    explicit MixingSequence(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        state_ += 0x9e3779b97f4a7c15ull;
        uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    // Uniform in [-1, 1), exact in double: 53 random bits.
    double nextSigned() { return static_cast<double>(next() >> 11) * 0x1.0p-52 - 1.0; }

  private:
    uint64_t state_;
};

// Row-major kBasisRows x kBasisColumns. Modified Gram-Schmidt in long double, run twice per row so
// that the rounded doubles are orthonormal to the last bits.
inline std::vector<double> generateInitialBasis() {
    MixingSequence seq(kBasisSeed);
    std::vector<std::vector<long double>> rows(kBasisRows, std::vector<long double>(kBasisColumns));
    for (auto& row : rows)
        for (auto& v : row) v = seq.nextSigned();
    for (int i = 0; i < kBasisRows; ++i) {
        auto& r = rows[i];
        for (int pass = 0; pass < 2; ++pass) {
            for (int j = 0; j < i; ++j) {
                long double dot = 0;
                for (int k = 0; k < kBasisColumns; ++k) dot += r[k] * rows[j][k];
                for (int k = 0; k < kBasisColumns; ++k) r[k] -= dot * rows[j][k];
            }
            long double norm = 0;
            for (int k = 0; k < kBasisColumns; ++k) norm += r[k] * r[k];
            norm = std::sqrt(norm);
            for (int k = 0; k < kBasisColumns; ++k) r[k] /= norm;
        }
    }
    std::vector<double> table;
    table.reserve(static_cast<std::size_t>(kBasisRows) * kBasisColumns);
    for (const auto& row : rows)
        for (long double v : row) table.push_back(static_cast<double>(v));
    return table;
}

}  // namespace msmtools

#endif  // MSMFACE_TOOLS_INITIAL_BASIS_GENERATOR_H
