#pragma once

#include "common/scard_api.h"
#include "daemon/service_state.h"
#include "readers/reader_states.h"
#include "state/status_wait.h"

namespace tez {

/// What the remote half of a status-change call works on.
struct RemoteWait {
    const FunctionLog& log;
    ServiceState state;
    SCARDCONTEXT context;          ///< the application's
    SCARD_READERSTATEA* entries;   ///< the application's array
    const ReaderIndexes& indexes;  ///< the entries that the daemon serves
    std::size_t localIndexes;      ///< the number of entries that the local half has
    StatusWait& wait;
};

/// Runs the remote half on the calling thread and stores what the daemon reports in the entries.
/// While the daemon is away it is waited for, until the timeout is over or the context is
/// cancelled.
/// @param timeout  milliseconds or INFINITE; out: what remains for the wait itself.
/// @return the daemon's code or the failure's; never throws.
LONG waitRemotely(const RemoteWait& call, DWORD& timeout) noexcept;

}  // namespace tez
