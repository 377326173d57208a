#pragma once

#include <cstdint>

#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"

namespace tez {

/// A card that the daemon serves, as a call on it sees it.
struct RemoteCard {
    std::uint64_t target;  ///< the daemon's card handle
    SCARDCONTEXT context;  ///< the application's context that it was connected under
    ServiceState state;    ///< as read at the start of the call

    /// Whether the application still holds that context.
    bool hasContext() const noexcept { return isContextKnown(context); }
};

/// Sends a call on a card handle to the side that serves the card; there is no fallback, for a card
/// connected on one side is not known to the other.
/// @param local   called with the system library's card handle and the application's context.
/// @param remote  called with the RemoteCard.
/// @return SCARD_E_INVALID_HANDLE for an unknown handle, a remote card while the daemon is gone, or
///         a local card when every call is to go to the daemon; else what the side returned.
template <class Local, class Remote>
LONG routeCardCall(SCARDHANDLE card, Local local, Remote remote) {
    const ServiceState state = getServiceState();
    const bool isLocal = isLocalCard(card);
    const std::uint64_t target = getCardTarget(card);
    // The last of the three: a handle that is known now was known before, as none is issued twice,
    // so that a disconnect on another thread cannot leave a call without its card.
    const SCARDCONTEXT context = getCardContext(card);
    if (context == 0) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (isLocal && state != ServiceState::RemoteOnly) {
        return local(target, context);
    }
    if (isLocal || state == ServiceState::LocalOnly) {
        return SCARD_E_INVALID_HANDLE;
    }
    return remote(RemoteCard{target, context, state});
}

}  // namespace tez
