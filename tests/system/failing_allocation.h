#pragma once

#include <windows.h>

#include <cstddef>

#include "import_patch.h"

namespace tez::test {

/// Refuses the library one allocation on the thread that made this: the n-th from now on (from 1).
class FailingAllocation {
  public:
    explicit FailingAllocation(std::size_t n);

    /// Whether there were that many.
    bool happened() const noexcept { return count_ >= n_; }

  private:
    const std::size_t n_;
    std::size_t count_ = 0;

    // Last, so that it is gone before what it tells is.
    ImportPatch<void*(std::size_t)> malloc_;
};

}  // namespace tez::test
