#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <span>

namespace tez::test {

/// The heap from which a host's smart-card library hands out auto-allocated buffers. It is one of
/// its own, so that a buffer freed by anyone else, or with the C runtime, is noticed. Thread-safe.
class SystemHeap {
  public:
    SystemHeap();
    SystemHeap(const SystemHeap&) = delete;
    SystemHeap& operator=(const SystemHeap&) = delete;
    /// Frees what is still allocated.
    ~SystemHeap();

    /// Never null (std::bad_alloc), also for a size of 0.
    void* allocate(std::size_t size);

    /// False, and one more foreign free, when the block is not one that this heap has out. Null is
    /// nobody's block and is always freed.
    bool free(const void* block);

    /// Hands a result out the way the platform does: to a null destination its size only; under
    /// SCARD_AUTOALLOCATE a new block, whose address goes where destination points; else a copy.
    /// @return SCARD_E_INVALID_PARAMETER without a length; SCARD_E_INSUFFICIENT_BUFFER, the length
    /// needed being stored, when the destination is too small.
    LONG deliver(std::span<const std::uint8_t> result, void* destination, LPDWORD length);

    /// Blocks handed out and not given back yet.
    std::size_t outstanding() const;
    /// Attempts to free what this heap did not have out.
    std::size_t foreignFrees() const;

  private:
    mutable std::mutex mutex_;
    HANDLE heap_;
    std::set<const void*> blocks_;
    std::size_t foreignFrees_ = 0;
};

}  // namespace tez::test
