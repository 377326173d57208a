#pragma once

#include <windows.h>

#include "common/thread_annotations.h"

namespace tez {

/// A slim reader/writer lock. Not reentrant, not for readers either.
///
/// It needs neither construction nor destruction at run time, so a lock of static storage is usable
/// from the first call on any thread and nothing is left to do for it at process detach.
class TEZ_CAPABILITY("lock") SlimLock {
  public:
    SlimLock() = default;
    SlimLock(const SlimLock&) = delete;
    SlimLock& operator=(const SlimLock&) = delete;
    ~SlimLock() = default;

    void lock() noexcept TEZ_ACQUIRE() { AcquireSRWLockExclusive(&lock_); }
    void unlock() noexcept TEZ_RELEASE() { ReleaseSRWLockExclusive(&lock_); }

    void lockShared() noexcept TEZ_ACQUIRE_SHARED() { AcquireSRWLockShared(&lock_); }
    void unlockShared() noexcept TEZ_RELEASE_SHARED() { ReleaseSRWLockShared(&lock_); }

    /// Takes the lock if it is free. For process detach, where a thread that the platform has
    /// stopped may hold it for ever.
    bool try_lock() noexcept TEZ_TRY_ACQUIRE(true) {
        return TryAcquireSRWLockExclusive(&lock_) != FALSE;
    }

  private:
    friend class SlimCondition;
    SRWLOCK lock_ = SRWLOCK_INIT;
};

/// Holds a lock for as long as it lives.
class TEZ_SCOPED_CAPABILITY SlimGuard {
  public:
    explicit SlimGuard(SlimLock& lock) noexcept TEZ_ACQUIRE(lock) : lock_(lock) { lock.lock(); }
    SlimGuard(const SlimGuard&) = delete;
    SlimGuard& operator=(const SlimGuard&) = delete;
    ~SlimGuard() TEZ_RELEASE() { lock_.unlock(); }

  private:
    SlimLock& lock_;
};

/// Holds a lock together with others who only read what it guards.
class TEZ_SCOPED_CAPABILITY SharedGuard {
  public:
    explicit SharedGuard(SlimLock& lock) noexcept TEZ_ACQUIRE_SHARED(lock) : lock_(lock) {
        lock.lockShared();
    }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;
    ~SharedGuard() TEZ_RELEASE() { lock_.unlockShared(); }

  private:
    SlimLock& lock_;
};

/// Wakes threads that wait for something that a SlimLock guards.
class SlimCondition {
  public:
    /// Gives the lock, which the caller holds, back for the time of the wait. Wakes when notified,
    /// after timeout milliseconds (INFINITE: never), or for no reason.
    void wait(SlimLock& lock, DWORD timeout) noexcept TEZ_REQUIRES(lock) {
        SleepConditionVariableSRW(&condition_, &lock.lock_, timeout, 0);
    }
    void notifyOne() noexcept { WakeConditionVariable(&condition_); }
    void notifyAll() noexcept { WakeAllConditionVariable(&condition_); }

  private:
    CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

}  // namespace tez
