#include <cstring>

#include "common/copy_out.h"
#include "common/heap.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/local_calls.h"
#include "log/call_frame.h"
#include "protocol/card_routing.h"
#include "protocol/session_protocols.h"
#include "wire/card_records.h"

using namespace tez;

namespace {

struct StatusArguments {
    LPSTR readerName;
    LPDWORD readerLength;
    LPDWORD state;
    LPDWORD protocol;
    LPBYTE atr;
    LPDWORD atrLength;
};

/// The platform's one state word for the daemon's state bits; the most advanced state wins.
DWORD stateOf(std::uint32_t daemonBits) {
    static constexpr struct {
        std::uint32_t bit;
        DWORD state;
    } kStates[] = {{kWireSpecific, SCARD_SPECIFIC}, {kWireNegotiable, SCARD_NEGOTIABLE},
                   {kWirePowered, SCARD_POWERED},   {kWireSwallowed, SCARD_SWALLOWED},
                   {kWirePresent, SCARD_PRESENT},   {kWireAbsent, SCARD_ABSENT}};
    for (const auto& known : kStates) {
        if ((daemonBits & known.bit) != 0) {
            return known.state;
        }
    }
    return SCARD_UNKNOWN;
}

/// As copyOutBuffer, with a room of 0 in place of a length that the caller did not give.
LONG copyOutOrRefuse(const void* source, DWORD count, void* destination, LPDWORD length) {
    DWORD none = 0;
    return copyOutBuffer(source, count, destination, length == nullptr ? &none : length, 1);
}

/// Hands out the reader's name, as a multi-string of one, and the ATR.
LONG copyNameAndAtr(const StatusArguments& arguments, const char* name,
                    const StatusRecord& record) {
    const auto nameLength = static_cast<DWORD>(std::strlen(name));
    const HeapPtr<char> names(static_cast<char*>(heapAllocate(nameLength + 2)));
    if (names == nullptr) {
        return SCARD_E_NO_MEMORY;
    }
    std::memcpy(names.get(), name, nameLength);
    names.get()[nameLength] = names.get()[nameLength + 1] = '\0';

    const bool isNameAllocated = arguments.readerName != nullptr &&
                                 arguments.readerLength != nullptr &&
                                 *arguments.readerLength == SCARD_AUTOALLOCATE;
    LONG rv =
        copyOutOrRefuse(names.get(), nameLength + 2, arguments.readerName, arguments.readerLength);
    if (rv == SCARD_S_SUCCESS) {
        rv = copyOutOrRefuse(record.pbAtr, record.cbAtrLen, arguments.atr, arguments.atrLength);
        if (rv != SCARD_S_SUCCESS && isNameAllocated) {
            takeBack(arguments.readerName);
        }
    }
    return rv;
}

LONG statusRemotely(const FunctionLog& log, const RemoteCard& card,
                    const StatusArguments& arguments) {
    if (arguments.state != nullptr) {
        *arguments.state = 0;
    }
    if (arguments.protocol != nullptr) {
        *arguments.protocol = 0;
    }
    const char* const name = card.entry.readerName.get();
    if (name == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    StatusRecord record = {};
    record.hCard = card.target();
    record.cbAtrLen = sizeof(record.pbAtr);
    // A daemon that leaves the result untouched has not looked at the card.
    record.rv = static_cast<std::uint32_t>(SCARD_E_NO_SERVICE);
    const LONG rv = exchange.call(CMD_STATUS, record);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (record.cbAtrLen > sizeof(record.pbAtr)) {
        log.warning("Received an ATR length of %lu, maximum value is %lu",
                    static_cast<unsigned long>(record.cbAtrLen),
                    static_cast<unsigned long>(sizeof(record.pbAtr)));
        return SCARD_F_INTERNAL_ERROR;
    }
    if (arguments.state != nullptr) {
        *arguments.state = stateOf(record.dwState);
    }
    if (arguments.protocol != nullptr) {
        const SessionProtocols protocols(exchange.meets(card.state, kConvertedProtocols));
        *arguments.protocol = protocols.fromWire(record.dwProtocol);
    }
    return copyNameAndAtr(arguments, name, record);
}

}  // namespace

LONG WINAPI SCardStatusA(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen,
                         LPDWORD pdwState, LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen) {
    static constexpr CallFrame call("SCardStatusA", "STATUS");
    call.in("hCard:%ld mszReaderName:%p, pcchReaderLen:%p(%lu), pbAtr:%p, pcbAtrLen:%p(%lu)",
            static_cast<long>(hCard), static_cast<void*>(szReaderName),
            static_cast<void*>(pcchReaderLen), valueOf(pcchReaderLen), static_cast<void*>(pbAtr),
            static_cast<void*>(pcbAtrLen), valueOf(pcbAtrLen));
    const StatusArguments arguments = {szReaderName, pcchReaderLen, pdwState,
                                       pdwProtocol,  pbAtr,         pcbAtrLen};
    return call.run(
        [&] {
            return routeCardCall(
                hCard,
                [&](SCARDHANDLE systemCard, SCARDCONTEXT context) -> LONG {
                    return withLocalContext(context, [&](SCARDCONTEXT systemContext) {
                        return LocalSCardStatusA(systemContext, systemCard, szReaderName,
                                                 pcchReaderLen, pdwState, pdwProtocol, pbAtr,
                                                 pcbAtrLen);
                    });
                },
                [&](const RemoteCard& card) {
                    return statusRemotely(call.log(), card, arguments);
                });
        },
        [&] {
            // The name is not shown: what the caller's buffer holds depends on how it asked.
            call.out(
                "mszReaderName:%p(), pcchReaderLen:%p(%lu), pdwState:%p(0x%lu), "
                "pdwProtocol:%p(0x%lu), pcbAtrLen:%p(%lu)",
                static_cast<void*>(szReaderName), static_cast<void*>(pcchReaderLen),
                valueOf(pcchReaderLen), static_cast<void*>(pdwState), valueOf(pdwState),
                static_cast<void*>(pdwProtocol), valueOf(pdwProtocol),
                static_cast<void*>(pcbAtrLen), valueOf(pcbAtrLen));
        });
}
