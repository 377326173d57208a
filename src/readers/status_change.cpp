#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "common/local_buffer.h"
#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "log/call_frame.h"
#include "readers/local_wait.h"
#include "readers/reader_states.h"
#include "readers/remote_wait.h"
#include "state/pending_local_waits.h"
#include "state/reader_names.h"
#include "state/status_waits.h"

using namespace tez;

namespace {

struct StatusChange {
    const FunctionLog& log;
    std::uint64_t interruptions;  ///< countInterruptions(), read before the state
    ServiceState state;
    SCARDCONTEXT context;
    DWORD timeout;
    SCARD_READERSTATEA* entries;
    DWORD count;
};

/// The outcome of a call that ends before anything is waited for; nothing when it does not.
std::optional<LONG> checkArguments(const StatusChange& call) {
    if ((call.entries == nullptr && call.count != 0) || call.count > kMostReaders) {
        call.log.warning("Invalid parameter");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (call.count == 0) {
        call.log.debug("Reader list is empty");
        Sleep(call.timeout);
        return SCARD_S_SUCCESS;
    }
    SCARD_READERSTATEA* const end = call.entries + call.count;
    if (std::any_of(call.entries, end,
                    [](const auto& entry) { return entry.szReader == nullptr; })) {
        call.log.warning("Invalid value");
        return SCARD_E_INVALID_VALUE;
    }
    if (std::all_of(call.entries, end, [](const auto& entry) {
            return (entry.dwCurrentState & SCARD_STATE_IGNORE) != 0;
        })) {
        call.log.debug("All readers ignored");
        return SCARD_S_SUCCESS;
    }
    return std::nullopt;
}

void ensureReadersListed(const StatusChange& call) {
    if (wasListReadersCalled()) {
        return;
    }
    call.log.debug(
        "List readers was never called, let's call it to update the list of local and remote "
        "readers");
    DWORD length = 0;
    const LONG rv = SCardListReadersA(call.context, nullptr, nullptr, &length);
    if (rv == SCARD_S_SUCCESS && call.state != ServiceState::RemoteOnly &&
        !areLocalReaderNamesKnown()) {
        // When the daemon has no list to add to, the host is asked for a length as the caller is
        // asking for one, and tells no names. Without them its readers would be on neither side.
        LocalBuffer names;
        SCardListReadersA(call.context, nullptr, names.destination(), names.length());
    }
}

/// The side of each entry, as of one moment after the daemon came last.
std::vector<ReaderSide> sidesOf(const StatusChange& call) {
    std::vector<std::string_view> names;
    for (DWORD i = 0; i < call.count; ++i) {
        names.emplace_back(call.entries[i].szReader);
    }
    for (;;) {
        const ReaderListing listing = currentReaderListing();
        ensureReadersListed(call);
        std::vector<ReaderSide> sides = findReaderSides(names);
        if (listing == currentReaderListing()) {
            return sides;
        }
    }
}

/// Which entries each side waits on. A name that neither side reported is waited on by none.
void classify(const StatusChange& call, ReaderIndexes& local, ReaderIndexes& remote) {
    const std::vector<ReaderSide> sides = sidesOf(call);
    for (DWORD i = 0; i < call.count; ++i) {
        const bool isPnp = isPnpReader(call.entries[i].szReader);
        if (isPnp || sides[i] == ReaderSide::Local) {
            local.push_back(i);
        }
        if (isPnp || sides[i] == ReaderSide::Remote) {
            remote.push_back(i);
        }
    }
}

/// The remote result stands for a call whose local half failed, and a local success, an empty half
/// among them, makes the call succeed whatever the remote side said. Applications wait again on a
/// success without a change, but give up on errors; the asymmetry is intended.
LONG combine(const StatusChange& call, StatusWait& wait, LONG localRv, LONG remoteRv) {
    if (call.state == ServiceState::LocalOnly) {
        return localRv;
    }
    // The monitor has ended both halves, the remote one by a cancel: none of the application's.
    if (wait.isInterrupted() && !wait.isCancelled() && remoteRv == SCARD_E_CANCELLED) {
        return localRv;
    }
    return localRv == SCARD_S_SUCCESS ? SCARD_S_SUCCESS : remoteRv;
}

LONG waitOnBothSides(const StatusChange& call, StatusWait& wait) {
    ReaderIndexes localIndexes;
    ReaderIndexes remoteIndexes;
    classify(call, localIndexes, remoteIndexes);

    DWORD timeout = call.timeout;
    LONG localRv = SCARD_S_SUCCESS;
    const bool isServedLocally = call.state != ServiceState::RemoteOnly;
    const SCARDCONTEXT systemContext = isServedLocally ? getLocalContext(call.context) : 0;
    LocalWait local(call.context, systemContext, timeout, wait, call.interruptions);
    if (isServedLocally && systemContext == 0) {
        localRv = SCARD_E_INVALID_HANDLE;
    } else if (isServedLocally && !localIndexes.empty()) {
        local.start(call.entries, localIndexes, remoteIndexes.size());
    }

    const RemoteWait remote = {call.log,      call.state,          call.context, call.entries,
                               remoteIndexes, localIndexes.size(), wait};
    const LONG remoteRv =
        call.state == ServiceState::LocalOnly ? SCARD_E_NO_SERVICE : waitRemotely(remote, timeout);
    wait.markRemoteDone();
    call.log.debug("intermediate rv: 0x%08lX", static_cast<unsigned long>(remoteRv));
    if (call.state == ServiceState::RemoteOnly) {
        return remoteRv;
    }
    if (local.isStarted()) {
        // With a finite timeout the call returns when both sides have; nothing is cancelled.
        const bool hasRemoteChange =
            remoteRv == SCARD_S_SUCCESS && !remoteIndexes.empty() && timeout == INFINITE;
        localRv = local.finish(call.log, hasRemoteChange);
        call.log.debug("localRv: 0x%08lX", static_cast<unsigned long>(localRv));
        local.merge(call.entries);
    }
    return combine(call, wait, localRv, remoteRv);
}

LONG getStatusChange(const StatusChange& call) {
    if (!isContextKnown(call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    // Known before the mark is taken back: a cancel is either before this call, or for it.
    const StatusWaitInProgress inProgress(call.context);
    setContextCancelled(call.context, false);
    const std::optional<LONG> ended = checkArguments(call);
    return ended ? *ended : waitOnBothSides(call, *inProgress);
}

void logNewStates(const StatusChange& call) {
    for (DWORD i = 0; i < call.count; ++i) {
        const SCARD_READERSTATEA& entry = call.entries[i];
        call.log.debug("NEW READER STATE %lu: %s, curr:%s (%lu), event:%s (%lu), %u", i,
                       entry.szReader, formatReaderState(entry.dwCurrentState).c_str(),
                       entry.dwCurrentState, formatReaderState(entry.dwEventState).c_str(),
                       entry.dwEventState, static_cast<unsigned>(entry.cbAtr));
    }
}

}  // namespace

LONG WINAPI SCardGetStatusChangeA(SCARDCONTEXT hContext, DWORD dwTimeout,
                                  LPSCARD_READERSTATEA rgReaderStates, DWORD cReaders) {
    static constexpr CallFrame frame("SCardGetStatusChangeA", "GET_STATUS_CHANGE");
    const StatusChange call = {frame.log(), countInterruptions(), getServiceState(), hContext,
                               dwTimeout,   rgReaderStates,       cReaders};
    frame.in("%Ix, %lu, %p, %lu", hContext, dwTimeout, static_cast<void*>(rgReaderStates),
             cReaders);
    return frame.run([&call] { return getStatusChange(call); }, [&call] { logNewStates(call); });
}
