#pragma once

#include <cstdint>

#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/exchange.h"
#include "daemon/service_state.h"
#include "log/switches.h"

namespace tez {

/// Whether a card-database call may go to the daemon, rather than stay on the host.
inline bool isRemoteAllowed(ServiceState state) noexcept {
    return state == ServiceState::RemoteOnly ||
           (state == ServiceState::LocalFirst && isAllCallsRedirectionEnabled());
}

/// Which of a context's two at the daemon a call uses, see establishRemoteContext: "remote" (true),
/// or "remote-local".
inline bool redirectionFlag(ServiceState state) noexcept {
    return state != ServiceState::RemoteOnly || isAllCallsRedirectionEnabled();
}

/// What a call of the card database or the cache needs before it can exchange its record.
struct RemoteCall {
    const FunctionLog& log;
    ServiceState state = ServiceState::LocalOnly;
    SCARDCONTEXT context = 0;
    bool redirection = true;  ///< see redirectionFlag
    bool isGated = true;      ///< whether the daemon has to be new enough
    const FailureLines& failureLines = kFailureLines;
};

/// Gets the daemon's context and a connection, and calls exchange(Exchange&, remoteContext), again
/// when the header was given up (see Exchange::adapt). A null context is the daemon's context 0;
/// calls that need another one check it before.
/// @return SCARD_E_NO_SERVICE without a connection, SCARD_F_INTERNAL_ERROR when the daemon is too
///         old, the code of the context's establishment when that fails; else what the exchange
///         returned.
template <class DoExchange>
[[nodiscard]] LONG callRemotely(const RemoteCall& call, DoExchange exchangeRecords) {
    std::uint64_t remoteContext = 0;
    if (call.context != 0) {
        const LONG rv = getRemoteContextVolatile(call.context, remoteContext, call.redirection);
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
    }
    Exchange exchange(call.log, call.failureLines);
    if (!exchange.isConnected()) {
        return SCARD_E_NO_SERVICE;
    }
    const auto attempt = [&] { return exchangeRecords(exchange, remoteContext); };
    return call.isGated ? exchange.ifCompatible(call.state, attempt) : attempt();
}

/// Refuses an argument, and says why.
inline LONG refuse(const FunctionLog& log, const char* reason) noexcept {
    log.line(LogLevel::Debug, reason);
    return SCARD_E_INVALID_PARAMETER;
}

/// The check of the query calls: the context must be one of the library's.
inline bool checkKnown(const FunctionLog& log, SCARDCONTEXT context) noexcept {
    const bool isKnown = isContextKnown(context);
    if (!isKnown) {
        log.warning("Invalid context handle");
    }
    return isKnown;
}

}  // namespace tez
