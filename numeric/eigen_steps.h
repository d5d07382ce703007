// The steps the symmetric solvers are built from, callable one by one: the subspace builders run
// them directly (reduction, QL, sort), and the similarity of two subspaces needs only eigenvalues,
// hundreds of thousands of times a second.
//
// Between the steps the orthogonal transformation is held transposed: row k of a is the k-th
// basis vector. The hot loops then run along contiguous rows, and the sorted result needs no
// final transposition.
#ifndef MSMFACE_NUMERIC_EIGEN_STEPS_H
#define MSMFACE_NUMERIC_EIGEN_STEPS_H

namespace msm {

// Householder reduction of the symmetric n x n matrix a (only its lower triangle is read) to
// tridiagonal form. Afterwards row k of a is the k-th column of the orthogonal transformation Q,
// with Qᵀ·A·Q tridiagonal; d receives the diagonal, e the sub-diagonal with e[0] = 0 (e[i] couples
// i - 1 and i). Does not allocate.
void tridiagonalize(int n, float** a, float* d, float* e);
void tridiagonalize(int n, double** a, double* d, double* e);

// Implicit-shift QL on the tridiagonal (d, e) left by tridiagonalize, rotating the rows of z (the
// transformation left by tridiagonalize) along, so that row k of z becomes the eigenvector of
// d[k]. d receives the eigenvalues, unsorted; e is destroyed. Returns 0, or 1 as soon as one
// eigenvalue needs more than 300 iterations (the rest is then left undone; NaN input ends here).
int qlImplicit(int n, float* d, float* e, float** z);
int qlImplicit(int n, double* d, double* e, double** z);

// Selection sort into descending order where an equal value replaces the current maximum (of equal
// eigenvalues the later one comes first); the row pointers of a move with d.
void sortDescending(int n, float* d, float** a);
void sortDescending(int n, double* d, double** a);

// Eigenvalues only: the same reduction, QL and sort without any eigenvector work, giving exactly
// the eigenvalues the full steps give (bit for bit). a is destroyed; d receives the eigenvalues in
// descending order; e is work of n. Returns what the QL step returns. Does not allocate.
int symmetricEigenvalues(int n, float** a, float* d, float* e);

// The largest order the batch entries take.
constexpr int kMaxBatchOrder = 20;

// Eigenvalues of count independent symmetric n x n problems: matrices[p] holds problem p as n * n
// floats, row after row (only the lower triangle is read; nothing is written there);
// eigenvalues[p] receives its n eigenvalues in descending order and results[p] the value
// symmetricEigenvalues returns for it, with eigenvalues identical to that entry's bit for bit (a
// NaN stays a NaN, its payload may differ). Up to eight problems are solved side by side in SIMD
// lanes where the processor has them. Returns 0, or -1 (nothing written) when n lies outside
// 0..kMaxBatchOrder or count is negative. Does not allocate. Thread-safe.
int symmetricEigenvaluesBatch(int n, int count, const float* const* matrices,
                              float* const* eigenvalues, int* results);
// The same contract, one problem after the other through symmetricEigenvalues: the reference the
// batch is measured and checked against.
int symmetricEigenvaluesEach(int n, int count, const float* const* matrices,
                             float* const* eigenvalues, int* results);

}  // namespace msm

#endif  // MSMFACE_NUMERIC_EIGEN_STEPS_H
