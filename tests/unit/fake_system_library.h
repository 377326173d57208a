#pragma once

#include "local/winscard_table.h"

namespace tez::test {

/// Takes the place of the host's smart-card library without a file to load: every entry point of
/// the table fails the test that reaches it, until the test puts a function of its own there.
///
///     FakeSystemLibrary system;
///     system.table().SCardCancel = [](SCARDCONTEXT) -> LONG { return SCARD_S_SUCCESS; };
class FakeSystemLibrary {
  public:
    FakeSystemLibrary();
    FakeSystemLibrary(const FakeSystemLibrary&) = delete;
    FakeSystemLibrary& operator=(const FakeSystemLibrary&) = delete;
    /// Leaves the table unloaded, as it was.
    ~FakeSystemLibrary();

    WinscardTable& table() noexcept { return table_; }

  private:
    WinscardTable& table_;
};

}  // namespace tez::test
