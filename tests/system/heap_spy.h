#pragma once

#include <windows.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "import_patch.h"

namespace tez::test {

/// Watches the memory that the library takes and gives back on the thread that made the spy.
class HeapSpy {
  public:
    HeapSpy();

    /// Blocks of a size that were taken since and not given back.
    std::size_t outstanding(std::size_t size) const;

    /// Whether the library gave this block back since.
    bool wasFreed(const void* block) const;

    /// Lets the library have no more blocks of this size.
    void refuse(std::size_t size);

  private:
    void* noteTaken(void* block, std::size_t size);
    void noteFreed(void* block);
    bool isRefused(std::size_t size) const;

    const DWORD thread_;
    mutable std::mutex mutex_;
    std::map<const void*, std::size_t> taken_;
    std::set<const void*> freed_;
    std::optional<std::size_t> refused_;

    // Last, so that they are gone before what they tell is.
    ImportPatch<void*(std::size_t)> malloc_;
    ImportPatch<void(void*)> free_;
};

}  // namespace tez::test
