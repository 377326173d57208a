#pragma once

#include <windows.h>

#include <mutex>

namespace tez {

/// A slim reader/writer lock, used in exclusive mode only. Not reentrant.
///
/// It needs neither construction nor destruction at run time, so a lock of static storage is usable
/// from the first call on any thread and nothing is left to do for it at process detach.
class SlimLock {
  public:
    SlimLock() = default;
    SlimLock(const SlimLock&) = delete;
    SlimLock& operator=(const SlimLock&) = delete;
    ~SlimLock() = default;

    void lock() noexcept { AcquireSRWLockExclusive(&lock_); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&lock_); }

    /// Takes the lock if it is free. For process detach, where a thread that the platform has
    /// stopped may hold it for ever.
    bool try_lock() noexcept { return TryAcquireSRWLockExclusive(&lock_) != FALSE; }

  private:
    friend class SlimCondition;
    SRWLOCK lock_ = SRWLOCK_INIT;
};

using SlimGuard = std::lock_guard<SlimLock>;

/// Wakes threads that wait for something that a SlimLock guards.
class SlimCondition {
  public:
    /// Gives the lock, which the caller holds, back for the time of the wait. Wakes when notified,
    /// after timeout milliseconds (INFINITE: never), or for no reason.
    void wait(SlimLock& lock, DWORD timeout) noexcept {
        SleepConditionVariableSRW(&condition_, &lock.lock_, timeout, 0);
    }
    void notifyOne() noexcept { WakeConditionVariable(&condition_); }
    void notifyAll() noexcept { WakeAllConditionVariable(&condition_); }

  private:
    CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

}  // namespace tez
