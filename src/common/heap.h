#pragma once

#include <cstddef>
#include <memory>

namespace tez {

/// The heap of every block that crosses the library's border: what SCARD_AUTOALLOCATE hands to an
/// application is allocated here and freed here by SCardFreeMemory. A size of 0 gives a block of
/// two zero bytes, so that an application which walks an empty list in it finds its end. Returns
/// null when memory is exhausted; never throws.
void* heapAllocate(std::size_t size) noexcept;

/// Gives a block of heapAllocate back; null is allowed.
void heapFree(void* block) noexcept;

/// Copies a NUL-terminated text into a new block. Null when text is null or memory is exhausted.
char* heapDuplicate(const char* text) noexcept;

struct HeapDeleter {
    void operator()(void* block) const noexcept { heapFree(block); }
};

/// Owns a block of the library's heap.
template <class T>
using HeapPtr = std::unique_ptr<T, HeapDeleter>;

}  // namespace tez
