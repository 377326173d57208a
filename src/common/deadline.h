#pragma once

#include <windows.h>

namespace tez {

/// A time-out in milliseconds, INFINITE for none, that runs from the moment on at which it is made.
class Deadline {
  public:
    explicit Deadline(DWORD timeout) noexcept : timeout_(timeout) {}

    /// What is left of it: INFINITE for ever, or down to 0.
    DWORD remaining() const noexcept {
        if (timeout_ == INFINITE) {
            return INFINITE;
        }
        const ULONGLONG elapsed = GetTickCount64() - start_;
        return elapsed >= timeout_ ? 0 : timeout_ - static_cast<DWORD>(elapsed);
    }

  private:
    DWORD timeout_;
    ULONGLONG start_ = GetTickCount64();
};

}  // namespace tez
