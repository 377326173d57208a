#pragma once

#include <cstdint>
#include <optional>

#include "daemon/exchange.h"
#include "state/waits.h"
#include "wire/card_records.h"

namespace tez {

/// A CANCEL that asks the daemon to end a status change. Its sender does not wait for the answer
/// alone: the daemon may end the wait, which is what counts, and never answer this.
class RemoteCancel {
  public:
    RemoteCancel() = default;
    RemoteCancel(const RemoteCancel&) = delete;
    RemoteCancel& operator=(const RemoteCancel&) = delete;
    /// An answer that is still to come is awaited for a moment, then given up with its pipe.
    ~RemoteCancel();

    /// Sends the request on a connection of its own, unless one is under way. A failure is logged.
    void send(const FunctionLog& log, std::uint64_t remoteContext) noexcept;

    bool isUnderWay() const noexcept { return exchange_.has_value(); }
    /// An event that is set when the answer is there. To be asked for while it is under way.
    HANDLE answered() const noexcept { return exchange_->received(); }
    /// Takes the answer; its code is of no use. Frees the connection.
    void finish() noexcept;

  private:
    HandleRecord record_ = {};
    std::optional<CancelInProgress> mark_;
    std::optional<Exchange> exchange_;  // behind the record, which it may be reading into
};

}  // namespace tez
