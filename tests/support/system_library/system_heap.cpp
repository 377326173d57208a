#include "system_library/system_heap.h"

#include <winscard.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace tez::test {

SystemHeap::SystemHeap() : heap_(HeapCreate(0, 0, 0)) {
    if (heap_ == nullptr) {
        throw std::bad_alloc();
    }
}

SystemHeap::~SystemHeap() {
    HeapDestroy(heap_);
}

void* SystemHeap::allocate(std::size_t size) {
    const std::lock_guard lock(mutex_);
    void* const block = HeapAlloc(heap_, 0, std::max<std::size_t>(size, 1));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    blocks_.insert(block);
    return block;
}

bool SystemHeap::free(const void* block) {
    if (block == nullptr) {
        return true;
    }
    const std::lock_guard lock(mutex_);
    if (blocks_.erase(block) == 0) {
        ++foreignFrees_;
        return false;
    }
    HeapFree(heap_, 0, const_cast<void*>(block));
    return true;
}

LONG SystemHeap::deliver(std::span<const std::uint8_t> result, void* destination, LPDWORD length) {
    if (length == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const DWORD offered = *length;
    *length = static_cast<DWORD>(result.size());
    if (destination == nullptr) {
        return SCARD_S_SUCCESS;
    }
    if (offered == SCARD_AUTOALLOCATE) {
        void* const block = allocate(result.size());
        std::memcpy(destination, &block, sizeof block);
        destination = block;
    } else if (offered < result.size()) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    std::ranges::copy(result, static_cast<std::uint8_t*>(destination));
    return SCARD_S_SUCCESS;
}

std::size_t SystemHeap::outstanding() const {
    const std::lock_guard lock(mutex_);
    return blocks_.size();
}

std::size_t SystemHeap::foreignFrees() const {
    const std::lock_guard lock(mutex_);
    return foreignFrees_;
}

}  // namespace tez::test
