#include "failing_allocation.h"

#include <cstdlib>

#include "system_test.h"

namespace tez::test {

FailingAllocation::FailingAllocation(std::size_t n)
    : n_(n),
      malloc_(libraryModule(), "msvcrt.dll", "malloc",
              [this, thread = GetCurrentThreadId()](std::size_t size) -> void* {
                  const bool fails = GetCurrentThreadId() == thread && ++count_ == n_;
                  return fails ? nullptr : std::malloc(size);
              }) {}

}  // namespace tez::test
