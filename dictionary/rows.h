// Row-pointer arrays for the containers: all rows or none, the pointer array terminated by a null
// entry (and null beyond it), so that a container's rows can also be handed to the numeric
// toolkit as a matrix and released there.
#ifndef MSMFACE_DICTIONARY_ROWS_H
#define MSMFACE_DICTIONARY_ROWS_H

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "numeric/diagnostics.h"

namespace msm {

// Memory from malloc (align 0) or posix_memalign; both are released by std::free.
void* allocateBlock(std::size_t bytes, std::size_t align);

// count rows of length elements each, every row zero-filled when zero is set, under a pointer
// array of pointerEntries >= count + 1 entries (null from count on). Returns null when anything
// fails (nothing is left allocated) or the sizes are negative.
template <typename T>
T** allocateRows(int count, int length, std::size_t align, int pointerEntries, bool zero) {
    if (count < 0 || length < 0 || pointerEntries < count + 1) return nullptr;
    auto** rows = static_cast<T**>(
        allocateBlock(static_cast<std::size_t>(pointerEntries) * sizeof(T*), align));
    if (rows == nullptr) return nullptr;
    for (int i = 0; i < pointerEntries; ++i) rows[i] = nullptr;
    std::size_t rowBytes = static_cast<std::size_t>(length) * sizeof(T);
    for (int i = 0; i < count; ++i) {
        rows[i] = static_cast<T*>(allocateBlock(rowBytes, align));
        if (rows[i] == nullptr) {
            for (int j = 0; j < i; ++j) std::free(rows[j]);
            std::free(rows);
            return nullptr;
        }
        if (zero && rowBytes != 0) std::memset(rows[i], 0, rowBytes);
    }
    return rows;
}

template <typename T>
T** allocateRows(int count, int length, std::size_t align = 0) {
    return allocateRows<T>(count, length, align, count + 1, true);
}

// Frees the rows up to the null terminator, then the array; null is ignored.
template <typename T>
void freeRows(T**& rows) {
    if (rows == nullptr) return;
    for (T** r = rows; *r != nullptr; ++r) std::free(*r);
    std::free(rows);
    rows = nullptr;
}

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_ROWS_H
