#include "readers/wait_owner.h"

#include <algorithm>
#include <new>
#include <utility>

#include "context/context_registry.h"
#include "log/switches.h"

namespace tez {

namespace {

constexpr DWORD kContextRetry = 1000;     // milliseconds
constexpr DWORD kReleasePatience = 1000;  // milliseconds

// Cancels of the remote half are told of under the name of the half that they are for.
constexpr FunctionLog remoteHalfLog("LocalSCardGetStatusChange");

}  // namespace

LONG WaitOwner::runRemote() noexcept {
    try {
        return askDaemon();
    } catch (const std::bad_alloc&) {
        // The local half may be under way, and has to be collected all the same. The daemon has not
        // been asked, and may be when there is memory again.
        isRemoteLost_ = true;
        return SCARD_E_NO_MEMORY;
    }
}

LONG WaitOwner::askDaemon() {
    LONG rv = remote_.prepare();
    std::uint64_t remoteContext = NO_REMOTE_CONTEXT;
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    isRemoteLost_ = true;  // until the daemon has answered
    rv = awaitRemoteContext(remoteContext);
    if (rv != SCARD_S_SUCCESS) {
        isRemoteLost_ = rv == SCARD_E_NO_SERVICE;  // any other code is the daemon's
        return rv;
    }
    if (!remote_.connect()) {
        return SCARD_E_NO_SERVICE;
    }
    if (remote_.isEmpty()) {
        return SCARD_S_SUCCESS;
    }
    const Deadline deadline(timeout_);
    for (DWORD timeout = timeout_;; timeout = deadline.remaining()) {
        wait_.beginRemote(remoteContext);
        rv = remote_.send(remoteContext, timeout);
        if (rv == SCARD_S_SUCCESS) {
            remoteContext_ = remoteContext;
            rv = awaitAnswer();
            remoteContext_.reset();
        }
        isRemoteLost_ = !remote_.hasAnswered();
        const HalfEnd end = wait_.endRemote();
        if (rv != SCARD_E_CANCELLED || !end.isForAnotherWait) {
            return rv;
        }
    }
}

/// Gets the daemon's context, waiting for the daemon while it is away.
LONG WaitOwner::awaitRemoteContext(std::uint64_t& remoteContext) {
    for (;;) {
        const LONG rv = getRemoteContextVolatile(context_, remoteContext, true);
        if (rv != SCARD_E_NO_SERVICE || isStandardCallsEnabled()) {
            return rv;
        }
        log_.debug("Waiting for remote context: %Ix, timeout=%lu", context_, timeout_);
        if (!local_.isOnWorker() && !wait_.isLocalOver()) {
            // The daemon went since it was found that it has nothing to keep the host's half
            // waiting.
            wait_.openWake();
            local_.startOnWorker();
        }
        const bool isLastPause = timeout_ <= kContextRetry;
        const DWORD pause = std::min(timeout_, kContextRetry);
        const Deadline deadline(pause);
        for (DWORD left = pause; left != 0; left = deadline.remaining()) {
            rest(nullptr, left);
            if (isRemoteToEnd()) {
                return SCARD_E_CANCELLED;
            }
        }
        if (isLastPause) {
            return SCARD_E_TIMEOUT;
        }
        if (timeout_ != INFINITE) {
            timeout_ -= kContextRetry;
        }
    }
}

LONG WaitOwner::awaitAnswer() {
    for (;;) {
        if (releasePatience_ && releasePatience_->remaining() == 0) {
            remote_.giveUp();
            return SCARD_E_CANCELLED;
        }
        if (rest(remote_.answered(), INFINITE)) {
            return remote_.finish();
        }
    }
}

LONG WaitOwner::finishLocal(LONG remoteRv) noexcept {
    isLocalEndedByRemote_ = !remote_.isEmpty() && endsOther(remoteRv);
    if (isLocalEndedByRemote_) {
        wait_.markUnwanted(WaitSide::Local);
    }
    if (remoteRv == SCARD_E_NO_SERVICE) {
        wait_.markWithoutDaemon();
    }
    local_.runHere();
    while (!wait_.isLocalOver()) {
        rest(nullptr, INFINITE);
    }
    noteLocalEnd();
    return local_.result();
}

/// Does what is due, then waits until there is something to do, limit milliseconds at most.
/// @param answer  the event of the daemon's answer, null when none is to come.
/// @return whether the answer is there.
bool WaitOwner::rest(HANDLE answer, DWORD limit) {
    endRemote();
    noteLocalEnd();
    endLocal();
    HANDLE events[3] = {};
    DWORD count = 0;
    const auto add = [&](HANDLE event) {
        if (event != nullptr) {
            events[count++] = event;
        }
    };
    add(answer);
    add(wait_.wake());
    if (answer != nullptr && releasePatience_) {
        limit = std::min(limit, releasePatience_->remaining());
    }
    if (remoteCancel_.isUnderWay()) {
        add(remoteCancel_.answered());
    } else if (remoteContext_) {
        limit = std::min(limit, remoteEnding_.schedule.pause());
    }
    if (isLocalRunning()) {
        limit = std::min(limit, localEnding_.schedule.pause());
    }
    if (count == 0) {
        Sleep(limit);
        return false;
    }
    const DWORD woken = WaitForMultipleObjects(count, events, FALSE, limit) - WAIT_OBJECT_0;
    if (woken >= count) {
        return false;
    }
    if (remoteCancel_.isUnderWay() && events[woken] == remoteCancel_.answered()) {
        remoteCancel_.finish();
        remoteEnding_.schedule.advance();
    }
    return events[woken] == answer;
}

/// Whether a half that has ended with this code ends the other one. By default only a success does,
/// and only in a wait without limit. With standard answers the time-out makes no difference, and a
/// half that ended without telling anything ends the other too, so that what is left of both can be
/// begun anew: a side that refuses a reader, or fails, would not be heard for as long as the other
/// one waits.
bool WaitOwner::endsOther(LONG rv) const noexcept {
    if (!isStandardCallsEnabled()) {
        return timeout_ == INFINITE && rv == SCARD_S_SUCCESS;
    }
    const bool isOrdered = rv == SCARD_E_CANCELLED && wait_.orders().isToEnd();
    return timeout_ != 0 && rv != SCARD_E_TIMEOUT && !isOrdered;
}

bool WaitOwner::isRemoteEndedByLocal() const noexcept {
    return wait_.isLocalOver() && endsOther(local_.result());
}

/// The reasons to end a half that are new, from what the other half and other threads say.
WaitOwner::Reasons WaitOwner::freshReasons(Ending& ending, bool isEndedByOther) const noexcept {
    const WaitOrders orders = wait_.orders();
    const Reasons all = (isEndedByOther ? kOtherEnded : 0) | (orders.isCancelled ? kCancelled : 0) |
                        (orders.isInterrupted ? kInterrupted : 0) |
                        (orders.isReleased ? kReleased : 0);
    const Reasons fresh = all & ~ending.reasons;
    ending.reasons |= fresh;
    return fresh;
}

/// Whether the remote half is to end; prepares the cancel of its request.
bool WaitOwner::isRemoteToEnd() noexcept {
    Ending& ending = remoteEnding_;
    const Reasons fresh = freshReasons(ending, isRemoteEndedByLocal());
    const bool isYoung = fresh != 0 && wait_.isYoung(WaitSide::Remote);
    if ((fresh & (kOtherEnded | kInterrupted)) != 0) {
        remoteHalfLog.debug("canceling remote SCardGetStatusChange by invoking remote SCardCancel");
        setContextCancelled(context_, true);
        wait_.markUnwanted(WaitSide::Remote);
        ending.isAnnounced = true;
        ending.schedule.start(isYoung ? kCancelOfYoung : kCancelOfOld);
    }
    if ((fresh & kReleased) != 0) {
        ending.schedule.start(isYoung ? kCancelOfYoung : kCancelOfOld);
        releasePatience_.emplace(kReleasePatience);
    }
    if ((fresh & kCancelled) != 0) {
        // SCardCancel cancels the daemon context that the application's stands for now, which need
        // not be the one that this request went out under.
        const bool isOtherContext = remoteContext_ != getBoundRemoteContext(context_);
        ending.schedule.start(isOtherContext ? kCancelOfYoung : kCancelBehindApplication);
    }
    return ending.reasons != 0;
}

/// Cancels the request that is out, if there is a reason and it is time.
void WaitOwner::endRemote() noexcept {
    if (!remoteContext_ || !isRemoteToEnd() || remoteCancel_.isUnderWay() ||
        !remoteEnding_.schedule.isDue()) {
        return;
    }
    if (!std::exchange(remoteEnding_.isAnnounced, false)) {
        remoteHalfLog.debug("canceling remote SCardGetStatusChange again");
    }
    remoteCancel_.send(remoteHalfLog, *remoteContext_);
    if (!remoteCancel_.isUnderWay()) {
        remoteEnding_.schedule.advance();
    }
}

/// Cancels the local half that runs on a worker, if there is a reason and it is time.
void WaitOwner::endLocal() noexcept {
    if (!isLocalRunning()) {
        return;
    }
    Ending& ending = localEnding_;
    const Reasons fresh = freshReasons(ending, isLocalEndedByRemote_);
    if ((fresh & kOtherEnded) != 0) {
        log_.debug("canceling local SCardGetStatusChange by invoking local SCardCancel");
        ending.isAnnounced = true;
        ending.schedule.start(wait_.isYoung(WaitSide::Local) ? kCancelOfYoung : kCancelOfOld);
    }
    if ((fresh & kReleased) != 0) {
        ending.schedule.start(kCancelBehindRelease);
    }
    if ((fresh & kCancelled) != 0) {
        ending.schedule.start(kCancelBehindApplication);
    }
    if ((fresh & kInterrupted) != 0) {
        ending.schedule.start(kCancelBehindMonitor);
    }
    if (ending.schedule.isDue()) {
        if (!std::exchange(ending.isAnnounced, false)) {
            log_.debug("canceling local SCardGetStatusChange again");
        }
        static_cast<void>(cancelSystemWait(local_.systemContext()));
        ending.schedule.advance();
    }
}

void WaitOwner::noteLocalEnd() noexcept {
    if (wait_.isLocalOver() && !std::exchange(isLocalEndNoted_, true)) {
        local_.logNewStates();
    }
}

}  // namespace tez
