#include "state/waits.h"

#include <algorithm>
#include <new>
#include <utility>

#include "common/deadline.h"
#include "common/slim_lock.h"
#include "common/workers.h"
#include "local/local_calls.h"
#include "log/function_log.h"

namespace tez {

namespace {

constexpr ULONGLONG kYoung = 100;         // milliseconds
constexpr DWORD kReleasePatience = 1000;  // milliseconds
constexpr FunctionLog cancelLog("SCardCancel");

/// A list whose elements belong to others.
template <class Element>
void link(Element*& first, Element& element, Element* Element::*previous,
          Element* Element::*next) noexcept {
    element.*next = first;
    if (first != nullptr) {
        first->*previous = &element;
    }
    first = &element;
}

template <class Element>
void unlink(Element*& first, Element& element, Element* Element::*previous,
            Element* Element::*next) noexcept {
    if (element.*next != nullptr) {
        element.*next->*previous = element.*previous;
    }
    (element.*previous == nullptr ? first : element.*previous->*next) = element.*next;
}

}  // namespace

/// The waits in progress and the cancels under way, process-wide.
class WaitRegistry final : private Job {
    using CancelEntry = CancelInProgress::Entry;

  public:
    constexpr WaitRegistry() noexcept
        : Job([](Job& job) noexcept { static_cast<WaitRegistry&>(job).repeatCancels(); }) {}

    void enter(Wait& wait) noexcept {
        const SlimGuard guard(lock_);
        link(firstWait_, wait, &Wait::previous_, &Wait::next_);
    }
    void leave(Wait& wait) noexcept {
        const SlimGuard guard(lock_);
        unlink(firstWait_, wait, &Wait::previous_, &Wait::next_);
    }
    void enter(CancelEntry& cancel) noexcept {
        const SlimGuard guard(lock_);
        link(firstCancel_, cancel, &CancelEntry::previous, &CancelEntry::next);
    }
    void leave(CancelEntry& cancel) noexcept {
        const SlimGuard guard(lock_);
        unlink(firstCancel_, cancel, &CancelEntry::previous, &CancelEntry::next);
        forEachWait([&cancel](Wait& wait) {
            Wait::Half& half = wait.half(cancel.side);
            if (half.isInProgress && half.context == cancel.context) {
                half.isDisturbed = true;
            }
        });
    }

    /// Runs access(wait's fields) under the lock.
    template <class Access>
    auto with(Access access) noexcept {
        const SlimGuard guard(lock_);
        return access();
    }

    static void begin(Wait& wait, WaitSide side, std::uint64_t context) noexcept {
        wait.half(side) = {true, false, wait.half(side).isUnwanted, context, GetTickCount64()};
    }

    HalfEnd end(Wait& wait, WaitSide side) noexcept {
        const SlimGuard guard(lock_);
        Wait::Half& half = wait.half(side);
        bool isDisturbed = half.isDisturbed;
        for (CancelEntry* cancel = firstCancel_; cancel != nullptr; cancel = cancel->next) {
            isDisturbed = isDisturbed || (cancel->side == side && cancel->context == half.context);
        }
        half.isInProgress = false;
        half.context = 0;
        if (side == WaitSide::Local) {
            wait.isOwnThreadInside_ = false;
            changed_.notifyAll();
        }
        return {wait.orders_, isDisturbed && !half.isUnwanted && !wait.orders_.isToEnd()};
    }

    void cancel(SCARDCONTEXT context) noexcept {
        tell(&WaitOrders::isCancelled, kCancelBehindApplication,
             [context](const Wait& wait) { return wait.context_ == context; });
    }

    void release(SCARDCONTEXT context) noexcept {
        tell(&WaitOrders::isReleased, kCancelBehindRelease,
             [context](const Wait& wait) { return wait.context_ == context; });
    }

    void interrupt(bool all) noexcept {
        tell(&WaitOrders::isInterrupted, kCancelBehindMonitor, [all](Wait& wait) {
            const bool isMeant = (all || wait.isWithoutDaemon_) && !wait.isUndisturbed_;
            wait.isToBeCancelled_ = isMeant;
            return isMeant;
        });
    }

    void markLocalOver(Wait& wait) noexcept {
        const SlimGuard guard(lock_);
        wait.isLocalOver_ = true;
        wake(wait);
    }

    /// The system context of a wait's local half that the monitor has to cancel; 0: none is left.
    /// One cancel ends all the waits on a context.
    SCARDCONTEXT takeToBeCancelled() noexcept {
        const SlimGuard guard(lock_);
        SCARDCONTEXT found = 0;
        forEachWait([&found](Wait& wait) {
            if (!wait.isToBeCancelled_) {
                return;
            }
            if (found == 0 && wait.local_.isInProgress) {
                found = wait.local_.context;
            }
            if (!wait.local_.isInProgress || wait.local_.context == found) {
                wait.isToBeCancelled_ = false;
            }
        });
        return found;
    }

    /// The system context that a wait of an application's context is inside with; 0: none is.
    SCARDCONTEXT findSystemContextInUse(SCARDCONTEXT context) noexcept {
        const SlimGuard guard(lock_);
        return systemContextInUse(context);
    }

    void awaitNoneInside(SCARDCONTEXT context, DWORD patience) noexcept {
        const Deadline deadline(patience);
        const SlimGuard guard(lock_);
        for (DWORD remaining = patience; remaining != 0 && systemContextInUse(context) != 0;
             remaining = deadline.remaining()) {
            changed_.wait(lock_, remaining);
        }
    }

  private:
    /// Gives an order to the waits that are meant.
    template <class IsMeant>
    void tell(bool WaitOrders::*order, CancelPace pace, IsMeant isMeant) noexcept {
        bool isToRepeat = false;
        {
            const SlimGuard guard(lock_);
            forEachWait([&](Wait& wait) {
                if (!isMeant(wait)) {
                    return;
                }
                wait.orders_.*order = true;
                wake(wait);
                if (wait.isOwnThreadInside_) {
                    wait.repeats_.start(pace);
                    isToRepeat = true;
                }
            });
            changed_.notifyAll();
            isToRepeat = isToRepeat && !isRepeating_;
            isRepeating_ = isRepeating_ || isToRepeat;
        }
        if (isToRepeat && !runOnWorker(*this)) {
            const SlimGuard guard(lock_);
            isRepeating_ = false;
            cancelLog.warning("Could not see to it that the waits end");
        }
    }

    static void wake(const Wait& wait) noexcept {
        if (wait.wake_ != nullptr) {
            SetEvent(wait.wake_.get());
        }
    }

    template <class Visit>
    void forEachWait(Visit visit) noexcept TEZ_REQUIRES(lock_) {
        for (Wait* wait = firstWait_; wait != nullptr; wait = wait->next_) {
            visit(*wait);
        }
    }

    SCARDCONTEXT systemContextInUse(SCARDCONTEXT context) noexcept TEZ_REQUIRES(lock_) {
        SCARDCONTEXT found = 0;
        forEachWait([&](Wait& wait) {
            if (wait.context_ == context && wait.local_.isInProgress) {
                found = wait.local_.context;
            }
        });
        return found;
    }

    /// Repeats, on a worker, the cancels of the waits whose own thread is inside the system
    /// library, until none of those that have been told to end is.
    void repeatCancels() noexcept {
        for (;;) {
            SCARDCONTEXT due = 0;
            {
                const SlimGuard guard(lock_);
                DWORD pause = INFINITE;
                forEachWait([&](Wait& wait) {
                    if (!wait.isOwnThreadInside_) {
                        return;
                    }
                    if (due == 0 && wait.repeats_.isDue()) {
                        due = wait.local_.context;
                        wait.repeats_.advance();
                    }
                    pause = std::min(pause, wait.repeats_.pause());
                });
                if (due == 0 && pause == INFINITE) {
                    isRepeating_ = false;
                    return;
                }
                if (due == 0) {
                    changed_.wait(lock_, pause);
                    continue;
                }
            }
            cancelLog.debug("canceling local SCardGetStatusChange again");
            static_cast<void>(cancelSystemWait(due));
        }
    }

    SlimLock lock_;
    SlimCondition changed_;
    Wait* firstWait_ TEZ_GUARDED_BY(lock_) = nullptr;
    CancelEntry* firstCancel_ TEZ_GUARDED_BY(lock_) = nullptr;
    bool isRepeating_ TEZ_GUARDED_BY(lock_) = false;
};

namespace {

constinit WaitRegistry registry;

}  // namespace

Wait::Wait(SCARDCONTEXT context) noexcept : context_(context) {
    registry.enter(*this);
}

Wait::~Wait() {
    registry.leave(*this);
}

WaitOrders Wait::orders() const noexcept {
    return registry.with([this] { return orders_; });
}

void Wait::openWake() {
    if (wake_ != nullptr) {
        return;
    }
    OwnedHandle wake(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    if (wake == nullptr) {
        throw std::bad_alloc();
    }
    registry.with([&] { wake_ = std::move(wake); });
}

void Wait::resume() noexcept {
    registry.with([this] {
        orders_.isInterrupted = false;
        isToBeCancelled_ = false;
    });
}

void Wait::forgetHalves() noexcept {
    registry.with([this] {
        local_ = {};
        remote_ = {};
        isLocalOver_ = false;
        isWithoutDaemon_ = false;
    });
}

LocalStart Wait::beginLocal(SCARDCONTEXT systemContext, bool isOwnThread) noexcept {
    return registry.with([&] {
        if (orders_.isToEnd()) {
            return LocalStart::Refuse;
        }
        WaitRegistry::begin(*this, WaitSide::Local, systemContext);
        isOwnThreadInside_ = isOwnThread;
        repeats_ = {};
        return local_.isUnwanted ? LocalStart::Ask : LocalStart::Wait;
    });
}

HalfEnd Wait::endLocal() noexcept {
    return registry.end(*this, WaitSide::Local);
}

void Wait::markLocalOver() noexcept {
    registry.markLocalOver(*this);
}

bool Wait::isLocalOver() const noexcept {
    return registry.with([this] { return isLocalOver_; });
}

void Wait::markUnwanted(WaitSide side) noexcept {
    registry.with([&] { half(side).isUnwanted = true; });
}

void Wait::beginRemote(std::uint64_t remoteContext) noexcept {
    registry.with([&] { WaitRegistry::begin(*this, WaitSide::Remote, remoteContext); });
}

HalfEnd Wait::endRemote() noexcept {
    return registry.end(*this, WaitSide::Remote);
}

bool Wait::isYoung(WaitSide side) const noexcept {
    return registry.with([&] {
        const Half& which = side == WaitSide::Local ? local_ : remote_;
        return !which.isInProgress || GetTickCount64() - which.begun < kYoung;
    });
}

void Wait::markWithoutDaemon() noexcept {
    registry.with([this] { isWithoutDaemon_ = true; });
}

void Wait::setUndisturbed(bool isUndisturbed) noexcept {
    registry.with([&] { isUndisturbed_ = isUndisturbed; });
}

CancelInProgress::CancelInProgress(WaitSide side, std::uint64_t context) noexcept
    : entry_(new (std::nothrow) Entry{side, context, nullptr, nullptr}) {
    if (entry_ != nullptr) {
        registry.enter(*entry_);
    }
}

CancelInProgress::~CancelInProgress() {
    if (entry_ != nullptr) {
        registry.leave(*entry_);
    }
}

LONG cancelSystemWait(SCARDCONTEXT systemContext) noexcept {
    const CancelInProgress mark(WaitSide::Local, systemContext);
    return LocalSCardCancel(systemContext);
}

void cancelWaits(SCARDCONTEXT context) noexcept {
    registry.cancel(context);
}

void endWaitsOfReleased(SCARDCONTEXT context) noexcept {
    registry.release(context);
    if (const SCARDCONTEXT systemContext = registry.findSystemContextInUse(context)) {
        static_cast<void>(cancelSystemWait(systemContext));
        registry.awaitNoneInside(context, kReleasePatience);
    }
}

void endWaitsBegunInRelease(SCARDCONTEXT context) noexcept {
    registry.release(context);
}

void cancelPendingLocalWaits(bool all) noexcept {
    registry.interrupt(all);
    // Not under the lock: a system library that takes its time must not hold the waits up.
    while (const SCARDCONTEXT systemContext = registry.takeToBeCancelled()) {
        static_cast<void>(cancelSystemWait(systemContext));
    }
}

}  // namespace tez
