// The steps the symmetric solvers are built from, callable one by one: the subspace builders run
// them directly (reduction, QL, sort-and-transpose), and the similarity of two subspaces needs
// only eigenvalues, hundreds of thousands of times a second.
#ifndef MSMFACE_NUMERIC_EIGEN_STEPS_H
#define MSMFACE_NUMERIC_EIGEN_STEPS_H

namespace msm {

// Householder reduction of the symmetric n x n matrix a to tridiagonal form, the orthogonal
// transformation accumulated in a. d receives the diagonal, e the sub-diagonal with e[0] = 0
// (e[i] couples i - 1 and i).
void tridiagonalize(int n, float** a, float* d, float* e);
void tridiagonalize(int n, double** a, double* d, double* e);

// Implicit-shift QL on the tridiagonal (d, e) left by tridiagonalize, rotating the columns of z
// (the accumulated transformation) along. d receives the eigenvalues, unsorted; e is destroyed.
// Returns 0, or 1 when one eigenvalue needed more than 300 iterations (the rest is then left
// undone).
int qlImplicit(int n, float* d, float* e, float** z);
int qlImplicit(int n, double* d, double* e, double** z);

// Selection sort into descending order where an equal value replaces the current maximum (of
// equal eigenvalues the later one comes first); columns of a move with d, then a is transposed in
// place so that the eigenvectors are its rows.
void sortDescendingTranspose(int n, float* d, float** a);
void sortDescendingTranspose(int n, double* d, double** a);

// Eigenvalues only: the same reduction, QL and sort without any eigenvector work, giving exactly
// the eigenvalues the full steps give (bit for bit). a is destroyed; d receives the eigenvalues in
// descending order; e is work of n. Returns what the QL step returns.
int symmetricEigenvalues(int n, float** a, float* d, float* e);

}  // namespace msm

#endif  // MSMFACE_NUMERIC_EIGEN_STEPS_H
