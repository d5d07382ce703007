// Classical Gram-Schmidt: every coefficient is taken with the input vector, not with the partly
// reduced one, so the result matches the bases stored by earlier versions bit for bit.
#include <cmath>
#include <cstdlib>

#include <msmface/numeric.h>

namespace {

// Two thresholds on purpose: the first bounds a squared norm, the second a plain length.
constexpr double kMinSquaredNorm = 1e-10;
constexpr double kMinLength = 1e-10;

struct WorkVectors {
    float* coefficients = nullptr;
    float* squaredNorms = nullptr;
    explicit WorkVectors(int m) : coefficients(newvec(m)), squaredNorms(newvec(m)) {}
    ~WorkVectors() {
        free_vector(coefficients);
        free_vector(squaredNorms);
    }
    WorkVectors(const WorkVectors&) = delete;
    WorkVectors& operator=(const WorkVectors&) = delete;
    bool ok() const { return coefficients != nullptr && squaredNorms != nullptr; }
};

}  // namespace

int GSO(int n, int m, float** x, float** y) {
    if (m <= 0) return 1;  // nothing to orthonormalise
    WorkVectors work(m);
    if (!work.ok()) return 0;
    float* c = work.coefficients;
    float* norm2 = work.squaredNorms;

    for (int k = 0; k < n; ++k) y[0][k] = x[0][k];
    for (int i = 1; i < m; ++i) {
        for (int j = 0; j < i; ++j) {
            if (j == i - 1) norm2[j] = innerproductFast(n, y[j], y[j]);
            if (norm2[j] < kMinSquaredNorm) return 0;
            c[j] = innerproductFast(n, x[i], y[j]) / norm2[j];
        }
        for (int k = 0; k < n; ++k) {
            float projection = 0.0f;
            for (int j = 0; j < i; ++j) projection += c[j] * y[j][k];
            y[i][k] = x[i][k] - projection;
        }
    }
    for (int i = 0; i < m; ++i) {
        const float length = std::sqrt(innerproductFast(n, y[i], y[i]));
        if (length < kMinLength) return 0;
        const float inverse = 1.0f / length;
        for (int k = 0; k < n; ++k) y[i][k] *= inverse;
    }
    return 1;
}
