#include "carddb/remote_call.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "wire/database_records.h"
#include "wire/text_field.h"

using namespace tez;

namespace {

LONG getDeviceTypeRemotely(const RemoteCall& call, LPCSTR readerName, LPDWORD deviceTypeId) {
    if (readerName == nullptr) {
        return refuse(call.log, "Reader name pointer cannot be NULL");
    }
    if (deviceTypeId == nullptr) {
        return refuse(call.log, "Device type ID pointer cannot be NULL");
    }
    if (!checkKnown(call.log, call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    DeviceTypeIdRecord record = {};
    if (!copyToField(record.szReaderName, readerName)) {
        return SCARD_E_INVALID_VALUE;
    }
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        record.hContext = remoteContext;
        const LONG rv = exchange.call(CMD_GET_DEVICE_TYPE_ID, record);
        if (rv == SCARD_S_SUCCESS) {
            *deviceTypeId = record.dwDeviceTypeId;
        }
        return rv;
    });
}

}  // namespace

LONG WINAPI SCardGetDeviceTypeIdA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                  LPDWORD pdwDeviceTypeId) {
    static constexpr CallFrame frame("SCardGetDeviceTypeIdA", "GET_DEVICE_TYPE_ID");
    const ServiceState state = getServiceState();
    frame.in("%Ix, %s", hContext, szReaderName == nullptr ? "" : szReaderName);
    return frame.run(
        [&] {
            return localFirst(
                frame.log(), state,
                [&] {
                    return withLocalContext(hContext, [&](SCARDCONTEXT systemContext) {
                        return callSystem(&WinscardTable::SCardGetDeviceTypeIdA, systemContext,
                                          szReaderName, pdwDeviceTypeId);
                    });
                },
                [&] {
                    const RemoteCall call = {
                        .log = frame.log(), .state = state, .context = hContext};
                    return getDeviceTypeRemotely(call, szReaderName, pdwDeviceTypeId);
                });
        },
        [&] { frame.out("%lu", valueOf(pdwDeviceTypeId)); });
}
