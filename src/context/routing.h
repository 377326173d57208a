#pragma once

#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "log/function_log.h"
#include "log/switches.h"

namespace tez {

/// What the host answers a call with if it serves it.
constexpr bool isSuccess(LONG rv) noexcept {
    return rv == SCARD_S_SUCCESS;
}

/// Serves a call by the host first, and by the daemon when the host could not and the daemon is
/// connected. Both functions take no arguments and return a PC/SC code.
/// @param isAnswer  whether a code of the host is the call's, without a question to the daemon.
/// @return the code of the side that served the call.
template <class Local, class Remote, class IsAnswer = bool (*)(LONG)>
[[nodiscard]] LONG localFirst(const FunctionLog& log, ServiceState state, Local local,
                              Remote remote, IsAnswer isAnswer = isSuccess) {
    if (state != ServiceState::RemoteOnly) {
        const LONG rv = local();
        if (isAnswer(rv) || state == ServiceState::LocalOnly) {
            return rv;
        }
        log.debug("local call failed with 0x%08lX, falling back to remote call",
                  static_cast<unsigned long>(rv));
    }
    return remote();
}

/// Whether a code says that a side has no smart-card service: none that runs, or no library.
constexpr bool isNoService(LONG rv) noexcept {
    return rv == SCARD_E_NO_SERVICE || rv == SCARD_E_SERVICE_STOPPED ||
           rv == SCARD_F_INTERNAL_ERROR;
}

/// What the host says of a context that has no system counterpart: with standard answers a context
/// may be without one for as long as the host has no service.
inline LONG hostlessResult(SCARDCONTEXT context) noexcept {
    return isContextKnown(context) && isStandardCallsEnabled() ? SCARD_E_NO_SERVICE
                                                               : SCARD_E_INVALID_HANDLE;
}

/// A call on the system counterpart of a context.
/// @param call  called with the system context; returns a PC/SC code.
/// @return hostlessResult for a context without one, else what was called returned.
template <class Call>
[[nodiscard]] LONG withLocalContext(SCARDCONTEXT context, Call call) {
    const SCARDCONTEXT systemContext = getLocalContext(context);
    return systemContext == 0 ? hostlessResult(context) : call(systemContext);
}

/// As withLocalContext, for calls that the host serves without a context too: the null context is
/// the system's null context.
template <class Call>
[[nodiscard]] LONG withLocalSide(SCARDCONTEXT context, Call call) {
    return context == 0 ? call(SCARDCONTEXT{0}) : withLocalContext(context, call);
}

}  // namespace tez
