// The starting basis of the input subspaces: 20 orthonormal rows of 225 doubles, then a tail of
// zeros. Vector i of a subspace is read as the 256 values from position i * 225 on, running 31
// values into the next row (or, for row 19, into the tail): kept, the per-frame iteration moves
// the basis away from its start within a few frames whatever it is.
#ifndef MSMFACE_DATA_INITIAL_BASIS_H
#define MSMFACE_DATA_INITIAL_BASIS_H

namespace msm {

constexpr int kInitialBasisRows = 20;
constexpr int kInitialBasisStride = 225;
constexpr int kInitialBasisTail = 31;
constexpr int kInitialBasisValues = kInitialBasisRows * kInitialBasisStride + kInitialBasisTail;

extern const double kInitialBasisTable[kInitialBasisValues];

}  // namespace msm

#endif  // MSMFACE_DATA_INITIAL_BASIS_H
