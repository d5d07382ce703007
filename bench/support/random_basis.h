// Random orthonormal rows for the benchmarks' synthetic dictionaries: normal values drawn row by
// row from the caller's generator, then Gram-Schmidt in double, twice per row for accuracy.
#ifndef MSMFACE_BENCH_SUPPORT_RANDOM_BASIS_H
#define MSMFACE_BENCH_SUPPORT_RANDOM_BASIS_H

#include <cmath>
#include <random>
#include <vector>

namespace msmbench {

inline std::vector<std::vector<float>> randomOrthonormalRows(int k, int dim, std::mt19937& gen) {
    std::normal_distribution<double> normal;
    std::vector<std::vector<double>> r(k, std::vector<double>(dim));
    for (auto& row : r)
        for (double& v : row) v = normal(gen);
    for (int i = 0; i < k; ++i)
        for (int pass = 0; pass < 2; ++pass) {
            for (int j = 0; j < i; ++j) {
                double d = 0;
                for (int x = 0; x < dim; ++x) d += r[i][x] * r[j][x];
                for (int x = 0; x < dim; ++x) r[i][x] -= d * r[j][x];
            }
            double n = 0;
            for (double v : r[i]) n += v * v;
            for (double& v : r[i]) v /= std::sqrt(n);
        }
    std::vector<std::vector<float>> f;
    for (const auto& row : r) f.emplace_back(row.begin(), row.end());
    return f;
}

}  // namespace msmbench

#endif  // MSMFACE_BENCH_SUPPORT_RANDOM_BASIS_H
