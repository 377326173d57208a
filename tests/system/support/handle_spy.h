#pragma once

#include <windows.h>

#include <cstddef>
#include <mutex>
#include <set>

#include "import_patch.h"

namespace tez::test {

/// Watches the handles that the library opens, on all threads. Only its own: Wine cannot tell the
/// number of a process's handles, and in a test program the daemon's side opens some, too.
class HandleSpy {
  public:
    HandleSpy();

    /// Events, files, pipes and threads that were opened since and are not closed.
    std::size_t outstanding() const;

    /// Whether the library has closed this one, and opened none of the same number since.
    bool wasClosed(HANDLE handle) const;

  private:
    HANDLE noteOpened(HANDLE handle);
    void noteClosed(HANDLE handle);

    mutable std::mutex mutex_;
    std::set<HANDLE> open_;
    std::set<HANDLE> closed_;

    // Last, so that they are gone before what they tell is.
    ImportPatch<decltype(::CreateEventA)> createEvent_;
    ImportPatch<decltype(::CreateFileA)> createFile_;
    ImportPatch<std::uintptr_t(void*, unsigned, unsigned (*)(void*), void*, unsigned, unsigned*)>
        beginThread_;
    ImportPatch<decltype(::CloseHandle)> closeHandle_;
};

}  // namespace tez::test
