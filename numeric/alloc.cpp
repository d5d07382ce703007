// Vector and matrix allocators. Float and double storage comes from malloc; short storage is
// 32-byte aligned because the packed multiply-add kernels read aligned blocks.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <msmface/numeric.h>

#include "numeric/diagnostics.h"

namespace {

constexpr std::size_t kShortAlignment = 32;

// Counts arrive as int from the interface and as int + 1 for pointer arrays; both are taken as
// size_t so that rows == INT_MAX cannot overflow, and a byte count that does not fit is a failure
// rather than a short block.
template <typename T>
T* plainArray(std::size_t n) {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    return static_cast<T*>(std::malloc(n * sizeof(T)));
}

template <typename T>
T* alignedArray(std::size_t n) {
    if (n > SIZE_MAX / sizeof(T)) return nullptr;
    std::size_t bytes = n * sizeof(T);
    void* p = nullptr;
    // posix_memalign wants at least one byte to hand back a unique block.
    if (posix_memalign(&p, kShortAlignment, bytes == 0 ? kShortAlignment : bytes) != 0)
        return nullptr;
    return static_cast<T*>(p);
}

template <typename T, T* (*Array)(std::size_t)>
T* vectorOf(int n) {
    // A negative length is a failed allocation, as it always was for a size that cannot be met.
    if (n < 0) return nullptr;
    return Array(static_cast<std::size_t>(n));
}

// Rows are allocated one by one; a failed row stays null and so ends the matrix for the release
// functions, which is what hosts of the row-pointer layout have always seen.
template <typename T, T* (*Row)(std::size_t), T** (*Pointers)(std::size_t)>
T** rowMatrix(int rows, int cols) {
    std::size_t count = rows > 0 ? static_cast<std::size_t>(rows) : 0;
    T** a = Pointers(count + 1);
    if (a == nullptr) return nullptr;
    for (std::size_t i = 0; i < count; ++i)
        a[i] = cols >= 0 ? Row(static_cast<std::size_t>(cols)) : nullptr;
    a[count] = nullptr;
    return a;
}

template <typename T>
void releaseRows(T** a, void (*release)(void*)) {
    if (a == nullptr) return;
    for (T** row = a; *row != nullptr; ++row) release(*row);
    release(a);
}

template <typename R>
R reportIfNull(R r) {
    if (r == nullptr) msm::reportNoMemory();
    return r;
}

}  // namespace

float* newvec(int n) {
    return vectorOf<float, plainArray<float>>(n);
}
float* new_vector(int n) {
    return reportIfNull(newvec(n));
}
double* newdvec(int n) {
    return vectorOf<double, plainArray<double>>(n);
}
double* new_dvector(int n) {
    return reportIfNull(newdvec(n));
}
short* newsvec(int n) {
    return vectorOf<short, alignedArray<short>>(n);
}
short* new_svector(int n) {
    return reportIfNull(newsvec(n));
}

float** newmat(int rows, int cols) {
    return rowMatrix<float, plainArray<float>, plainArray<float*>>(rows, cols);
}
float** new_matrix(int rows, int cols) {
    return reportIfNull(newmat(rows, cols));
}
double** newdmat(int rows, int cols) {
    return rowMatrix<double, plainArray<double>, plainArray<double*>>(rows, cols);
}
double** new_dmatrix(int rows, int cols) {
    return reportIfNull(newdmat(rows, cols));
}
short** newsmat(int rows, int cols) {
    return rowMatrix<short, alignedArray<short>, alignedArray<short*>>(rows, cols);
}
short** new_smatrix(int rows, int cols) {
    return reportIfNull(newsmat(rows, cols));
}

void free_vector(float* v) {
    std::free(v);
}
void free_dvector(double* v) {
    std::free(v);
}
void free_svector(short* v) {
    std::free(v);
}
void free_matrix(float** a) {
    releaseRows(a, std::free);
}
void free_dmatrix(double** a) {
    releaseRows(a, std::free);
}
void free_smatrix(short** a) {
    releaseRows(a, std::free);
}
