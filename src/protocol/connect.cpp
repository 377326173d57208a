#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "context/context_registry.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "log/switches.h"
#include "protocol/session_protocols.h"
#include "state/reader_names.h"
#include "wire/card_records.h"
#include "wire/text_field.h"

namespace tez {

namespace {

struct ConnectArguments {
    SCARDCONTEXT context;
    LPCSTR reader;
    DWORD shareMode;
    DWORD preferredProtocols;
    LPSCARDHANDLE card;
    LPDWORD activeProtocol;
};

/// Registers a connection that one side has just made. When the handle cannot be issued, undo()
/// disconnects the card again: nobody else could.
template <class Undo>
SCARDHANDLE registerOrUndo(const ConnectArguments& arguments, std::uint64_t target, bool isLocal,
                           std::uint64_t daemon, Undo undo) {
    try {
        return registerCardHandle(target, arguments.context, arguments.reader, isLocal, daemon);
    } catch (...) {
        undo();
        throw;
    }
}

LONG connectLocally(const ConnectArguments& arguments, SCARDCONTEXT systemContext) {
    SCARDHANDLE systemCard = 0;
    const LONG rv = callSystem(&WinscardTable::SCardConnectA, systemContext, arguments.reader,
                               arguments.shareMode, arguments.preferredProtocols, &systemCard,
                               arguments.activeProtocol);
    if (rv == SCARD_S_SUCCESS) {
        *arguments.card = registerOrUndo(arguments, systemCard, true, 0, [systemCard] {
            static_cast<void>(callSystem(&WinscardTable::SCardDisconnect, systemCard,
                                         static_cast<DWORD>(SCARD_LEAVE_CARD)));
        });
    }
    return rv;
}

/// Whether the daemon's code for a connect says that it knows the reader, whatever else it says.
bool isAboutReader(LONG rv) {
    return !isNoService(rv) && rv != SCARD_E_UNKNOWN_READER && rv != SCARD_E_NO_READERS_AVAILABLE &&
           rv != SCARD_E_INVALID_HANDLE;
}

/// @param isKnown  out: whether the daemon knows the reader.
LONG connectRemotely(const FunctionLog& log, ServiceState state, const ConnectArguments& arguments,
                     bool& isKnown) {
    isKnown = false;
    if (arguments.activeProtocol == nullptr) {
        log.warning("pdwActiveProtocol cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (arguments.reader == nullptr) {
        return SCARD_E_UNKNOWN_READER;
    }
    ConnectRecord record = {};
    if (!copyToField(record.szReader, arguments.reader)) {
        return SCARD_E_INVALID_VALUE;
    }
    *arguments.card = 0;
    const std::uint64_t daemon = currentDaemon();
    std::uint64_t remoteContext = NO_REMOTE_CONTEXT;
    LONG rv = getRemoteContextVolatile(arguments.context, remoteContext, true);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    record.hContext = remoteContext;
    record.dwShareMode = arguments.shareMode;
    rv = exchange.adapt(state, kConvertedProtocols, [&](bool isConverted) {
        const SessionProtocols protocols(isConverted);
        record.dwPreferredProtocols = protocols.toWire(arguments.preferredProtocols);
        const LONG connectRv = exchange.call(CMD_SCARD_CONNECT, record);
        if (connectRv == SCARD_S_SUCCESS) {
            *arguments.activeProtocol = protocols.fromWire(record.dwActiveProtocol);
        }
        return connectRv;
    });
    // The code is the daemon's, and not the transport's, if it stands in the record.
    isKnown = rv == static_cast<LONG>(record.rv) && isAboutReader(rv);
    if (rv == SCARD_S_SUCCESS) {
        *arguments.card = registerOrUndo(arguments, record.hCard, false, daemon, [&] {
            DisconnectRecord undo = {record.hCard, SCARD_LEAVE_CARD, 0};
            static_cast<void>(exchange.call(CMD_DISCONNECT, undo));
        });
    }
    return rv;
}

/// Which side tells why a connect failed on both. By default it is the daemon, which was asked
/// last. With standard answers it is the side that has the reader: the one that listed it (the host
/// where both did), else the daemon if it knows it, else the host. A host without a service tells
/// nothing about readers.
LONG reasonOf(const ConnectArguments& arguments, LONG hostRv, LONG daemonRv, bool isDaemonsReader) {
    if (!isStandardCallsEnabled() || isNoService(hostRv) || isDaemonsReader) {
        return daemonRv;
    }
    return arguments.reader != nullptr &&
                   findReaderSides({arguments.reader}).front() == ReaderSide::Remote
               ? daemonRv
               : hostRv;
}

/// Whether the host's code is the answer, without a question to the daemon: a success, and with
/// standard answers a failure for a reader that the host listed and still knows.
bool isHostsAnswer(const ConnectArguments& arguments, LONG hostRv) {
    if (isSuccess(hostRv)) {
        return true;
    }
    return isStandardCallsEnabled() && hostRv != SCARD_E_UNKNOWN_READER && !isNoService(hostRv) &&
           arguments.reader != nullptr &&
           findReaderSides({arguments.reader}).front() == ReaderSide::Local;
}

LONG connectLocalFirst(const FunctionLog& log, ServiceState state,
                       const ConnectArguments& arguments, SCARDCONTEXT systemContext) {
    LONG hostRv = SCARD_E_NO_SERVICE;
    bool isDaemonsReader = false;
    const LONG rv = localFirst(
        log, state,
        [&] {
            if (systemContext != 0) {
                hostRv = connectLocally(arguments, systemContext);
            }
            return hostRv;
        },
        [&] { return connectRemotely(log, state, arguments, isDaemonsReader); },
        [&](LONG code) { return isHostsAnswer(arguments, code); });
    const bool isTold = state != ServiceState::LocalFirst || rv == SCARD_S_SUCCESS || rv == hostRv;
    return isTold ? rv : reasonOf(arguments, hostRv, rv, isDaemonsReader);
}

}  // namespace

}  // namespace tez

LONG WINAPI SCardConnectA(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode,
                          DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                          LPDWORD pdwActiveProtocol) {
    using namespace tez;
    static constexpr CallFrame call("SCardConnectA", "SCARD_CONNECT");
    const ServiceState state = getServiceState();
    const ConnectArguments arguments = {
        hContext, szReader, dwShareMode, dwPreferredProtocols, phCard, pdwActiveProtocol};
    call.in("%Ix, %s, %lu, %lu, %p, %p", hContext, szReader, dwShareMode, dwPreferredProtocols,
            static_cast<void*>(phCard), static_cast<void*>(pdwActiveProtocol));
    return call.run(
        [&]() -> LONG {
            if (phCard == nullptr) {
                call.log().warning("phCard cannot be NULL");
                return SCARD_E_INVALID_PARAMETER;
            }
            const SCARDCONTEXT systemContext = getLocalContext(hContext);
            if (state != ServiceState::RemoteOnly && systemContext == 0 &&
                hostlessResult(hContext) == SCARD_E_INVALID_HANDLE) {
                return SCARD_E_INVALID_HANDLE;  // no context of ours, or half of one: no fallback
            }
            return connectLocalFirst(call.log(), state, arguments, systemContext);
        },
        [&] { call.out("%llu, %lu", *phCard, valueOf(pdwActiveProtocol)); });
}
