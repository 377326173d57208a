#pragma once

#include <windows.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "import_patch.h"

namespace tez::test {

/// Watches the memory that the library takes, on the thread that made the spy or on all, and
/// refuses it some on that thread where a test says so.
class HeapSpy {
  public:
    enum class Threads { Own, All };

    explicit HeapSpy(Threads watched = Threads::Own);

    /// Blocks that were taken since and that no thread has given back.
    std::size_t outstanding() const;
    /// Those of a size.
    std::size_t outstanding(std::size_t size) const;

    /// Whether the library gave this block back since.
    bool wasFreed(const void* block) const;

    /// Lets the library have no more blocks of this size.
    void refuse(std::size_t size);

    /// Refuses the library one block, the n-th from now on (from 1).
    void refuseNth(std::size_t n);

    /// Lets the library have all blocks again. Whether it asked for one that was refused.
    bool stopRefusing();

  private:
    void* noteTaken(void* block, std::size_t size);
    void noteFreed(void* block);
    bool isRefused(std::size_t size);
    bool isOwnThread() const { return GetCurrentThreadId() == thread_; }
    bool isWatchedThread() const { return watched_ == Threads::All || isOwnThread(); }

    const Threads watched_;
    const DWORD thread_;
    mutable std::mutex mutex_;
    std::map<const void*, std::size_t> taken_;
    std::set<const void*> freed_;
    std::optional<std::size_t> refused_;
    std::size_t untilRefusal_ = 0;  // 0: none to come
    bool hasRefused_ = false;

    // Last, so that they are gone before what they tell is.
    ImportPatch<void*(std::size_t)> malloc_;
    ImportPatch<void(void*)> free_;
};

}  // namespace tez::test
