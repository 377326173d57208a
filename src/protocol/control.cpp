#include "common/scard_api.h"
#include "daemon/exchange.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "protocol/card_routing.h"
#include "protocol/data_limits.h"
#include "wire/card_records.h"

using namespace tez;

namespace {

struct ControlArguments {
    DWORD controlCode;
    LPCVOID inBuffer;
    DWORD inLength;
    LPVOID outBuffer;
    DWORD outLength;
    LPDWORD bytesReturned;
};

/// A control code of the platform is a device I/O control code of the smart-card device type; the
/// daemon knows only the function number inside, bits 2 to 13.
std::uint32_t functionNumberOf(const FunctionLog& log, DWORD controlCode) {
    const std::uint32_t functionNumber = (controlCode >> 2) & 0xFFF;
    log.debug("Control code in input was %lu, converted to %u", controlCode, functionNumber);
    return functionNumber;
}

void storeBytesReturned(const ControlArguments& arguments, DWORD count) {
    if (arguments.bytesReturned != nullptr) {
        *arguments.bytesReturned = count;
    }
}

/// With a connection to a daemon that takes data of any length, or not.
LONG controlOn(const FunctionLog& log, Exchange& exchange, bool isUnlimited, const RemoteCard& card,
               const ControlArguments& arguments) {
    LONG rv = checkDataLimits(log, isUnlimited, arguments.inLength, arguments.outLength);
    if (rv == SCARD_S_SUCCESS && !card.hasContext()) {
        rv = SCARD_E_INVALID_HANDLE;
    }
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    ControlRecord record = {};
    record.hCard = card.target();
    record.dwControlCode = functionNumberOf(log, arguments.controlCode);
    record.cbInBufferSize = arguments.inLength;
    record.cbOutBufferSize = arguments.outLength;
    rv = exchange.callWithData(CMD_CONTROL, record, arguments.inBuffer, arguments.inLength,
                               "Failed to send data for send buffer");
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    exchange.announce(record.dwBytesReturned);
    const DWORD room = arguments.outBuffer == nullptr ? 0 : arguments.outLength;
    if (record.dwBytesReturned > room) {
        storeBytesReturned(arguments, record.dwBytesReturned);
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    rv = exchange.readAnnounced(arguments.outBuffer, record.dwBytesReturned,
                                "Failed to read data for recv buffer");
    if (rv == SCARD_S_SUCCESS) {
        storeBytesReturned(arguments, record.dwBytesReturned);
    }
    return rv;
}

LONG controlRemotely(const FunctionLog& log, const RemoteCard& card,
                     const ControlArguments& arguments) {
    storeBytesReturned(arguments, 0);
    if (arguments.inBuffer == nullptr && arguments.inLength != 0) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    return exchange.adapt(card.state, kUnlimitedData, [&](bool isUnlimited) {
        return controlOn(log, exchange, isUnlimited, card, arguments);
    });
}

}  // namespace

LONG WINAPI SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID lpInBuffer,
                         DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                         LPDWORD lpBytesReturned) {
    static constexpr CallFrame call("SCardControl", "CONTROL");
    call.in("%ld, %lu, %lu", static_cast<long>(hCard), dwControlCode, nInBufferSize);
    const ControlArguments arguments = {dwControlCode, lpInBuffer,     nInBufferSize,
                                        lpOutBuffer,   nOutBufferSize, lpBytesReturned};
    return call.run([&] {
        return routeCardCall(
            hCard,
            [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                return callSystem(&WinscardTable::SCardControl, systemCard, dwControlCode,
                                  lpInBuffer, nInBufferSize, lpOutBuffer, nOutBufferSize,
                                  lpBytesReturned);
            },
            [&](const RemoteCard& card) { return controlRemotely(call.log(), card, arguments); });
    });
}
