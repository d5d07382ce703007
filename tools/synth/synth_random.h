// The generator's own random numbers: fixed algorithms, so that a seed means the same person and
// the same frame with every standard library.
#ifndef MSMFACE_TOOLS_SYNTH_SYNTH_RANDOM_H
#define MSMFACE_TOOLS_SYNTH_SYNTH_RANDOM_H

#include <cstdint>

namespace msmsynth {

// One step of splitmix64; also used to mix seeds into independent streams.
inline uint64_t MixBits(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

inline uint64_t StreamSeed(uint64_t a, uint64_t b, uint64_t c = 0) {
    return MixBits(MixBits(MixBits(a) ^ b) ^ c);
}

class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}

    uint32_t NextU32() {
        state_ += 0x9E3779B97F4A7C15ull;
        uint64_t x = state_;
        x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
        x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
        return static_cast<uint32_t>((x ^ (x >> 31)) >> 32);
    }
    // Uniform in [0, 1).
    float Unit() { return static_cast<float>(NextU32() >> 8) * (1.0f / 16777216.0f); }
    float Uniform(float low, float high) { return low + (high - low) * Unit(); }
    float Symmetric(float amplitude) { return Uniform(-amplitude, amplitude); }
    bool Chance(float probability) { return Unit() < probability; }
    // Roughly normal with unit deviation: the sum of four uniform bytes of one draw, cheap
    // enough for a noise value per pixel.
    float Gaussianish() {
        const uint32_t r = NextU32();
        const int sum = static_cast<int>(r & 255u) + static_cast<int>((r >> 8) & 255u) +
                        static_cast<int>((r >> 16) & 255u) + static_cast<int>(r >> 24);
        return static_cast<float>(sum - 510) * (1.0f / 147.8f);
    }

  private:
    uint64_t state_;
};

}  // namespace msmsynth

#endif  // MSMFACE_TOOLS_SYNTH_SYNTH_RANDOM_H
