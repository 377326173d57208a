#pragma once

#include <optional>
#include <vector>

#include "common/scard_api.h"
#include "daemon/exchange.h"
#include "daemon/service_state.h"
#include "readers/reader_states.h"
#include "wire/reader_records.h"

namespace tez {

/// The remote half of a status-change call: the exchange with the daemon over the application's
/// entries. Used by the call's own thread, which waits for the answer together with other things.
class RemoteHalf {
  public:
    /// @param log      of the exported call.
    /// @param entries  to be filled in before anything is called.
    RemoteHalf(const FunctionLog& log, ServiceState state, const SideEntries& entries)
        : log_(log), state_(state), entries_(entries) {}

    bool isEmpty() const noexcept { return entries_.indexes.empty(); }

    /// Makes the records of the entries. SCARD_E_INVALID_VALUE when a name does not fit; throws
    /// std::bad_alloc.
    [[nodiscard]] LONG prepare();

    /// Takes a connection from the pool. False when there is none that is open.
    bool connect();

    /// Sends the request and begins to wait for the answer. May be repeated after finish.
    [[nodiscard]] LONG send(std::uint64_t remoteContext, DWORD timeout);
    /// An event that is set when the answer is there.
    HANDLE answered() const noexcept { return exchange_->received(); }
    /// Takes the answer and stores what the daemon reports in the entries. Returns the daemon's
    /// code or the failure's.
    [[nodiscard]] LONG finish();
    /// Whether the daemon's answer to the last request was received whole; else what finish
    /// returned is the transport's code.
    bool hasAnswered() const noexcept { return hasAnswered_; }
    /// Waits for the answer no longer: closes the connection.
    void giveUp() noexcept { exchange_.reset(); }

  private:
    bool fillRecord(const SCARD_READERSTATEA& entry, ReaderStateRecord& record) const;
    void storeRecord(DWORD index, ReaderStateRecord& reader) const;

    const FunctionLog& log_;
    ServiceState state_;
    const SideEntries& entries_;
    std::vector<ReaderStateRecord> readers_;
    StatusChangeRecord record_ = {};
    bool hasAnswered_ = false;
    std::optional<Exchange> exchange_;  // behind the record, which it may be reading into
};

}  // namespace tez
