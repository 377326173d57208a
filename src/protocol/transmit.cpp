#include "common/scard_api.h"
#include "daemon/exchange.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "protocol/card_routing.h"
#include "protocol/data_limits.h"
#include "wire/card_records.h"
#include "wire/protocol_mask.h"

const SCARD_IO_REQUEST g_rgSCardT0Pci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardT1Pci = {SCARD_PROTOCOL_T1, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardRawPci = {SCARD_PROTOCOL_RAW, sizeof(SCARD_IO_REQUEST)};

using namespace tez;

namespace {

/// Stands for "no receive PCI" in records and log lines.
constexpr DWORD kNoProtocol = 0xFFFFFFFF;

struct TransmitArguments {
    LPCSCARD_IO_REQUEST sendPci;
    LPCBYTE sendBuffer;
    DWORD sendLength;
    LPSCARD_IO_REQUEST receivePci;
    LPBYTE receiveBuffer;
    LPDWORD receiveLength;
};

DWORD protocolOf(LPCSCARD_IO_REQUEST pci) noexcept {
    return pci == nullptr ? kNoProtocol : pci->dwProtocol;
}

bool isSingleProtocol(DWORD protocol) {
    const DWORD known = protocol & (SCARD_PROTOCOL_Tx | SCARD_PROTOCOL_RAW);
    return known == SCARD_PROTOCOL_T0 || known == SCARD_PROTOCOL_T1 || known == SCARD_PROTOCOL_RAW;
}

LONG checkValues(const FunctionLog& log, const TransmitArguments& arguments) {
    // The platform allocates no answers. A caller that asks for it gives the place of a pointer as
    // buffer; as a length the value would let the daemon write far behind that.
    if (*arguments.receiveLength == SCARD_AUTOALLOCATE) {
        log.warning("pcbRecvLength cannot be SCARD_AUTOALLOCATE");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!isSingleProtocol(arguments.sendPci->dwProtocol)) {
        log.warning("Protocol %lu for pioSendPci is not supported", arguments.sendPci->dwProtocol);
        return SCARD_E_INVALID_PARAMETER;
    }
    if (arguments.receivePci != nullptr && !isSingleProtocol(arguments.receivePci->dwProtocol)) {
        log.warning("Protocol %lu for pioRecvPci is not supported",
                    arguments.receivePci->dwProtocol);
        return SCARD_E_INVALID_PARAMETER;
    }
    return SCARD_S_SUCCESS;
}

void storeReceivePci(const FunctionLog& log, std::uint32_t wireProtocol,
                     SCARD_IO_REQUEST& receivePci) {
    const std::uint32_t protocol = convert_protocol_from_wire(wireProtocol);
    for (const SCARD_IO_REQUEST* pci : {&g_rgSCardRawPci, &g_rgSCardT0Pci, &g_rgSCardT1Pci}) {
        if ((protocol & pci->dwProtocol) != 0) {
            receivePci = *pci;
            return;
        }
    }
    // The answer is there all the same; the application gets it.
    log.warning("Received protocol %u is not supported", wireProtocol);
}

LONG exchangeApdu(const FunctionLog& log, Exchange& exchange, TransmitRecord& record,
                  const TransmitArguments& arguments) {
    LONG rv = exchange.callWithData(CMD_TRANSMIT, record, arguments.sendBuffer,
                                    arguments.sendLength, "Failed to send data for send buffer");
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    exchange.announce(record.pcbRecvLength);
    if (record.pcbRecvLength > *arguments.receiveLength) {
        *arguments.receiveLength = record.pcbRecvLength;
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    rv = exchange.readAnnounced(arguments.receiveBuffer, record.pcbRecvLength,
                                "Failed to read data for recv buffer");
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    log.debug("Used receive protocol %u", record.ioRecvPciProtocol);
    if (arguments.receivePci != nullptr) {
        storeReceivePci(log, record.ioRecvPciProtocol, *arguments.receivePci);
    }
    *arguments.receiveLength = record.pcbRecvLength;
    return SCARD_S_SUCCESS;
}

/// With a connection to a daemon that takes data of any length, or not.
LONG transmitOn(const FunctionLog& log, Exchange& exchange, bool isUnlimited,
                const RemoteCard& card, const TransmitArguments& arguments, DWORD& usedProtocol) {
    LONG rv = checkDataLimits(log, isUnlimited, arguments.sendLength, *arguments.receiveLength);
    if (rv == SCARD_S_SUCCESS) {
        rv = checkValues(log, arguments);
    }
    if (rv == SCARD_S_SUCCESS && !card.hasContext()) {
        rv = SCARD_E_INVALID_HANDLE;
    }
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    TransmitRecord record = {};
    record.hCard = card.target();
    record.ioSendPciProtocol = convert_protocol_to_wire(arguments.sendPci->dwProtocol);
    record.cbSendLength = arguments.sendLength;
    record.ioRecvPciProtocol = arguments.receivePci == nullptr
                                   ? kNoProtocol
                                   : convert_protocol_to_wire(arguments.receivePci->dwProtocol);
    record.pcbRecvLength = *arguments.receiveLength;
    log.debug("Using receive protocol %u", record.ioRecvPciProtocol);
    rv = exchangeApdu(log, exchange, record, arguments);
    usedProtocol = record.ioRecvPciProtocol;
    return rv;
}

LONG transmitRemotely(const FunctionLog& log, const RemoteCard& card,
                      const TransmitArguments& arguments, DWORD& usedProtocol) {
    if (arguments.sendBuffer == nullptr || arguments.receiveBuffer == nullptr ||
        arguments.receiveLength == nullptr || arguments.sendPci == nullptr) {
        log.warning(
            "pbSendBuffer (%p), pbRecvBuffer(%p), pcbRecvLength(%p), pioSendPci(%p) cannot be NULL",
            static_cast<const void*>(arguments.sendBuffer),
            static_cast<void*>(arguments.receiveBuffer),
            static_cast<void*>(arguments.receiveLength),
            static_cast<const void*>(arguments.sendPci));
        return SCARD_E_INVALID_PARAMETER;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    return exchange.adapt(card.state, kUnlimitedData, [&](bool isUnlimited) {
        return transmitOn(log, exchange, isUnlimited, card, arguments, usedProtocol);
    });
}

}  // namespace

LONG WINAPI SCardTransmit(SCARDHANDLE hCard, LPCSCARD_IO_REQUEST pioSendPci, LPCBYTE pbSendBuffer,
                          DWORD cbSendLength, LPSCARD_IO_REQUEST pioRecvPci, LPBYTE pbRecvBuffer,
                          LPDWORD pcbRecvLength) {
    static constexpr CallFrame call("SCardTransmit", "TRANSMIT");
    call.in("%ld, %p, %p (%lu)", static_cast<long>(hCard), static_cast<const void*>(pioSendPci),
            static_cast<void*>(pioRecvPci), protocolOf(pioRecvPci));
    const TransmitArguments arguments = {pioSendPci, pbSendBuffer, cbSendLength,
                                         pioRecvPci, pbRecvBuffer, pcbRecvLength};
    DWORD usedProtocol = kNoProtocol;
    return call.run(
        [&] {
            return routeCardCall(
                hCard,
                [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                    const LONG rv = callSystem(&WinscardTable::SCardTransmit, systemCard,
                                               pioSendPci, pbSendBuffer, cbSendLength, pioRecvPci,
                                               pbRecvBuffer, pcbRecvLength);
                    usedProtocol = protocolOf(pioRecvPci);
                    return rv;
                },
                [&](const RemoteCard& card) {
                    return transmitRemotely(call.log(), card, arguments, usedProtocol);
                });
        },
        [&] { call.out("%u, %lu", static_cast<unsigned>(usedProtocol), valueOf(pcbRecvLength)); });
}
