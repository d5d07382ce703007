// The committed starting basis is what its generator makes, and it is orthonormal.
#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "data/initial_basis.h"
#include "tools/initial_basis_generator.h"

namespace {

TEST(InitialBasis, GeneratorReproducesTheCommittedTable) {
    std::vector<double> table = msmtools::generateInitialBasis();
    ASSERT_EQ(table.size() + msm::kInitialBasisTail,
              static_cast<std::size_t>(msm::kInitialBasisValues));
    EXPECT_EQ(std::memcmp(table.data(), msm::kInitialBasisTable, table.size() * sizeof(double)), 0);
    for (int i = 0; i < msm::kInitialBasisTail; ++i)
        EXPECT_EQ(msm::kInitialBasisTable[table.size() + i], 0.0);
}

TEST(InitialBasis, RowsAreOrthonormal) {
    const double* t = msm::kInitialBasisTable;
    for (int i = 0; i < msm::kInitialBasisRows; ++i)
        for (int j = 0; j <= i; ++j) {
            double dot = 0;
            for (int k = 0; k < msm::kInitialBasisStride; ++k)
                dot += t[i * msm::kInitialBasisStride + k] * t[j * msm::kInitialBasisStride + k];
            EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-14) << i << "," << j;
        }
}

}  // namespace
