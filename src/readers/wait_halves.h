#pragma once

#include "common/scard_api.h"
#include "daemon/service_state.h"
#include "log/function_log.h"
#include "readers/local_half.h"
#include "readers/reader_states.h"
#include "readers/remote_half.h"
#include "readers/wait_owner.h"
#include "state/waits.h"

namespace tez {

/// A call of SCardGetStatusChange whose arguments have been checked.
struct StatusChange {
    const FunctionLog& log;
    Wait& wait;  ///< in the registry since before the state was read
    ServiceState state;
    SCARDCONTEXT context;
    DWORD timeout;
    SCARD_READERSTATEA* entries;
    DWORD count;
};

/// The entries, the halves and their owner of one wait on the two sides. On the heap: should the
/// calling thread be terminated, the worker and the kernel must not write to where its stack was.
struct WaitHalves {
    explicit WaitHalves(const StatusChange& statusChange);

    struct Codes {
        LONG local;   ///< SCARD_S_SUCCESS for an empty half
        LONG remote;  ///< SCARD_E_NO_SERVICE when it was not run
    };

    /// Runs the halves whose entries have been filled in, and stores in the entries what the sides
    /// report. Throws std::bad_alloc.
    /// @param isSideBySide  whether one keeps the other waiting: a thread is handed over to only
    ///                      where there is something to run beside.
    /// @param isRemoteRun   whether the daemon is asked at all.
    Codes run(bool isSideBySide, bool isRemoteRun);

    const StatusChange& call;
    SCARDCONTEXT systemContext;
    SideEntries localEntries;
    SideEntries remoteEntries;
    LocalHalf local;
    RemoteHalf remote;
    WaitOwner owner;
};

}  // namespace tez
