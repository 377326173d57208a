#include "context/remote_context.h"

#include "daemon/exchange.h"
#include "log/call_frame.h"
#include "wire/context_records.h"

namespace tez {

LONG establishRemoteContext(DWORD scope, std::uint64_t& remoteContext, bool remoteFlag) {
    static constexpr CallFrame call("establishRemoteContext", "ESTABLISH REMOTE CONTEXT");
    call.in("%lu", scope);
    EstablishRecord record = {scope, 0, 0};
    return call.run(
        [&]() -> LONG {
            Exchange exchange(call.log());
            if (!exchange.hasConnection()) {
                return SCARD_E_NO_SERVICE;
            }
            const LONG rv = exchange.callFlagged(CMD_ESTABLISH_CONTEXT, record, remoteFlag);
            if (rv == SCARD_S_SUCCESS) {
                remoteContext = record.hContext;
            }
            return rv;
        },
        [&] { call.out("%llu", remoteContext); });
}

LONG releaseRemoteContext(std::uint64_t remoteContext, bool remoteFlag) {
    static constexpr CallFrame call("releaseRemoteContext", "RELEASE REMOTE CONTEXT");
    // NOLINTNEXTLINE(performance-no-int-to-ptr): printed as a pointer, never used as one
    call.in("%p", reinterpret_cast<void*>(remoteContext));
    return call.run([&]() -> LONG {
        Exchange exchange(call.log());
        if (!exchange.hasConnection()) {
            return SCARD_E_NO_SERVICE;
        }
        ReleaseRecord record = {remoteContext, 0};
        return exchange.callFlagged(CMD_RELEASE_CONTEXT, record, remoteFlag);
    });
}

}  // namespace tez
