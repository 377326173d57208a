#include <new>

#include "common/scard_api.h"
#include "context/context_registry.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "log/call_frame.h"
#include "state/waits.h"
#include "wire/card_records.h"

using namespace tez;

namespace {

LONG cancelRemotely(const FunctionLog& log, SCARDCONTEXT context) {
    try {
        std::uint64_t remoteContext = NO_REMOTE_CONTEXT;
        LONG rv = getRemoteContextVolatile(context, remoteContext, true);
        if (rv == SCARD_S_SUCCESS) {
            const CancelInProgress mark(WaitSide::Remote, remoteContext);
            HandleRecord record = {remoteContext, 0};
            rv = exchangeRecord(log, CMD_CANCEL, record);
        }
        // With the daemon away there is no remote wait to end, so that is no error.
        return rv == SCARD_E_NO_SERVICE ? SCARD_S_SUCCESS : rv;
    } catch (const std::bad_alloc&) {
        return SCARD_E_NO_MEMORY;
    }
}

}  // namespace

LONG WINAPI SCardCancel(SCARDCONTEXT hContext) {
    static constexpr CallFrame call("SCardCancel", "CANCEL");
    const ServiceState state = getServiceState();
    call.in("%Ix", hContext);
    return call.run([&]() -> LONG {
        if (!isContextKnown(hContext)) {
            return SCARD_E_INVALID_HANDLE;
        }
        // First, so that the waits in progress now are meant and no others, and so that a side that
        // does not answer keeps no wait from ending on the other.
        cancelWaits(hContext);
        setContextCancelled(hContext, true);
        // Both sides are cancelled, whatever became of the other; the first error is told.
        LONG rv = cancelRemotely(call.log(), hContext);
        if (state != ServiceState::RemoteOnly) {
            const LONG localRv = withLocalContext(hContext, cancelSystemWait);
            rv = rv == SCARD_S_SUCCESS ? localRv : rv;
            if (rv == SCARD_E_NO_SERVICE && getLocalContext(hContext) == 0) {
                rv = SCARD_S_SUCCESS;  // no host, no wait there to end
            }
        }
        return rv;
    });
}
