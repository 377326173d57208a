#pragma once

#include <optional>

#include "common/deadline.h"
#include "common/scard_api.h"
#include "log/function_log.h"
#include "readers/local_half.h"
#include "readers/remote_cancel.h"
#include "readers/remote_half.h"
#include "state/cancel_schedule.h"
#include "state/waits.h"

namespace tez {

/// The one who waits in a status-change call: the calling thread. It runs the remote half, waits
/// for the local one, hears what other threads tell the wait, and decides alone which half is
/// cancelled and when that is repeated.
class WaitOwner {
  public:
    /// @param log      of the exported call.
    /// @param context  the application's.
    WaitOwner(const FunctionLog& log, SCARDCONTEXT context, DWORD timeout, Wait& wait,
              LocalHalf& local, RemoteHalf& remote)
        : log_(log),
          context_(context),
          timeout_(timeout),
          wait_(wait),
          local_(local),
          remote_(remote) {}
    WaitOwner(const WaitOwner&) = delete;
    WaitOwner& operator=(const WaitOwner&) = delete;
    ~WaitOwner() = default;

    /// Runs the remote half. While the daemon is away it is waited for, until the time is over or
    /// the call ends otherwise.
    /// @return the daemon's code or the failure's.
    [[nodiscard]] LONG runRemote() noexcept;

    /// For a remote half that is over: whether the daemon was not reached or its answer was lost.
    bool isRemoteLost() const noexcept { return isRemoteLost_; }

    /// Waits for the end of the local half, which is cancelled when the remote one ends the call.
    /// @param remoteRv  what runRemote returned.
    /// @return the local half's code.
    [[nodiscard]] LONG finishLocal(LONG remoteRv) noexcept;

  private:
    /// Why a half is to end; several may hold.
    using Reasons = unsigned;
    static constexpr Reasons kOtherEnded = 1;  ///< the other half has: see endsOther
    static constexpr Reasons kCancelled = 2;
    static constexpr Reasons kInterrupted = 4;
    static constexpr Reasons kReleased = 8;

    /// A half that is being ended.
    struct Ending {
        Reasons reasons = 0;
        CancelSchedule schedule;
        bool isAnnounced = false;  ///< the log has told of the cancel that is due next
    };

    [[nodiscard]] LONG askDaemon();
    [[nodiscard]] LONG awaitRemoteContext(std::uint64_t& remoteContext);
    [[nodiscard]] LONG awaitAnswer();
    bool rest(HANDLE answer, DWORD limit);

    bool isLocalRunning() const noexcept { return local_.isOnWorker() && !wait_.isLocalOver(); }
    bool endsOther(LONG rv) const noexcept;
    bool isRemoteEndedByLocal() const noexcept;
    Reasons freshReasons(Ending& ending, bool isEndedByOther) const noexcept;
    bool isRemoteToEnd() noexcept;
    void endRemote() noexcept;
    void endLocal() noexcept;
    void noteLocalEnd() noexcept;

    const FunctionLog& log_;
    SCARDCONTEXT context_;
    DWORD timeout_;
    Wait& wait_;
    LocalHalf& local_;
    RemoteHalf& remote_;

    std::optional<std::uint64_t> remoteContext_;  ///< of the request that is out
    bool isRemoteLost_ = false;
    bool isLocalEndedByRemote_ = false;
    bool isLocalEndNoted_ = false;
    Ending localEnding_;
    Ending remoteEnding_;
    std::optional<Deadline> releasePatience_;
    RemoteCancel remoteCancel_;
};

}  // namespace tez
