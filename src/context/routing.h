#pragma once

#include "common/scard_api.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "log/function_log.h"

namespace tez {

/// Serves a call by the host first, and by the daemon when the host could not and the daemon is
/// connected. Both functions take no arguments and return a PC/SC code.
/// @return the code of the side that served the call.
template <class Local, class Remote>
[[nodiscard]] LONG localFirst(const FunctionLog& log, ServiceState state, Local local,
                              Remote remote) {
    if (state != ServiceState::RemoteOnly) {
        const LONG rv = local();
        if (rv == SCARD_S_SUCCESS || state == ServiceState::LocalOnly) {
            return rv;
        }
        log.debug("local call failed with 0x%08lX, falling back to remote call",
                  static_cast<unsigned long>(rv));
    }
    return remote();
}

/// A call on the system counterpart of a context.
/// @param call  called with the system context; returns a PC/SC code.
/// @return SCARD_E_INVALID_HANDLE for a context without one, else what was called returned.
template <class Call>
[[nodiscard]] LONG withLocalContext(SCARDCONTEXT context, Call call) {
    const SCARDCONTEXT systemContext = getLocalContext(context);
    return systemContext == 0 ? SCARD_E_INVALID_HANDLE : call(systemContext);
}

/// As withLocalContext, for calls that the host serves without a context too: the null context is
/// the system's null context.
template <class Call>
[[nodiscard]] LONG withLocalSide(SCARDCONTEXT context, Call call) {
    return context == 0 ? call(SCARDCONTEXT{0}) : withLocalContext(context, call);
}

}  // namespace tez
