#pragma once

#include <windows.h>

#include <algorithm>

namespace tez {

/// How long to wait before a cancel is repeated, in milliseconds: a second, then twice as long each
/// time, up to half a minute.
class RepeatInterval {
  public:
    DWORD next() noexcept {
        const DWORD current = next_;
        next_ = std::min<DWORD>(next_ * 2, 32000);
        return current;
    }

  private:
    DWORD next_ = 1000;
};

}  // namespace tez
