#pragma once

#include <windows.h>

#include <algorithm>
#include <limits>

namespace tez {

/// How soon a cancel is due, and how soon behind it the next one, in milliseconds.
struct CancelPace {
    DWORD first;
    DWORD next;
};

/// A cancel at once, of what has only just begun: it may have come before that, in which case the
/// system library and the daemon alike forget it.
inline constexpr CancelPace kCancelOfYoung = {0, 10};
/// A cancel at once, of what has gone on for a while and so hears of it.
inline constexpr CancelPace kCancelOfOld = {0, 500};
/// SCardCancel cancels both sides itself, but one that does not answer keeps it from the other.
inline constexpr CancelPace kCancelBehindApplication = {50, 100};
/// The call that releases a context cancels the host's part of its waits itself.
inline constexpr CancelPace kCancelBehindRelease = {10, 20};
/// What the monitor interrupts is cancelled by the monitor, as a rule once.
inline constexpr CancelPace kCancelBehindMonitor = {500, 1000};

/// When the next cancel of something is due: at growing intervals, up to half a minute, until it is
/// over. Takes no lock.
class CancelSchedule {
  public:
    /// Begins, or hastens what has begun already.
    void start(CancelPace pace) noexcept {
        due_ = std::min(due_, GetTickCount64() + pace.first);
        interval_ = std::min(interval_, pace.next);
    }

    bool isDue() const noexcept { return GetTickCount64() >= due_; }

    /// Milliseconds until a cancel is due; INFINITE when none will be.
    DWORD pause() const noexcept {
        if (due_ == kNever) {
            return INFINITE;
        }
        const ULONGLONG now = GetTickCount64();
        return now >= due_ ? 0 : static_cast<DWORD>(due_ - now);
    }

    /// A cancel has been carried out: the next one is due an interval from now.
    void advance() noexcept {
        due_ = GetTickCount64() + interval_;
        interval_ = std::min(interval_ * 2, kLongestInterval);
    }

  private:
    static constexpr ULONGLONG kNever = std::numeric_limits<ULONGLONG>::max();
    static constexpr DWORD kLongestInterval = 32000;

    ULONGLONG due_ = kNever;
    DWORD interval_ = kLongestInterval;
};

}  // namespace tez
