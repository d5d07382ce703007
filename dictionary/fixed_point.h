// Conversion of vector values to the Q14 fixed point of the recogniser (value x 16384).
#ifndef MSMFACE_DICTIONARY_FIXED_POINT_H
#define MSMFACE_DICTIONARY_FIXED_POINT_H

#include <cmath>
#include <cstdint>

namespace msm {

constexpr float kQ14Scale = 16384.0f;
// Q14 rows are allocated in whole blocks of this many values (what the dot kernels walk).
constexpr int kQ14RowBlock = 32;
constexpr int q14RowLength(int dim) {
    return (dim + kQ14RowBlock - 1) / kQ14RowBlock * kQ14RowBlock;
}

// An already scaled value truncated toward zero, kept to its low 16 bits. A value outside the
// int32 range (or a NaN) gives 0: the integer-indefinite result of the processor's truncating
// conversion, whose low 16 bits are zero; stored dictionaries were converted that way.
inline short truncToShort(double scaled) {
    if (!(scaled > -2147483649.0 && scaled < 2147483648.0)) return 0;
    auto wide = static_cast<int32_t>(scaled);
    return static_cast<short>(static_cast<uint16_t>(static_cast<uint32_t>(wide) & 0xffffu));
}

// value x 16384, truncated as truncToShort.
inline short toQ14(double value) {
    return truncToShort(value * 16384.0);
}

inline float fromQ14(short value) {
    return static_cast<float>(value) / kQ14Scale;
}

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_FIXED_POINT_H
