// Karhunen-Loève expansion of a sample set through its autocorrelation matrix (no mean removed:
// the subspaces of this system pass through the origin).
#include <msmface/numeric.h>

namespace {

constexpr int kAttempts = 2;

// Owns the double work storage of one expansion.
struct Work {
    double** c;
    double* values;
    double* offDiagonal;
    int d;
    explicit Work(int dim)
        : c(new_dmatrix(dim, dim)),
          values(new_dvector(dim)),
          offDiagonal(new_dvector(dim)),
          d(dim) {}
    ~Work() {
        free_dmatrix(c);
        free_dvector(values);
        free_dvector(offDiagonal);
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;
    bool ok() const {
        if (c == nullptr || values == nullptr || offDiagonal == nullptr) return false;
        for (int i = 0; i < d; ++i) {
            if (c[i] == nullptr) return false;
        }
        return true;
    }
};

// The scaled sample autocorrelation, summed in double over float products. Each row of c first
// accumulates its own upper elements, which are then scaled and mirrored into the lower triangle.
void scaledAutocorrelation(int n, int d, float** x, double scale, double** c) {
    for (int i = 0; i < d; ++i) {
        double* ci = c[i];
        for (int j = i; j < d; ++j) ci[j] = 0.0;
        for (int k = 0; k < n; ++k) {
            const float* xk = x[k];
            const float xi = xk[i];
            for (int j = i; j < d; ++j) ci[j] += static_cast<double>(xi * xk[j]);
        }
        for (int j = i; j < d; ++j) ci[j] = c[j][i] = scale * ci[j] / n;
    }
}

}  // namespace

int KL(int n, int d, float** x, float** u, float* lambda) {
    if (n < 1 || d < 1) return 1;
    Work work(d);
    // Going on without the storage would only crash; the allocators have already said why.
    if (!work.ok()) return 1;

    // The scaled eigenvalues are handed back as they are: callers expect 100 (1000 after a retry)
    // times those of the autocorrelation.
    double scale = 10.0;
    int result = 1;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        scale *= 10.0;
        scaledAutocorrelation(n, d, x, scale, work.c);
        for (int i = 0; i < d; ++i) work.values[i] = work.offDiagonal[i] = 0.0;
        result = puf_eigen(d, work.c, work.values, work.offDiagonal) == 0 ? 0 : 1;
        if (result == 0) break;
    }
    for (int i = 0; i < d; ++i) {
        lambda[i] = static_cast<float>(work.values[i]);
        for (int j = 0; j < d; ++j) u[i][j] = static_cast<float>(work.c[i][j]);
    }
    return result;
}
