#pragma once

#include <cstdint>
#include <memory>

#include "common/owned_handle.h"
#include "common/scard_api.h"
#include "state/cancel_schedule.h"

namespace tez {

/// The two that a status-change call waits on at once.
enum class WaitSide { Local, Remote };

/// What other threads tell a wait. Only the wait itself takes an interruption back, by going on.
struct WaitOrders {
    bool isCancelled = false;    ///< by the application
    bool isInterrupted = false;  ///< by the service monitor: the daemon has come, or gone
    bool isReleased = false;     ///< its context is about to go

    bool isToEnd() const noexcept { return isCancelled || isInterrupted || isReleased; }
};

/// How the local half of a wait may call the system library.
enum class LocalStart {
    Wait,   ///< for as long as it takes
    Ask,    ///< without waiting: the call ends anyway, and only the present states are of use
    Refuse  ///< not at all: the wait has been told to end
};

/// How a half of a wait has ended.
struct HalfEnd {
    WaitOrders orders;
    /// A cancel of this library was under way on the half's context, and none was meant for it: if
    /// it ended as cancelled, it was cancelled for another wait, and begins again.
    bool isForAnotherWait;
};

/// A status-change call in progress. It belongs to the calling thread, which decides alone how its
/// halves end; other threads find it in the one registry of waits and tell it what they want. On
/// the heap, not on that thread's stack: applications are known to terminate threads that wait,
/// and the registry must not lead to where a stack was. All members hold the registry's lock.
class Wait {
  public:
    /// Enters the registry. To be made before the call looks at the service state, so that the
    /// monitor, which stores a new state before it interrupts the waits, misses none.
    /// @param context  the application's.
    explicit Wait(SCARDCONTEXT context) noexcept;
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;
    /// Leaves it. No half may be in progress.
    ~Wait();

    WaitOrders orders() const noexcept;

    /// Goes on with an interrupted wait: what interrupted it is looked at afresh from here on.
    void resume() noexcept;

    /// Forgets the halves of a wait that is to run others. None may be in progress.
    void forgetHalves() noexcept;

    /// Makes the event that is set whenever the wait is told something or its local half ends,
    /// unless there is one; a wait that only asks needs none. Throws std::bad_alloc.
    void openWake();
    /// Null until it is made.
    HANDLE wake() const noexcept { return wake_.get(); }

    /// To be called right before the system library's wait, and again when it begins again.
    /// @param isOwnThread  whether the call's own thread is to be inside of it, so that the
    ///                     registry sees to it that a cancel of it is repeated.
    LocalStart beginLocal(SCARDCONTEXT systemContext, bool isOwnThread) noexcept;
    HalfEnd endLocal() noexcept;
    /// The local half will not begin again. As soon as this is seen the wait may be gone.
    void markLocalOver() noexcept;
    bool isLocalOver() const noexcept;
    /// The other half ends the call: this one is not to wait any more.
    void markUnwanted(WaitSide side) noexcept;

    /// To be called right before the request goes out.
    void beginRemote(std::uint64_t remoteContext) noexcept;
    HalfEnd endRemote() noexcept;

    /// Whether a half began so recently, if it has begun, that a cancel may come before it.
    bool isYoung(WaitSide side) const noexcept;

    /// The call does not hear of the daemon's readers, or not any more.
    void markWithoutDaemon() noexcept;
    /// Whether the daemon's coming and going is nothing to the call.
    void setUndisturbed(bool isUndisturbed) noexcept;

  private:
    friend class WaitRegistry;

    struct Half {
        bool isInProgress = false;
        bool isDisturbed = false;
        bool isUnwanted = false;
        std::uint64_t context = 0;  ///< the side's own
        ULONGLONG begun = 0;
    };

    Half& half(WaitSide side) noexcept { return side == WaitSide::Local ? local_ : remote_; }

    Wait* previous_ = nullptr;
    Wait* next_ = nullptr;
    const SCARDCONTEXT context_;
    OwnedHandle wake_;
    WaitOrders orders_;
    Half local_;
    Half remote_;
    bool isLocalOver_ = false;
    bool isWithoutDaemon_ = false;
    bool isUndisturbed_ = false;
    bool isOwnThreadInside_ = false;  ///< in the system library
    bool isToBeCancelled_ = false;    ///< by the monitor, which is on its way
    CancelSchedule repeats_;          ///< while the own thread is inside
};

/// Stands for a cancel on a context of one of the sides, from before it goes out until it has been
/// carried out, so that the waits for which it is not meant know of it. Without memory they do not.
class CancelInProgress {
  public:
    CancelInProgress(WaitSide side, std::uint64_t context) noexcept;
    CancelInProgress(const CancelInProgress&) = delete;
    CancelInProgress& operator=(const CancelInProgress&) = delete;
    ~CancelInProgress();

  private:
    friend class WaitRegistry;

    /// On the heap for the same reason as a wait.
    struct Entry {
        WaitSide side;
        std::uint64_t context;
        Entry* previous;
        Entry* next;
    };

    std::unique_ptr<Entry> entry_;
};

// What other threads do with the waits in progress. Any thread may call; no lock may be held.

/// The system library's SCardCancel, known to the waits. Returns its code.
[[nodiscard]] LONG cancelSystemWait(SCARDCONTEXT systemContext) noexcept;

/// Tells the waits of an application's context that it is cancelled, and none that begins later.
/// The cancels themselves are the caller's; what they miss, the waits see to.
void cancelWaits(SCARDCONTEXT context) noexcept;

/// Ends the waits of an application's context that is about to be released: returns when none of
/// them is inside the system library any more, or after a second.
void endWaitsOfReleased(SCARDCONTEXT context) noexcept;

/// Tells the waits that began while their context was being released, of which there can be no more
/// once it is not registered any longer: what they asked for is gone.
void endWaitsBegunInRelease(SCARDCONTEXT context) noexcept;

/// The daemon has come, or gone: interrupts the host's half of every wait in progress, and with it
/// the wait, unless that is undisturbed.
/// @param all  false: only the waits that do not hear of the daemon's readers.
void cancelPendingLocalWaits(bool all) noexcept;

}  // namespace tez
