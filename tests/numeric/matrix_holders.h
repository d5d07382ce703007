// Owners for the row-pointer matrices and vectors of the numerical toolkit, so that a failing
// assertion in a test does not leak them.
#ifndef MSMFACE_TESTS_NUMERIC_MATRIX_HOLDERS_H
#define MSMFACE_TESTS_NUMERIC_MATRIX_HOLDERS_H

#include <initializer_list>
#include <memory>
#include <vector>

#include <msmface/numeric.h>

namespace msm_test {

struct MatrixRelease {
    void operator()(float** a) const { free_matrix(a); }
};
struct ShortVectorRelease {
    void operator()(short* v) const { free_svector(v); }
};

using FloatMatrix = std::unique_ptr<float*[], MatrixRelease>;
using ShortVector = std::unique_ptr<short[], ShortVectorRelease>;

inline FloatMatrix makeMatrix(int rows, int cols) {
    return FloatMatrix(newmat(rows, cols));
}

// A matrix filled row by row from a nested list.
inline FloatMatrix makeMatrix(std::initializer_list<std::initializer_list<float>> rows) {
    int cols = rows.size() == 0 ? 0 : static_cast<int>(rows.begin()->size());
    FloatMatrix a = makeMatrix(static_cast<int>(rows.size()), cols);
    int i = 0;
    for (const auto& row : rows) {
        int j = 0;
        for (float v : row) a[i][j++] = v;
        ++i;
    }
    return a;
}

inline ShortVector makeShortVector(const std::vector<short>& values) {
    ShortVector v(newsvec(static_cast<int>(values.size())));
    for (std::size_t i = 0; i < values.size(); ++i) v[i] = values[i];
    return v;
}

}  // namespace msm_test

#endif  // MSMFACE_TESTS_NUMERIC_MATRIX_HOLDERS_H
