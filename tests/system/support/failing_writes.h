#pragma once

#include <windows.h>

#include <functional>
#include <utility>

#include "import_patch.h"
#include "system_test.h"

namespace tez::test {

/// Shows a test each write to a pipe that the library makes on the test's thread, by its size, and
/// lets it fail, as if the pipe were broken, where the test says so.
class FailingWrites {
  public:
    explicit FailingWrites(std::function<bool(DWORD size)> fails)
        : patch_(libraryModule(), "KERNEL32.dll", "WriteFile",
                 [thread = GetCurrentThreadId(), fails = std::move(fails)](
                     HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                     LPOVERLAPPED overlapped) -> BOOL {
                     if (GetCurrentThreadId() == thread && fails(size)) {
                         SetLastError(ERROR_NO_DATA);
                         return FALSE;
                     }
                     return ::WriteFile(file, data, size, written, overlapped);
                 }) {}

  private:
    ImportPatch<decltype(::WriteFile)> patch_;
};

}  // namespace tez::test
