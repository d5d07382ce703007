#include "dictionary/packed_triangle.h"

#include <cstdlib>
#include <limits>

#include "dictionary/rows.h"

namespace msm {

int allocatePackedTriangle(int order, int64_t headerBytes, float*& elements,
                           int32_t& elementCount) {
    const int64_t e = packedElements(order);
    if (order < 0 || headerBytes + 4 * e > std::numeric_limits<int32_t>::max()) return 0;
    // One byte at least, so that an order-0 matrix still owns a block and reads as allocated.
    elements = static_cast<float*>(std::malloc(static_cast<std::size_t>(e == 0 ? 1 : e) * 4));
    if (elements == nullptr) {
        reportNoMemory();
        return 0;
    }
    elementCount = static_cast<int32_t>(e);
    return 1;
}

}  // namespace msm
