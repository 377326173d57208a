#include <algorithm>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <vector>

#include "common/local_buffer.h"
#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "log/call_frame.h"
#include "log/switches.h"
#include "readers/reader_states.h"
#include "readers/standard_wait.h"
#include "readers/wait_halves.h"
#include "state/reader_names.h"
#include "state/waits.h"

using namespace tez;

namespace {

LONG checkArguments(const StatusChange& call) {
    if ((call.entries == nullptr && call.count != 0) || call.count > mostReaders()) {
        call.log.warning("Invalid parameter");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (std::any_of(call.entries, call.entries + call.count,
                    [](const auto& entry) { return entry.szReader == nullptr; })) {
        call.log.warning("Invalid value");
        return SCARD_E_INVALID_VALUE;
    }
    return SCARD_S_SUCCESS;
}

/// The outcome of a call that has nothing to wait for; nothing when it has.
std::optional<LONG> endWithoutReaders(const StatusChange& call) {
    if (call.count == 0) {
        call.log.debug("Reader list is empty");
        Sleep(call.timeout);
        return SCARD_S_SUCCESS;
    }
    if (std::all_of(call.entries, call.entries + call.count, [](const auto& entry) {
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
    SCardListReadersA(call.context, nullptr, nullptr, &length);
    if (areLocalReaderNamesUntold()) {
        // The daemon has no list to add to, so the host was asked for a length as the caller was
        // asking for one, and has told no names. Without them its readers would be on neither side.
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

/// How many of a side's entries are readers when the pseudo-reader is one of them.
std::size_t withoutPnpReader(std::size_t entries) {
    return entries == 0 ? 0 : entries - 1;
}

/// Which entries each side waits on. A name that neither side reported is waited on by none.
void classify(const StatusChange& call, SideEntries& local, SideEntries& remote) {
    const std::vector<ReaderSide> sides = sidesOf(call);
    for (DWORD i = 0; i < call.count; ++i) {
        const bool isPnp = isPnpReader(call.entries[i].szReader);
        if (isPnp || sides[i] == ReaderSide::Local) {
            local.indexes.push_back(i);
        }
        if (isPnp || sides[i] == ReaderSide::Remote) {
            remote.indexes.push_back(i);
        }
    }
    local.othersReaders = withoutPnpReader(remote.indexes.size());
    remote.othersReaders = withoutPnpReader(local.indexes.size());
}

/// The remote result stands for a call whose local half failed, and a local success, an empty half
/// among them, makes the call succeed whatever the remote side said. Applications wait again on a
/// success without a change, but give up on errors; the asymmetry is intended.
LONG combine(const StatusChange& call, LONG localRv, LONG remoteRv) {
    if (call.state == ServiceState::LocalOnly) {
        return localRv;
    }
    const WaitOrders orders = call.wait.orders();
    // Nothing is there any more that could be waited on again: no success of a side without readers
    // in the call hides that.
    if (orders.isReleased) {
        return localRv == SCARD_S_SUCCESS ? remoteRv : localRv;
    }
    // The monitor has ended both halves, the remote one by a cancel: none of the application's.
    if (orders.isInterrupted && !orders.isCancelled && remoteRv == SCARD_E_CANCELLED) {
        return localRv;
    }
    return localRv == SCARD_S_SUCCESS ? SCARD_S_SUCCESS : remoteRv;
}

/// Whether the halves run one behind the other on the calling thread, as neither keeps the other
/// waiting.
bool isSequential(const StatusChange& call, const RemoteHalf& remote) {
    return call.state == ServiceState::LocalOnly || call.timeout == 0 ||
           (remote.isEmpty() && getBoundRemoteContext(call.context) != NO_REMOTE_CONTEXT);
}

LONG waitOnBothSides(const StatusChange& call) {
    const auto halves = std::make_unique<WaitHalves>(call);
    classify(call, halves->localEntries, halves->remoteEntries);
    if (halves->systemContext == 0 || halves->localEntries.indexes.empty()) {
        // What the monitor ends is the host's half, and with it the call, which would else be deaf
        // to the host's readers. Without such a half it has nothing to end.
        call.wait.setUndisturbed(true);
        call.wait.resume();
    }
    const auto [localRv, remoteRv] =
        halves->run(!isSequential(call, halves->remote), call.state != ServiceState::LocalOnly);
    if (call.state == ServiceState::RemoteOnly) {
        return remoteRv;
    }
    return combine(call, halves->systemContext == 0 ? SCARD_E_INVALID_HANDLE : localRv, remoteRv);
}

LONG getStatusChange(const StatusChange& call) {
    if (!isContextKnown(call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    setContextCancelled(call.context, false);
    const LONG rv = checkArguments(call);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (isStandardCallsEnabled()) {
        return waitAsOneSystem(call);
    }
    const std::optional<LONG> ended = endWithoutReaders(call);
    return ended ? *ended : waitOnBothSides(call);
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
    const std::unique_ptr<Wait> wait(new (std::nothrow) Wait(hContext));
    const ServiceState state = getServiceState();
    frame.in("%Ix, %lu, %p, %lu", hContext, dwTimeout, static_cast<void*>(rgReaderStates),
             cReaders);
    if (wait == nullptr) {
        return frame.run([] { return SCARD_E_NO_MEMORY; });
    }
    const StatusChange call = {frame.log(), *wait,          state,   hContext,
                               dwTimeout,   rgReaderStates, cReaders};
    return frame.run([&call] { return getStatusChange(call); }, [&call] { logNewStates(call); });
}
