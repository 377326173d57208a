#pragma once

#include <windows.h>

#include <vector>

#include "pcscd_names.h"
#include "pipe/unique_handle.h"

namespace tez::test {

/// The name of the pipe that the library connects to.
inline constexpr const char* kDaemonPipe = R"(\\.\pipe\tez-pcscd-0)";

/// Opens an instance of that pipe as a client does. None when there is none to be had.
UniqueHandle openDaemonPipe();

/// Some instances of that pipe, on which nobody reads or answers, for as long as it lives.
class MutePipe {
  public:
    /// Throws std::runtime_error when the pipe cannot be made.
    explicit MutePipe(DWORD instances, DWORD direction = PIPE_ACCESS_DUPLEX);

    /// Gives an instance to a client in this process, which keeps it. Throws std::runtime_error
    /// when there is no free one.
    void take();

    /// How many bytes the client of the first instance has written.
    DWORD written() const;

  private:
    std::vector<UniqueHandle> instances_;
    std::vector<UniqueHandle> clients_;
};

}  // namespace tez::test
