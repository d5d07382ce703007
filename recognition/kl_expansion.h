// A person's dictionary subspace of one channel from the autocorrelation of that channel's
// patterns: the record that is stored (the unnormalised sum of outer products and the pattern
// count, so that records of two sessions merge by addition) and its KL expansion.
#ifndef MSMFACE_RECOGNITION_KL_EXPANSION_H
#define MSMFACE_RECOGNITION_KL_EXPANSION_H

#include "dictionary/DicPrim.h"
#include "dictionary/MrxPrim.h"

namespace msm {

// The dictionary's dimension: records of another order are not expanded.
constexpr int kMaxExpansionOrder = 256;

// record = (n, d, upper triangle of sum_k x_k x_kᵀ), each element summed in float in pattern
// order. Returns 0, or -1 after "cannot malloc." (or for n < 0, d < 1, a null pattern).
// requires: patterns[0..n) hold d floats each.
int buildAutocorrelationRecord(float* const* patterns, int n, int d, MrxPrim& record);

// The eigenvectors of R = S / n in order of decreasing eigenvalue, as dim = d float rows (mode
// 2) of which `count` are kept: the eigenvalues above 1e-7, stopped early where their running
// share of the trace reaches 1, and never more than n or d. The problem is solved in double;
// when the QL iteration does not converge it is retried on R scaled by 10, 100 and 1000.
// With spectrum null (the plain form) a failure prints "KL expansion error(2)."; with a
// spectrum of d floats (the returned-eigenvalue form) it prints "KL Expansion error(3)." and
// success writes every eigenvalue divided by the trace into it. A record that is not a
// 1..256-order matrix of n >= 1 patterns fails the same way. Returns 0, or 1 on failure (the
// dictionary is then released).
int expandAutocorrelation(const MrxPrim& record, DicPrim& dictionary, float* spectrum);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_KL_EXPANSION_H
