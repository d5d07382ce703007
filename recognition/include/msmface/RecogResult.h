// One entry of the ranked recognition result, best first.
#ifndef MSMFACE_RECOGRESULT_H
#define MSMFACE_RECOGRESULT_H

#include <cstdint>

struct RECOGRESULT {
    int32_t id;          // inside number of the person (dictionary order); -999 in an unused entry
    int32_t similarity;  // in thousandths, 1000 = the subspaces share a direction exactly
};

#endif  // MSMFACE_RECOGRESULT_H
