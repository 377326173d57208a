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
#include "readers/local_half.h"
#include "readers/reader_states.h"
#include "readers/remote_half.h"
#include "readers/wait_owner.h"
#include "state/reader_names.h"
#include "state/waits.h"

using namespace tez;

namespace {

struct StatusChange {
    const FunctionLog& log;
    Wait& wait;  ///< in the registry since before the state was read
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

/// The entries, the halves and their owner of one call. On the heap: should the calling thread be
/// terminated, the worker and the kernel must not write to where its stack was.
struct Halves {
    explicit Halves(const StatusChange& call)
        : systemContext(call.state == ServiceState::RemoteOnly ? 0 : getLocalContext(call.context)),
          local(systemContext, call.timeout, call.wait),
          remote(call.log, call.state, call.entries, remoteIndexes, localIndexes),
          owner(call.log, call.context, call.timeout, call.wait, local, remote) {}

    SCARDCONTEXT systemContext;
    ReaderIndexes localIndexes;
    ReaderIndexes remoteIndexes;
    LocalHalf local;
    RemoteHalf remote;
    WaitOwner owner;
};

/// Whether the halves run one behind the other on the calling thread, as neither keeps the other
/// waiting. A thread is handed over to only where there is something to run beside.
bool isSequential(const StatusChange& call, const RemoteHalf& remote) {
    return call.state == ServiceState::LocalOnly || call.timeout == 0 ||
           (remote.isEmpty() && getBoundRemoteContext(call.context) != NO_REMOTE_CONTEXT);
}

LONG waitOnBothSides(const StatusChange& call) {
    const auto halves = std::make_unique<Halves>(call);
    LocalHalf& local = halves->local;
    RemoteHalf& remote = halves->remote;
    classify(call, halves->localIndexes, halves->remoteIndexes);
    if (halves->systemContext != 0) {
        local.prepare(call.entries, halves->localIndexes, halves->remoteIndexes.size());
    }
    if (!isSequential(call, remote)) {
        call.wait.openWake();
        local.startOnWorker();
    } else if (call.timeout == 0) {
        local.runHere();
    }

    const LONG remoteRv =
        call.state == ServiceState::LocalOnly ? SCARD_E_NO_SERVICE : halves->owner.runRemote();
    call.log.debug("intermediate rv: 0x%08lX", static_cast<unsigned long>(remoteRv));
    if (call.state == ServiceState::RemoteOnly) {
        return remoteRv;
    }
    LONG localRv = halves->systemContext == 0 ? SCARD_E_INVALID_HANDLE : SCARD_S_SUCCESS;
    if (!local.isEmpty()) {
        localRv = halves->owner.finishLocal(remoteRv);
        call.log.debug("localRv: 0x%08lX", static_cast<unsigned long>(localRv));
        local.merge(call.entries);
    }
    return combine(call, localRv, remoteRv);
}

LONG getStatusChange(const StatusChange& call) {
    if (!isContextKnown(call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    setContextCancelled(call.context, false);
    const std::optional<LONG> ended = checkArguments(call);
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
