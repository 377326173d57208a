#include "common/copy_out.h"

#include <cstring>

namespace tez {

LONG copyOutBuffer(const void* source, DWORD count, void* destination, DWORD* length,
                   std::size_t elementSize) noexcept {
    if (length == nullptr) {
        return SCARD_S_SUCCESS;
    }
    const DWORD room = *length;
    *length = count;
    if (destination == nullptr) {
        return SCARD_S_SUCCESS;
    }
    // A 32-bit count of at most two-byte elements cannot overflow the 64-bit size.
    const std::size_t size = count * elementSize;
    void* target = destination;
    if (room == SCARD_AUTOALLOCATE) {
        target = heapAllocate(size);
        *static_cast<void**>(destination) = target;
        if (target == nullptr) {
            return SCARD_E_NO_MEMORY;
        }
    } else if (room < count) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (size != 0) {
        std::memcpy(target, source, size);
    }
    return SCARD_S_SUCCESS;
}

}  // namespace tez
