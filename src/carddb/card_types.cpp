#include <bit>
#include <cstring>
#include <string>

#include "carddb/atr.h"
#include "carddb/remote_call.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "wire/database_records.h"
#include "wire/text_field.h"

using namespace tez;

namespace {

struct CardType {
    LPCSTR name;
    LPCGUID primaryProvider;
    LPCGUID interfaces;
    DWORD interfaceCount;
    LPCBYTE atr;
    LPCBYTE mask;
    DWORD atrLength;
};

LONG fillAtr(const FunctionLog& log, const CardType& type, IntroduceCardTypeRecord& record) {
    const DWORD length = type.atrLength != 0 ? type.atrLength : parseAtrLength(type.atr);
    if (length > kLongestAtr) {
        log.warning("Malformed ATR in request (length: %u)", static_cast<unsigned>(length));
        return SCARD_E_INVALID_PARAMETER;
    }
    if (type.atr != nullptr) {
        record.isAtrPresent = 1;
        std::memcpy(record.rgbAtr, type.atr, length);
        if (type.mask != nullptr) {
            record.isMaskPresent = 1;
            std::memcpy(record.rgbAtrMask, type.mask, length);
        }
    }
    record.cbAtrLen = type.atrLength;
    return SCARD_S_SUCCESS;
}

LONG introduceRemotely(const RemoteCall& call, const CardType& type) {
    IntroduceCardTypeRecord record = {};
    if (type.name == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!copyToField(record.szCardName, type.name)) {
        return SCARD_E_INVALID_VALUE;
    }
    const LONG rv = fillAtr(call.log, type, record);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (type.primaryProvider != nullptr) {
        record.isPrimaryProviderPresent = 1;
        record.guidPrimaryProvider = std::bit_cast<WireGuid>(*type.primaryProvider);
    }
    record.dwInterfaceCount = type.interfaceCount;
    const std::string_view guids(
        reinterpret_cast<const char*>(type.interfaces),
        type.interfaces == nullptr ? 0 : std::size_t{type.interfaceCount} * sizeof(GUID));
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        record.hContext = remoteContext;
        return exchange.callFlagged(CMD_INTRODUCE_CARD_TYPE, record, call.redirection, guids);
    });
}

constexpr FailureLines kForgetFailureLines = {LogLevel::Debug,
                                              "Could not send forget_card_type message",
                                              "Could not read forget_card_type message"};

LONG forgetRemotely(const RemoteCall& call, LPCSTR name) {
    ForgetCardTypeRecord record = {};
    if (name == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!copyToField(record.szCardName, name)) {
        return SCARD_E_INVALID_VALUE;
    }
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        record.hContext = remoteContext;
        return exchange.callFlagged(CMD_FORGET_CARD_TYPE, record, call.redirection);
    });
}

LONG auditRemotely(const RemoteCall& call, DWORD event) {
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        AuditRecord record = {remoteContext, event, 0};
        return exchange.callFlagged(CMD_AUDIT, record, call.redirection);
    });
}

/// An update goes to one side only. The daemon's side takes a context only if the library does not
/// know it, which in effect is the null one: kept exactly so, and the reverse of the queries'
/// check.
template <class Remote, class Local>
LONG updateOneSide(const RemoteCall& call, Remote remote, Local local) {
    if (!isRemoteAllowed(call.state)) {
        return withLocalContext(call.context, local);
    }
    return isContextKnown(call.context) ? SCARD_E_INVALID_HANDLE : remote();
}

}  // namespace

LONG WINAPI SCardIntroduceCardTypeA(SCARDCONTEXT hContext, LPCSTR szCardName,
                                    LPCGUID pguidPrimaryProvider, LPCGUID rgguidInterfaces,
                                    DWORD dwInterfaceCount, LPCBYTE pbAtr, LPCBYTE pbAtrMask,
                                    DWORD cbAtrLen) {
    static constexpr CallFrame frame("SCardIntroduceCardTypeA", "INTRODUCE CARD TYPE",
                                     ResultFormat::Decimal);
    const ServiceState state = getServiceState();
    frame.in("%Ix, %s", hContext, szCardName);
    return frame.run([&] {
        const RemoteCall call = {.log = frame.log(),
                                 .state = state,
                                 .context = hContext,
                                 .redirection = redirectionFlag(state),
                                 .isGated = false};
        const CardType type = {
            szCardName, pguidPrimaryProvider, rgguidInterfaces, dwInterfaceCount, pbAtr, pbAtrMask,
            cbAtrLen};
        return updateOneSide(
            call, [&] { return introduceRemotely(call, type); },
            [&](SCARDCONTEXT systemContext) {
                return callSystem(&WinscardTable::SCardIntroduceCardTypeA, systemContext,
                                  szCardName, pguidPrimaryProvider, rgguidInterfaces,
                                  dwInterfaceCount, pbAtr, pbAtrMask, cbAtrLen);
            });
    });
}

LONG WINAPI SCardForgetCardTypeA(SCARDCONTEXT hContext, LPCSTR szCardName) {
    static constexpr CallFrame frame("SCardForgetCardTypeA", "FORGET CARD TYPE",
                                     ResultFormat::Decimal);
    const ServiceState state = getServiceState();
    frame.in("%Ix, %s", hContext, szCardName);
    return frame.run([&] {
        const RemoteCall call = {.log = frame.log(),
                                 .state = state,
                                 .context = hContext,
                                 .redirection = redirectionFlag(state),
                                 .isGated = false,
                                 .failureLines = kForgetFailureLines};
        return updateOneSide(
            call,
            [&]() -> LONG {
                const LONG rv = forgetRemotely(call, szCardName);
                // Behind the host any refusal of the daemon counts as a handle that it lacks.
                return rv != SCARD_S_SUCCESS && state == ServiceState::LocalFirst
                           ? SCARD_E_INVALID_HANDLE
                           : rv;
            },
            [&](SCARDCONTEXT systemContext) {
                return callSystem(&WinscardTable::SCardForgetCardTypeA, systemContext, szCardName);
            });
    });
}

LONG WINAPI SCardAudit(SCARDCONTEXT hContext, DWORD dwEvent) {
    static constexpr CallFrame frame("SCardAudit", "AUDIT", ResultFormat::Decimal);
    const ServiceState state = getServiceState();
    frame.in("%Ix, %lu", hContext, dwEvent);
    return frame.run([&] {
        const RemoteCall call = {.log = frame.log(),
                                 .state = state,
                                 .context = hContext,
                                 .redirection = redirectionFlag(state)};
        return updateOneSide(
            call, [&] { return auditRemotely(call, dwEvent); },
            [&](SCARDCONTEXT systemContext) {
                return callSystem(&WinscardTable::SCardAudit, systemContext, dwEvent);
            });
    });
}
