#pragma once

#include <windows.h>

#include <condition_variable>
#include <map>
#include <mutex>

#include "import_patch.h"

namespace tez::test {

/// Watches the library's pipe operations, and so tells without guessing where its availability
/// monitor stands: in its watch read, or about to connect anew. Thread-safe.
class TransportSpy {
  public:
    /// @param library the library under test; must not have opened a pipe yet.
    explicit TransportSpy(HMODULE library);

    /// How often a pipe was asked for, with or without success.
    std::size_t opens() const;
    bool waitForOpens(std::size_t count) const;

    /// How often the monitor began its watch: a read of one byte on a connection that carried its
    /// handshake and nothing else.
    std::size_t watches() const;
    bool waitForWatches(std::size_t count) const;

    /// How often the monitor's thread, known from its watch, asked for a pipe.
    std::size_t monitorOpens() const;
    /// When the monitor asks for a pipe, all that it did before, to the last step, is over.
    bool waitForMonitorOpens(std::size_t count) const;

  private:
    void noteOpen(HANDLE pipe);
    void noteWrite(HANDLE pipe);
    void noteRead(HANDLE pipe, DWORD size);
    std::size_t monitorOpensLocked() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::size_t opens_ = 0;
    std::size_t watches_ = 0;
    DWORD monitorThread_ = 0;
    std::map<DWORD, std::size_t> opensByThread_;
    std::map<HANDLE, int> writes_;  // on pipes, by handle

    // Last, so that they are gone before what they tell is.
    ImportPatch<decltype(::CreateFileA)> createFile_;
    ImportPatch<decltype(::WriteFile)> writeFile_;
    ImportPatch<decltype(::ReadFile)> readFile_;
};

}  // namespace tez::test
