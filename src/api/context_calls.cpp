#include "common/scard_api.h"
#include "context/availability_monitor.h"
#include "context/context_registry.h"
#include "context/remote_context.h"
#include "context/routing.h"
#include "daemon/service_state.h"
#include "local/local_calls.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "state/told_readers.h"
#include "state/waits.h"

using namespace tez;

namespace {

/// Whether the daemon alone is enough for a context that the host refuses with this code. The
/// monitor makes the system side as soon as it can.
bool doesDaemonDo(LONG rv) {
    return isNoService(rv) && getServiceState() == ServiceState::LocalFirst &&
           isStandardCallsEnabled();
}

}  // namespace

LONG WINAPI SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2,
                                  LPSCARDCONTEXT phContext) {
    static constexpr CallFrame call("SCardEstablishContext", "ESTABLISH_CONTEXT");
    call.in("%lu, %p, %p", dwScope, pvReserved1, pvReserved2);
    return call.run(
        [&]() -> LONG {
            if (phContext == nullptr) {
                return SCARD_E_INVALID_PARAMETER;
            }
            ensurePollThreadStarted();
            SCARDCONTEXT systemHandle = 0;
            if (getServiceState() != ServiceState::RemoteOnly) {
                // By default no fallback: a context without its system side could not serve the
                // host's readers. The daemon's side is made when it is first needed.
                const LONG rv =
                    LocalSCardEstablishContext(dwScope, pvReserved1, pvReserved2, &systemHandle);
                if (rv != SCARD_S_SUCCESS && !doesDaemonDo(rv)) {
                    return rv;
                }
            }
            try {
                *phContext = registerContext(systemHandle, dwScope);
            } catch (...) {
                if (systemHandle != 0) {
                    static_cast<void>(
                        callSystem(&WinscardTable::SCardReleaseContext, systemHandle));
                }
                throw;
            }
            return SCARD_S_SUCCESS;
        },
        [&] { call.out("%Ix", *phContext); });
}

LONG WINAPI SCardReleaseContext(SCARDCONTEXT hContext) {
    static constexpr CallFrame call("SCardReleaseContext", "RELEASE_CONTEXT");
    const ServiceState state = getServiceState();
    call.in("%Ix", hContext);
    return call.run([&]() -> LONG {
        if (!isContextKnown(hContext)) {
            return SCARD_E_INVALID_HANDLE;
        }
        endWaitsOfReleased(hContext);
        LONG rv = SCARD_S_SUCCESS;
        const SCARDCONTEXT systemHandle = getLocalContext(hContext);
        if (systemHandle != 0 && state != ServiceState::RemoteOnly) {
            rv = callSystem(&WinscardTable::SCardReleaseContext, systemHandle);
        }
        // A failing system release keeps nothing alive: the application is done with the handle.
        if (const auto entry = unregisterContext(hContext)) {
            endWaitsBegunInRelease(hContext);
            if (systemHandle == 0 && entry->systemHandle != 0) {
                // The monitor has given it one since.
                static_cast<void>(
                    callSystem(&WinscardTable::SCardReleaseContext, entry->systemHandle));
            }
            if (entry->remote != NO_REMOTE_CONTEXT) {
                static_cast<void>(releaseRemoteContext(entry->remote, true));
            }
            if (entry->remoteLocal != NO_REMOTE_CONTEXT &&
                getServiceState() == ServiceState::RemoteOnly) {
                static_cast<void>(releaseRemoteContext(entry->remoteLocal, false));
            }
        }
        forgetToldReaders(hContext);
        return rv;
    });
}

LONG WINAPI SCardIsValidContext(SCARDCONTEXT hContext) {
    static constexpr CallFrame call("SCardIsValidContext", "IS_VALID_CONTEXT");
    const ServiceState state = getServiceState();
    call.in("%Ix", hContext);
    return call.run([&]() -> LONG {
        // The daemon is never asked: a context that it lost with its pipe stays valid and gets a
        // new counterpart there on its next remote use.
        if (state == ServiceState::RemoteOnly) {
            return isContextKnown(hContext) ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
        }
        const SCARDCONTEXT systemContext = getLocalContext(hContext);
        if (systemContext == 0) {
            // Valid all the same, if it may be without.
            return hostlessResult(hContext) == SCARD_E_NO_SERVICE ? SCARD_S_SUCCESS
                                                                  : SCARD_E_INVALID_HANDLE;
        }
        return callSystem(&WinscardTable::SCardIsValidContext, systemContext);
    });
}
