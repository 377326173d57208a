#pragma once

#include "common/heap.h"
#include "common/scard_api.h"

namespace tez {

/// The one way in which a result reaches a caller's buffer.
///
/// @param source       the result; count elements. May be null when count is 0.
/// @param count        its length in elements.
/// @param destination  the caller's buffer; with a length of SCARD_AUTOALLOCATE the place of a
///                     pointer; null asks for the length only.
/// @param length       in: room in elements, or SCARD_AUTOALLOCATE; out: count, on every result but
///                     when it is null itself, which copies nothing and succeeds.
/// @param elementSize  bytes of an element: 1, or 2 for wide text.
/// @return SCARD_S_SUCCESS; SCARD_E_INSUFFICIENT_BUFFER when the room is too small (nothing is
///         copied); SCARD_E_NO_MEMORY when the block to hand out could not be allocated (the
///         caller's pointer is then null). An allocated block is freed by SCardFreeMemory.
[[nodiscard]] LONG copyOutBuffer(const void* source, DWORD count, void* destination, DWORD* length,
                                 std::size_t elementSize) noexcept;

/// Where a result stands that a call has handed out: in the caller's buffer or, when it was
/// allocated, where the pointer leads that the buffer is the place of. Null when the caller gave
/// none.
template <class Unit>
const Unit* handedOut(const Unit* destination, bool isAllocated) noexcept {
    return isAllocated && destination != nullptr
               ? *reinterpret_cast<const Unit* const*>(destination)
               : destination;
}

/// Takes a block back that a call has handed out, before it fails after all: a caller who is told
/// of a failure frees nothing. The place of the pointer becomes null.
template <class Unit>
void takeBack(Unit* destination) noexcept {
    Unit*& block = *reinterpret_cast<Unit**>(destination);
    heapFree(block);
    block = nullptr;
}

}  // namespace tez
