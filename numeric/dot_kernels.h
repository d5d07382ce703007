// The 16-bit dot product behind mmxdotp, one kernel per instruction set. All kernels return the
// same value for every input: the exact dot product of n elements modulo 2^32, as int32_t.
// mmxdotp calls the best kernel the CPU offers; tests and benchmarks call each one directly.
#ifndef MSMFACE_NUMERIC_DOT_KERNELS_H
#define MSMFACE_NUMERIC_DOT_KERNELS_H

#include <cstdint>

namespace msm {

enum class DotPath { Scalar, Sse2, Avx2 };

// requires: x and y hold n elements (n <= 0 gives 0). Alignment is not required.
using DotKernel = int32_t (*)(const short* x, const short* y, int n);

// The kernel for a path, or null when this build or this CPU cannot run it. Scalar is always
// there; Sse2 and Avx2 exist only on x86 and only when the CPU (and OS) support them.
DotKernel dotKernel(DotPath path);

// The path mmxdotp uses on this CPU: the widest available.
DotPath bestDotPath();

const char* dotPathName(DotPath path);

// Several dot products against one shared vector: out[i] = x[i] . y for i < rows, each exactly the
// value mmxdotp gives for that pair. The shared vector is loaded once per block of rows instead of
// once per product, which is what the subspace similarity (every input row against every
// dictionary row) spends its time on.
// requires: x[0..rows) and y hold n elements each; out holds rows values.
using DotRowsKernel = void (*)(const short* const* x, int rows, const short* y, int n,
                               int32_t* out);

// As dotKernel, for the row-block form.
DotRowsKernel dotRowsKernel(DotPath path);

// The row-block form on the widest path of this CPU.
void dotRows(const short* const* x, int rows, const short* y, int n, int32_t* out);

}  // namespace msm

#endif  // MSMFACE_NUMERIC_DOT_KERNELS_H
