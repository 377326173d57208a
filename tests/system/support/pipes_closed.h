#pragma once

#include <windows.h>

#include <atomic>

#include "import_patch.h"
#include "system_test.h"

namespace tez::test {

/// Lets the library open no pipe for as long as it lives; nor does a busy one become free.
class PipesClosed {
  public:
    /// @param error what opening a pipe fails with.
    explicit PipesClosed(DWORD error)
        : create_(libraryModule(), "KERNEL32.dll", "CreateFileA",
                  [this, error](LPCSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
                      ++attempts_;
                      SetLastError(error);
                      return INVALID_HANDLE_VALUE;
                  }),
          await_(libraryModule(), "KERNEL32.dll", "WaitNamedPipeA",
                 [](LPCSTR, DWORD) { return FALSE; }) {}

    /// How often the library has tried.
    int attempts() const { return attempts_; }

  private:
    std::atomic<int> attempts_ = 0;
    ImportPatch<decltype(::CreateFileA)> create_;
    ImportPatch<decltype(::WaitNamedPipeA)> await_;
};

}  // namespace tez::test
