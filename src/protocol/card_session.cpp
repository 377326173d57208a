#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "daemon/exchange.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "protocol/card_routing.h"
#include "protocol/session_protocols.h"
#include "wire/card_records.h"

using namespace tez;

namespace {

/// A call on a remote card that is one plain exchange.
template <class Record>
LONG exchangeForCard(const FunctionLog& log, const RemoteCard& card, CommandCode command,
                     Record record) {
    return card.hasContext() ? exchangeRecord(log, command, record) : SCARD_E_INVALID_HANDLE;
}

LONG reconnectRemotely(const FunctionLog& log, const RemoteCard& card, DWORD shareMode,
                       DWORD preferredProtocols, DWORD initialization, LPDWORD activeProtocol) {
    if (activeProtocol == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!card.hasContext()) {
        return SCARD_E_INVALID_HANDLE;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    return exchange.adapt(card.state, kConvertedProtocols, [&](bool isConverted) {
        const SessionProtocols protocols(isConverted);
        ReconnectRecord record = {card.target(),  shareMode, protocols.toWire(preferredProtocols),
                                  initialization, 0,         0};
        const LONG rv = exchange.call(CMD_RECONNECT, record);
        if (rv == SCARD_S_SUCCESS) {
            *activeProtocol = protocols.fromWire(record.dwActiveProtocol);
        }
        return rv;
    });
}

}  // namespace

LONG WINAPI SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols,
                           DWORD dwInitialization, LPDWORD pdwActiveProtocol) {
    static constexpr CallFrame call("SCardReconnect", "RECONNECT");
    call.in("%ld, %lu, %lu, %lu, %p", static_cast<long>(hCard), dwShareMode, dwPreferredProtocols,
            dwInitialization, static_cast<void*>(pdwActiveProtocol));
    return call.run(
        [&] {
            return routeCardCall(
                hCard,
                [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                    return callSystem(&WinscardTable::SCardReconnect, systemCard, dwShareMode,
                                      dwPreferredProtocols, dwInitialization, pdwActiveProtocol);
                },
                [&](const RemoteCard& card) {
                    return reconnectRemotely(call.log(), card, dwShareMode, dwPreferredProtocols,
                                             dwInitialization, pdwActiveProtocol);
                });
        },
        [&] { call.out("%ld, %lu", static_cast<long>(hCard), valueOf(pdwActiveProtocol)); });
}

LONG WINAPI SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition) {
    static constexpr CallFrame call("SCardDisconnect", "DISCONNECT");
    call.in("%ld, %lu", static_cast<long>(hCard), dwDisposition);
    return call.run([&] {
        return routeCardCall(
            hCard,
            [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                // The handle stays registered, deliberately: the system library goes on judging
                // it, as it did for applications that disconnect twice.
                return callSystem(&WinscardTable::SCardDisconnect, systemCard, dwDisposition);
            },
            [&](const RemoteCard& card) {
                const LONG rv = exchangeForCard(call.log(), card, CMD_DISCONNECT,
                                                DisconnectRecord{card.target(), dwDisposition, 0});
                if (rv == SCARD_S_SUCCESS) {
                    unregisterCardHandle(hCard);
                }
                return rv;
            },
            [hCard]() -> LONG {
                unregisterCardHandle(hCard);
                return SCARD_S_SUCCESS;
            });
    });
}

LONG WINAPI SCardBeginTransaction(SCARDHANDLE hCard) {
    static constexpr CallFrame call("SCardBeginTransaction", "BEGIN_TRANSACTION");
    call.in("%ld", static_cast<long>(hCard));
    return call.run([&] {
        return routeCardCall(
            hCard,
            [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                return callSystem(&WinscardTable::SCardBeginTransaction, systemCard);
            },
            [&](const RemoteCard& card) {
                return exchangeForCard(call.log(), card, CMD_BEGIN_TRANSACTION,
                                       HandleRecord{card.target(), 0});
            });
    });
}

LONG WINAPI SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition) {
    static constexpr CallFrame call("SCardEndTransaction", "END_TRANSACTION");
    call.in("%ld, %lu", static_cast<long>(hCard), dwDisposition);
    return call.run([&] {
        return routeCardCall(
            hCard,
            [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                return callSystem(&WinscardTable::SCardEndTransaction, systemCard, dwDisposition);
            },
            [&](const RemoteCard& card) {
                return exchangeForCard(call.log(), card, CMD_END_TRANSACTION,
                                       DisconnectRecord{card.target(), dwDisposition, 0});
            });
    });
}
