// Tridiagonalisation followed by implicit QL, the solver pair the subspace builders also run step
// by step.
#include <msmface/numeric.h>

#include "numeric/eigen_steps.h"

namespace {

template <typename T>
int solveByQl(int n, T** a, T* d, T* e) {
    msm::tridiagonalize(n, a, d, e);
    // A failed QL still sorts: callers inspect the result, not the order.
    const int result = msm::qlImplicit(n, d, e, a);
    msm::sortDescending(n, d, a);
    return result;
}

}  // namespace

int NReigen(int n, float** a, float* d, float* e) {
    return solveByQl(n, a, d, e);
}
int NRDeigen(int n, double** a, double* d, double* e) {
    return solveByQl(n, a, d, e);
}
