#include <cstring>
#include <string_view>

#include "carddb/remote_data.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/local_calls.h"
#include "log/call_frame.h"
#include "wire/database_records.h"

using namespace tez;

namespace {

/// A null name is the daemon's business: it gets an empty one.
LONG getIconRemotely(const RemoteCall& call, LPCSTR readerName, LPBYTE icon, LPDWORD length) {
    if (length == nullptr) {
        return refuse(call.log, "pcbIcon cannot be NULL");
    }
    if (!checkKnown(call.log, call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    const char* const name = readerName == nullptr ? "" : readerName;
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        ReaderIconRecord record = {remoteContext, 0, 0};
        const LONG rv = exchange.call(CMD_GET_READER_ICON, record, {name, std::strlen(name) + 1});
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
        bool hasArrived = false;
        return handOutData(exchange, record.cbIcon, icon, length, "Failed to read data for icon",
                           hasArrived, [&](DWORD error) {
                               call.log.debug("Error while allocating data for pbIcon: %lu", error);
                           });
    });
}

}  // namespace

LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPBYTE pbIcon,
                                LPDWORD pcbIcon) {
    static constexpr CallFrame frame("SCardGetReaderIconA", "GET_READER_ICON");
    const ServiceState state = getServiceState();
    const DWORD room = valueOf(pcbIcon);
    frame.in("%Ix, %p, %p, %p", hContext, static_cast<const void*>(szReaderName),
             static_cast<void*>(pbIcon), static_cast<void*>(pcbIcon));
    return frame.run([&] {
        return localFirst(
            frame.log(), state,
            [&] {
                return withLocalContext(hContext, [&](SCARDCONTEXT systemContext) {
                    return LocalSCardGetReaderIconA(systemContext, szReaderName, pbIcon, pcbIcon);
                });
            },
            [&] {
                restoreRoom(pcbIcon, room);
                const RemoteCall call = {.log = frame.log(), .state = state, .context = hContext};
                return getIconRemotely(call, szReaderName, pbIcon, pcbIcon);
            });
    });
}
