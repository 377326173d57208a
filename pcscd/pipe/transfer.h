#pragma once

#include <windows.h>

#include <chrono>
#include <initializer_list>

#include "pipe/unique_handle.h"

namespace tez::pcscd {

/// A manual-reset event. Throws std::system_error when there is none to be had.
UniqueHandle makeEvent();

bool isSet(HANDLE event);

using Limit = std::chrono::milliseconds;
inline constexpr Limit kNoLimit{-1};

/// How a transfer ended.
struct Outcome {
    DWORD error = ERROR_SUCCESS;  ///< ERROR_OPERATION_ABORTED: interrupted; ERROR_TIMEOUT
    DWORD count = 0;              ///< bytes moved, which some are in spite of an interruption
};

/// Events of which each ends a transfer, two at most.
using Interrupts = std::initializer_list<HANDLE>;

/// Runs overlapped operations on a pipe or socket, one at a time. When one has returned the kernel
/// is done with its buffer.
class Transfer {
  public:
    Transfer() : done_(makeEvent()) {}

    /// `start` begins the operation with the OVERLAPPED that it gets, and returns whether the
    /// system's function succeeded at once.
    template <class Start>
    Outcome run(HANDLE file, Interrupts interrupts, Limit limit, Start start) {
        overlapped_ = {};
        overlapped_.hEvent = done_.get();
        if (!start(&overlapped_) && GetLastError() != ERROR_IO_PENDING) {
            return {GetLastError(), 0};
        }
        return finish(file, interrupts, limit);
    }

  private:
    Outcome finish(HANDLE file, Interrupts interrupts, Limit limit);

    OVERLAPPED overlapped_ = {};
    UniqueHandle done_;
};

}  // namespace tez::pcscd
