// The numerical toolkit: vectors and matrices in three element types, linear algebra, eigen
// solvers, Gram-Schmidt orthonormalisation and KL expansion.
//
// Layout. A vector is a bare array that carries no length. A matrix (`float**`, `double**`,
// `short**`) is an array of rows + 1 row pointers: entry i points to a separately allocated row,
// entry `rows` is a null pointer that terminates the array. No dimensions are stored: every
// function takes them as arguments, except the release functions and `matprint`, which walk the
// rows up to the terminator. Rows are independent blocks; they may be exchanged by swapping
// pointers.
//
// Threads. Every function works only on the arrays it is given and may run on any thread; two
// threads must not write the same arrays at the same time.
#ifndef MSMFACE_NUMERIC_H
#define MSMFACE_NUMERIC_H

#include <cstdint>

#include <msmface/export.h>

// ---------------------------------------------------------------------------------------------
// Allocation and release
//
// Two families that differ only in what they say on failure: the quiet ones (`newvec`, `newmat`,
// `newdvec`, `newdmat`, `newsvec`, `newsmat`) print nothing; the reporting ones (`new_vector`,
// `new_matrix`, ...) write "\n%s\n" with "cannot malloc." to standard error. Both return null
// when the first allocation (the vector, or a matrix's pointer array) fails, and never stop the
// process.
//
// Matrices: rows <= 0 gives a pointer array holding only the terminator. A row whose allocation
// fails is left null and so ends the matrix early for the release functions.
//
// Element contents are not initialised. Float and double storage comes from malloc; short
// vectors, short rows and the short pointer array are 32-byte aligned (what `mmxdotp` needs).
// ---------------------------------------------------------------------------------------------

MSMFACE_API float* newvec(int n);
MSMFACE_API float* new_vector(int n);
MSMFACE_API float** newmat(int rows, int cols);
MSMFACE_API float** new_matrix(int rows, int cols);
MSMFACE_API double* newdvec(int n);
MSMFACE_API double* new_dvector(int n);
MSMFACE_API double** newdmat(int rows, int cols);
MSMFACE_API double** new_dmatrix(int rows, int cols);
MSMFACE_API short* newsvec(int n);
MSMFACE_API short* new_svector(int n);
MSMFACE_API short** newsmat(int rows, int cols);
MSMFACE_API short** new_smatrix(int rows, int cols);

// requires: v came from the float (or double) vector allocators above, or is null.
MSMFACE_API void free_vector(float* v);
MSMFACE_API void free_dvector(double* v);
// Releases each row up to the null terminator, then the pointer array.
// requires: a came from the matching matrix allocator (a null matrix is ignored).
MSMFACE_API void free_matrix(float** a);
MSMFACE_API void free_dmatrix(double** a);
// Aligned counterparts for the short allocators.
MSMFACE_API void free_svector(short* v);
MSMFACE_API void free_smatrix(short** a);

// ---------------------------------------------------------------------------------------------
// Printing (standard output; each element converted to double and printed with fmt)
// ---------------------------------------------------------------------------------------------

// Prints n elements, a line break after every perLine of them and a closing line break when the
// last line is incomplete; n <= 0 prints nothing, perLine <= 0 prints all n on one line.
// requires: fmt is a printf format for one double.
MSMFACE_API void vecprint(float* v, int n, int perLine, char* fmt);
// Prints every row up to the terminator as vecprint does; when cols > perLine (and perLine > 0)
// an empty line follows each row. A null or empty matrix prints nothing.
MSMFACE_API void matprint(float** a, int cols, int perLine, char* fmt);
// Prints rows x cols elements, each followed by two spaces, a line break after each row.
MSMFACE_API void matshow(float** a, int rows, int cols, char* fmt);

// Diagnostic dump of an eigen problem: n*n lines "a[%d][%d] %g", then n lines "d[%d] %g" and n
// lines "e[%d] %g", into the text file at path (any length). If the file cannot be opened (a null
// or empty path included) the process exits with status 0 and no message: kept, hosts built
// around this dump rely on it. requires: a is n x n, d and e hold n values.
MSMFACE_API void printdumplog(int n, float** a, float* d, float* e, char* path);
MSMFACE_API void printdumplog(int n, double** a, double* d, double* e, char* path);

// Conveniences for string literals; they forward to the functions above.
inline void vecprint(float* v, int n, int perLine, const char* fmt) {
    vecprint(v, n, perLine, const_cast<char*>(fmt));
}
inline void matprint(float** a, int cols, int perLine, const char* fmt) {
    matprint(a, cols, perLine, const_cast<char*>(fmt));
}
inline void matshow(float** a, int rows, int cols, const char* fmt) {
    matshow(a, rows, cols, const_cast<char*>(fmt));
}
inline void printdumplog(int n, float** a, float* d, float* e, const char* path) {
    printdumplog(n, a, d, e, const_cast<char*>(path));
}
inline void printdumplog(int n, double** a, double* d, double* e, const char* path) {
    printdumplog(n, a, d, e, const_cast<char*>(path));
}

// ---------------------------------------------------------------------------------------------
// Linear algebra (float)
// ---------------------------------------------------------------------------------------------

// In-place LU decomposition with scaled partial pivoting; rows are never moved, the permutation
// is kept in ip. Returns the determinant, 0 for a singular matrix (a zero row returns at once,
// leaving a untouched), 1 for n < 1. When the scratch weights cannot be allocated it reports
// "cannot malloc." and goes on pivoting on unscaled magnitudes.
// requires: a is n x n, ip holds n ints.
MSMFACE_API float lu(int n, float** a, int* ip);
// Inverse through lu; a is destroyed (it holds the factors afterwards). Returns the determinant;
// when it is exactly 0, a_inv is left untouched. When the permutation cannot be allocated it
// reports "cannot malloc" and returns 0 with a and a_inv untouched.
// requires: a and a_inv n x n, distinct.
MSMFACE_API float matinv(int n, float** a, float** a_inv);
// b[i][j] = a[j][i]. Always returns 0.0: kept, it has never returned a trace and no caller may
// rely on one. requires: a and b n x n, distinct.
MSMFACE_API float mattrans(int n, float** a, float** b);
// b[j][i] = a[i][j]. requires: b has cols rows of at least rows elements.
MSMFACE_API void mattrans_g(float** a, int rows, int cols, float** b);
// c = a * b, each element summed in float from k = 0 upward. When aCols != bRows it prints
// "You might miss.\n" to standard error and computes with aCols terms all the same.
// requires: c is aRows x bCols and aliases neither a nor b.
MSMFACE_API void matmult(float** a, int aRows, int aCols, float** b, int bRows, int bCols,
                         float** c);

// Dot products and distance. Each fixes its accumulation order; results of the float ones may
// differ from one another in the last bits, so each caller uses the one named for it.
// In index order, in float.
MSMFACE_API float innerproduct(int n, float* x, float* y);
// The first n mod 5 products one by one, then groups of five, each group summed on its own as
// ((((p0 + p1) + p2) + p3) + p4) before it is added.
MSMFACE_API float innerproductFast(int n, float* x, float* y);
// 16-bit products in 32-bit sums, even and odd indices in separate sums added at the end (an odd
// n adds its last element last); wraps modulo 2^32.
MSMFACE_API int32_t innerproductShort(int n, short* x, short* y);
// Euclidean distance: single-precision square root of the float sum of squared differences.
MSMFACE_API float calclen(int n, float* x, float* y);

// n rounded up to the next multiple of 16 (a multiple of 16 is unchanged; negative n: -5 -> 16,
// -20 -> 0). Above INT_MAX - 15 there is no multiple to round to: the result wraps to INT_MIN.
MSMFACE_API int MMX16Size(int n);
// Dot product of two 16-bit vectors with packed multiply-add; wraps modulo 2^32. The SIMD path is
// chosen once from the CPU's features; every path gives the same result. Fastest with 16-byte
// aligned arrays (the short allocators give 32) and n a multiple of 32, but any n is summed
// exactly over its n elements and n <= 0 gives 0. requires: x and y hold n elements.
MSMFACE_API int32_t mmxdotp(short* x, short* y, int n);

// ---------------------------------------------------------------------------------------------
// Eigen solvers of a real symmetric n x n matrix. All overwrite a, sort the eigenvalues in
// descending order and return the eigenvectors as rows. On failure the outputs hold the state
// reached so far and must not be used.
// ---------------------------------------------------------------------------------------------

// Householder tridiagonalisation and shifted QR sweeps (float). d: eigenvalues; row k of a: the
// eigenvector of d[k]; e: work (n). Equal eigenvalues keep their input order. Returns 0; 1 when
// one eigenvalue takes more than 1000 sweeps (NaN input ends here), after printing
// "J < 0 ERROR :eigen"; 2 on a negative square-root argument, after "Sqrt  ERROR :eigen".
// requires: a is n x n, d and e hold n.
MSMFACE_API int eigen(int n, float** a, float* d, float* e);
// The same method in double, with values below 1e-20 cleared after the reduction. Returns 0, 1
// after more than 1000 sweeps, 2 on a negative square-root argument; prints nothing except
// "ERROR: PufEigen " (no line break) each time a sweep would start above row 0, which only a NaN
// on the diagonal causes. requires: as eigen.
MSMFACE_API int puf_eigen(int n, double** a, double* d, double* e);
// Cyclic Jacobi rotations on the upper triangle of a (at most 100 sweeps). Afterwards a[k][k]
// holds the eigenvalues in descending order (equal ones keep their input order) and row k of w
// the eigenvector of a[k][k]. Returns 0, or 1 when the off-diagonal mass did not fall below
// 1e-12 of the matrix's (the matrix is then left unsorted). A zero matrix never meets that
// relative bound and returns 1. requires: a and w are n x n, distinct.
MSMFACE_API int jacobi(int n, double** a, double** w);
// Householder tridiagonalisation and implicit QL (float / double). d descending, row k of a the
// eigenvector of d[k]; among equal eigenvalues the later one comes first. Returns 0, or 1 after
// more than 300 iterations on one eigenvalue (NaN input ends here). requires: as eigen.
MSMFACE_API int NReigen(int n, float** a, float* d, float* e);
MSMFACE_API int NRDeigen(int n, double** a, double* d, double* e);

// ---------------------------------------------------------------------------------------------
// Orthonormalisation and KL expansion
// ---------------------------------------------------------------------------------------------

// Classical Gram-Schmidt of the m rows of x (length n) into the rows of y; y may be x. Returns 1,
// or 0 when the set is numerically dependent (y then holds a partial result): a squared norm below
// 1e-10 while later vectors are reduced, or a length below 1e-10 when normalising. m <= 0 returns
// 1 and touches nothing. requires: x and y have m rows of n elements.
MSMFACE_API int GSO(int n, int m, float** x, float** y);
// Principal axes of n samples (rows of x, length d) through their autocorrelation matrix (no mean
// removed). u (d x d) receives the eigenvectors as rows, lambda (d) the eigenvalues in descending
// order. The eigenvalues are those of the autocorrelation scaled by 100 (by 1000 when the first
// attempt failed) and are not scaled back. Returns 0, or 1 when both attempts failed (u and lambda
// then hold what the solver left), when n < 1 or d < 1, or when the work storage cannot be
// allocated ("cannot malloc." on standard error); in the last two cases u and lambda are untouched.
// requires: u is d x d, lambda holds d.
MSMFACE_API int KL(int n, int d, float** x, float** u, float* lambda);

#endif  // MSMFACE_NUMERIC_H
