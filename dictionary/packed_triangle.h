// Storage of a packed symmetric matrix (upper triangle row by row), shared by the ".mck" records
// and the covariance files.
#ifndef MSMFACE_DICTIONARY_PACKED_TRIANGLE_H
#define MSMFACE_DICTIONARY_PACKED_TRIANGLE_H

#include <cstdint>

namespace msm {

// n(n+1)/2, in 64 bits so that a hostile order cannot overflow it.
inline int64_t packedElements(int64_t order) {
    return order + order * (order - 1) / 2;
}

// Allocates the elements of an order-n triangle with malloc (uninitialised). Refused (0, nothing
// allocated) for a negative order or when headerBytes + 4 * elements would not fit an int32 size
// field; 0 after "cannot malloc." when memory runs out. On success returns 1 with elements and
// elementCount set.
int allocatePackedTriangle(int order, int64_t headerBytes, float*& elements, int32_t& elementCount);

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_PACKED_TRIANGLE_H
