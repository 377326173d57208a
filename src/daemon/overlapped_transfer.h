#pragma once

#include <windows.h>

#include <memory>

#include "common/owned_handle.h"

namespace tez {

/// One overlapped read or write: its OVERLAPPED and the event that tells its end.
///
/// The kernel writes to both until the operation has ended, which for a cancelled one may be after
/// the function that started it has returned. So it lives on the heap, never on a stack, and a
/// transfer that was given up goes to retire() once its pipe has been closed.
class OverlappedTransfer {
  public:
    /// A transfer with an event of its own, in the memory of a spare one if there is one. Null when
    /// memory or events are exhausted; GetLastError says why.
    static std::unique_ptr<OverlappedTransfer> create(
        std::unique_ptr<OverlappedTransfer> spare = nullptr) noexcept;

    /// Closes the event of an operation that has ended; what stays is a spare one.
    void closeEvent() noexcept { event_.reset(); }

    OVERLAPPED* overlapped() noexcept { return &overlapped_; }
    HANDLE event() const noexcept { return event_.get(); }

    /// Notes that the operation goes on after it was started; one that was over at once needs no
    /// waiting.
    void markPending() noexcept { isPending_ = true; }
    bool isPending() const noexcept { return isPending_; }

    /// Puts a transfer in front of a list, which owns it. Never fails.
    static void push(std::unique_ptr<OverlappedTransfer>& list,
                     std::unique_ptr<OverlappedTransfer> transfer) noexcept;

    /// Takes a list of cancelled transfers whose pipe has been closed. Each is freed as soon as the
    /// kernel is done with it: at once as a rule, else during a later call. Any thread may call.
    static void retire(std::unique_ptr<OverlappedTransfer> list) noexcept;

  private:
    OverlappedTransfer() = default;

    OVERLAPPED overlapped_ = {};
    OwnedHandle event_;
    bool isPending_ = false;
    std::unique_ptr<OverlappedTransfer> next_;
};

}  // namespace tez
