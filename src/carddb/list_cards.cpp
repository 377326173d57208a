#include <cstring>
#include <string>

#include "carddb/atr.h"
#include "carddb/remote_call.h"
#include "common/copy_out.h"
#include "common/local_buffer.h"
#include "common/multi_string.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/local_calls.h"
#include "log/call_frame.h"
#include "log/log_sink.h"
#include "wire/database_records.h"

using namespace tez;

namespace {

struct ListCardsArguments {
    SCARDCONTEXT context;
    LPCBYTE atr;
    LPCGUID interfaces;
    DWORD interfaceCount;
    LPSTR cards;
    LPDWORD length;
};

/// Asks the daemon. A malformed ATR matches no card: that is an empty list, and nothing is sent.
/// @param names  out: a well-formed multi-string, or empty.
LONG listRemotely(const RemoteCall& call, const ListCardsArguments& arguments, std::string& names) {
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) -> LONG {
        ListCardsRecord record = {};
        record.hContext = remoteContext;
        if (arguments.atr != nullptr) {
            const std::uint32_t atrLength = parseAtrLength(arguments.atr);
            if (atrLength < 1 || atrLength > kLongestAtr) {
                call.log.debug("Malformed ATR in request (parsed length: %u)", atrLength);
                return SCARD_S_SUCCESS;
            }
            if (isLogged(LogLevel::Debug)) {
                call.log.debug("ATR found is %s", atrToHex(arguments.atr, atrLength).c_str());
            }
            record.isAtrPresent = 1;
            std::memcpy(record.rgbAtr, arguments.atr, atrLength);
        }
        // The tail has its full length even without GUIDs to fill it; the record's count tells.
        const std::size_t guidsSize = std::size_t{arguments.interfaceCount} * sizeof(GUID);
        if (!isSendable(sizeof(record), guidsSize)) {
            return SCARD_E_INVALID_PARAMETER;
        }
        std::string guids(guidsSize, '\0');
        if (arguments.interfaces != nullptr) {
            record.cguidInterfaceCount = arguments.interfaceCount;
            std::memcpy(guids.data(), arguments.interfaces, guids.size());
        }
        record.cchCards = *arguments.length;
        LONG rv = exchange.callFlagged(CMD_LIST_CARDS, record, call.redirection, guids);
        if (rv == SCARD_S_SUCCESS) {
            HeapPtr<char> block;
            rv = exchange.readBlock(record.cchCards, block, "Failed to read data for card names");
            if (rv == SCARD_S_SUCCESS) {
                names.assign(block.get(), record.cchCards);
                closeMultiString(names);
            }
        }
        return rv;
    });
}

LONG listLocally(const ListCardsArguments& arguments, LPSTR cards, LPDWORD length) {
    return withLocalSide(arguments.context, [&](SCARDCONTEXT systemContext) {
        return LocalSCardListCardsA(systemContext, arguments.atr, arguments.interfaces,
                                    arguments.interfaceCount, cards, length);
    });
}

/// Puts the host's card names behind the daemon's, duplicates included. A failing host leaves the
/// daemon's alone.
void appendLocalCards(const ListCardsArguments& arguments, std::string& names) {
    LocalBuffer local;
    if (listLocally(arguments, local.destination(), local.length()) == SCARD_S_SUCCESS) {
        if (!names.empty()) {
            names.pop_back();
        }
        names.append(local.text());
    }
    closeMultiString(names);
}

LONG listCards(const RemoteCall& call, const ListCardsArguments& arguments) {
    if (!isRemoteAllowed(call.state)) {
        return listLocally(arguments, arguments.cards, arguments.length);
    }
    if (arguments.length == nullptr) {
        call.log.warning("pcchCards is NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    if (arguments.context != 0 && !checkKnown(call.log, arguments.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    std::string names;
    const LONG rv = listRemotely(call, arguments, names);
    if (call.state == ServiceState::RemoteOnly) {
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
    } else if (rv != SCARD_S_SUCCESS) {
        return listLocally(arguments, arguments.cards, arguments.length);
    } else {
        appendLocalCards(arguments, names);
    }
    return copyOutBuffer(names.data(), static_cast<DWORD>(names.size()), arguments.cards,
                         arguments.length, 1);
}

void logCards(const CallFrame& frame, const ListCardsArguments& arguments, bool isAllocated) {
    const DWORD length = valueOf(arguments.length);
    frame.out("%llu, %lu", reinterpret_cast<std::uintptr_t>(arguments.cards), length);
    const char* const list = handedOut(arguments.cards, isAllocated);
    if (list != nullptr && isLogged(LogLevel::Debug)) {
        forEachName({list, length}, [&frame](std::string_view name) {
            frame.log().debug("    Card: %s", std::string(name).c_str());
        });
    }
}

}  // namespace

LONG WINAPI SCardListCardsA(SCARDCONTEXT hContext, LPCBYTE pbAtr, LPCGUID rgquidInterfaces,
                            DWORD cguidInterfaceCount, LPSTR mszCards, LPDWORD pcchCards) {
    static constexpr CallFrame frame("SCardListCardsA", "LIST_CARDS");
    const ServiceState state = getServiceState();
    const bool isAllocated = pcchCards != nullptr && *pcchCards == SCARD_AUTOALLOCATE;
    const ListCardsArguments arguments = {hContext, pbAtr,    rgquidInterfaces, cguidInterfaceCount,
                                          mszCards, pcchCards};
    frame.in("%Ix, %lu, %p, %lu", hContext, cguidInterfaceCount, static_cast<void*>(pcchCards),
             valueOf(pcchCards));
    return frame.run(
        [&] {
            const RemoteCall call = {.log = frame.log(),
                                     .state = state,
                                     .context = hContext,
                                     .redirection = redirectionFlag(state)};
            return listCards(call, arguments);
        },
        [&] { logCards(frame, arguments, isAllocated); });
}
