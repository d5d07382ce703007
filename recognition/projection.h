// Projection of a subspace onto a constraint subspace, whitened: each constraint direction is
// weighted by 1/sqrt of its eigenvalue, so that directions that vary little across all faces
// are stretched and those every face shares are damped.
#ifndef MSMFACE_RECOGNITION_PROJECTION_H
#define MSMFACE_RECOGNITION_PROJECTION_H

#include <vector>

namespace msm {

// Eigenvalues below this remove their direction from every projection.
constexpr double kConstraintEigenvalueFloor = 1e-7;

// Scratch of one projection, grown to need and kept, so that the per-frame projection of the
// input allocates nothing after its first frame.
class ProjectionWork {
  public:
    // K float rows of D (the projected vectors, handed to the orthonormalisation) and the
    // coefficients of m directions. Returns false when memory runs out.
    bool Reserve(int K, int D, int m);
    float** vectors() { return vectors_.data(); }
    double* coefficients() { return coefficients_.data(); }
    double* accumulator() { return accumulator_.data(); }
    double* weights() { return weights_.data(); }

  private:
    std::vector<std::vector<float>> storage_;
    std::vector<float*> vectors_;
    std::vector<double> coefficients_;
    std::vector<double> accumulator_;
    std::vector<double> weights_;
    int K_ = 0, D_ = 0;
};

// Projects the K float vectors u (length D) onto the m constraint vectors psi with eigenvalues
// lambda: c_j = w_j (psi_j . u) with w_j = 1/sqrt(lambda_j), 0 below the floor (float products
// summed in double); p = sum_j c_j psi_j (double, stored as float); p normalised unless shorter
// than 1e-8; the K results orthonormalised in place (a dependent set is kept as it is); then
// written as Q14 rows of paddedLength values, zero from D on.
// requires: u holds K rows of D floats, psi m rows of D floats, lambda m values, out K rows of
// paddedLength >= D shorts.
void projectWhitened(float* const* u, int K, int D, float* const* psi, const float* lambda, int m,
                     short* const* out, int paddedLength, ProjectionWork& work);

// The K float vectors as Q14 rows, unprojected (a space without constraint).
void convertToQ14Rows(float* const* u, int K, int D, short* const* out, int paddedLength);

// What one channel of a constraint space does to the vectors it projects.
struct SpaceChannel {
    enum class How { Unprojected, Whitened, Nothing };
    How how = How::Nothing;
    float* const* psi = nullptr;    // Whitened: m constraint vectors of D floats
    const float* lambda = nullptr;  // Whitened: their m eigenvalues
    int m = 0;
};

// The first `rows` (clamped to 0..K) of the float vectors u (D values each) projected as the
// channel says into the K Q14 rows of out (paddedLength values); the rows from `rows` on, and
// every row of a channel that projects onto nothing, are zero.
// requires: u holds the rows, out K rows of paddedLength >= D shorts.
void projectIntoSpace(const SpaceChannel& channel, float* const* u, int rows, int K, int D,
                      short* const* out, int paddedLength, ProjectionWork& work);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_PROJECTION_H
