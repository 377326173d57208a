#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "common/slim_lock.h"

namespace tez {

/// How far the two halves of one status-change call are. Each half sets its done mark before it
/// looks at the other's, so at most one of them cancels the other.
class StatusWait {
  public:
    StatusWait() = default;
    StatusWait(const StatusWait&) = delete;
    StatusWait& operator=(const StatusWait&) = delete;
    ~StatusWait() = default;

    /// @param remoteContext  the daemon's context that the request went out under.
    void markRemoteRequestOut(std::uint64_t remoteContext) noexcept {
        const SlimGuard guard(lock_);
        remoteContext_ = remoteContext;
        isRemoteRequestOut_ = true;
        changed_.notifyAll();
    }
    void markRemoteDone() noexcept { mark(&StatusWait::isRemoteDone_); }
    void markLocalStarted() noexcept { mark(&StatusWait::isLocalStarted_); }
    void markLocalDone() noexcept { mark(&StatusWait::isLocalDone_); }
    /// The service monitor has ended the local half, or kept it from beginning.
    void markInterrupted() noexcept { mark(&StatusWait::isInterrupted_); }
    /// The application has cancelled the call.
    void markCancelled() noexcept { mark(&StatusWait::isCancelled_); }
    /// The local half has ended in a way that ends the remote half too.
    void markRemoteUnwanted() noexcept { mark(&StatusWait::isRemoteUnwanted_); }
    /// The call is about to return.
    void markEnded() noexcept { mark(&StatusWait::hasEnded_); }

    /// True for one caller only, who then sees to it that a cancelled call ends, or gives the claim
    /// back.
    bool claimCancel() noexcept {
        const SlimGuard guard(lock_);
        return !std::exchange(isCancelClaimed_, true);
    }
    void giveClaimBack() noexcept {
        const SlimGuard guard(lock_);
        isCancelClaimed_ = false;
    }

    bool isRemoteDone() noexcept { return read(&StatusWait::isRemoteDone_); }
    bool isLocalDone() noexcept { return read(&StatusWait::isLocalDone_); }
    bool isInterrupted() noexcept { return read(&StatusWait::isInterrupted_); }
    bool isCancelled() noexcept { return read(&StatusWait::isCancelled_); }
    /// Whether a remote half that has not begun is not to begin any more.
    bool isRemoteToEnd() noexcept {
        const SlimGuard guard(lock_);
        return isCancelled_ || isRemoteUnwanted_;
    }
    bool isLocalInProgress() noexcept {
        const SlimGuard guard(lock_);
        return isLocalStarted_ && !isLocalDone_;
    }
    /// The daemon's context of a request that is out and not answered.
    std::optional<std::uint64_t> remoteContextInUse() noexcept {
        const SlimGuard guard(lock_);
        return isRemoteRequestOut_ && !isRemoteDone_ ? std::optional(remoteContext_) : std::nullopt;
    }

    /// Waits until the daemon has the request, or will not get it any more.
    /// @return the daemon's context that it went out under; nothing when the remote half is done.
    std::optional<std::uint64_t> awaitRemoteRequest() noexcept {
        const SlimGuard guard(lock_);
        while (!isRemoteRequestOut_ && !isRemoteDone_) {
            changed_.wait(lock_, INFINITE);
        }
        return isRemoteDone_ ? std::nullopt : std::optional(remoteContext_);
    }

    /// Waits for the remote half, timeout milliseconds at most. True: it is done.
    bool awaitRemoteDone(DWORD timeout) noexcept {
        return awaitMark(&StatusWait::isRemoteDone_, nullptr, timeout);
    }
    /// Waits for the local half, timeout milliseconds at most, or without limit until it is done or
    /// interrupted. True: it is done.
    bool awaitLocalDone(DWORD timeout) noexcept {
        return awaitMark(&StatusWait::isLocalDone_, nullptr, timeout);
    }
    bool awaitLocalDoneOrInterrupted() noexcept {
        return awaitMark(&StatusWait::isLocalDone_, &StatusWait::isInterrupted_, INFINITE);
    }
    /// Waits for the end of the call, timeout milliseconds at most. True: it has ended.
    bool awaitEnd(DWORD timeout) noexcept {
        return awaitMark(&StatusWait::hasEnded_, nullptr, timeout);
    }

  private:
    using Mark = bool StatusWait::*;

    void mark(Mark which) noexcept {
        const SlimGuard guard(lock_);
        this->*which = true;
        // Under the lock: once it is free, the waiter may return and take its share of this object
        // along.
        changed_.notifyAll();
    }
    bool read(Mark which) noexcept {
        const SlimGuard guard(lock_);
        return this->*which;
    }
    bool awaitMark(Mark wanted, Mark other, DWORD timeout) noexcept;

    SlimLock lock_;
    SlimCondition changed_;
    std::uint64_t remoteContext_ = 0;
    bool isRemoteRequestOut_ = false;
    bool isRemoteDone_ = false;
    bool isLocalStarted_ = false;
    bool isLocalDone_ = false;
    bool isInterrupted_ = false;
    bool isCancelled_ = false;
    bool isRemoteUnwanted_ = false;
    bool hasEnded_ = false;
    bool isCancelClaimed_ = false;
};

}  // namespace tez
