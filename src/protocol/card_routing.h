#pragma once

#include <cstdint>
#include <memory>

#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "context/context_registry.h"
#include "daemon/service_state.h"
#include "log/switches.h"

namespace tez {

/// A card that the daemon serves, as a call on it sees it.
struct RemoteCard {
    const CardHandleEntry& entry;
    ServiceState state;  ///< as read at the start of the call

    /// The daemon's card handle.
    std::uint64_t target() const noexcept { return entry.target; }

    /// Whether the application still holds the context that the card was connected under. A call
    /// without it gives SCARD_E_INVALID_HANDLE. It is looked at
    /// - before a connection is taken, as a rule;
    /// - by SCardGetAttrib as soon as there is a connection;
    /// - by SCardTransmit, SCardControl and SCardSetAttrib right before the request, behind all
    ///   that they check with the daemon's version;
    /// - by SCardStatus never.
    bool hasContext() const noexcept { return isContextKnown(entry.context); }
};

/// Whether a remote card went with its daemon, even if another one is there now. By default that is
/// not looked at: the handle goes out unchanged to whichever daemon there is.
inline bool hasGoneWithDaemon(const CardHandleEntry& entry, ServiceState state) noexcept {
    return isStandardCallsEnabled() &&
           (state == ServiceState::LocalOnly || entry.daemon != currentDaemon());
}

/// What card calls say of such a card.
inline LONG refuseGoneCard() noexcept {
    return SCARD_E_READER_UNAVAILABLE;
}

/// Sends a call on a card handle to the side that serves the card; there is no fallback, for a card
/// connected on one side is not known to the other.
/// @param local   called with the system library's card handle and the application's context.
/// @param remote  called with the RemoteCard.
/// @param gone    called for a card that hasGoneWithDaemon.
/// @return SCARD_E_INVALID_HANDLE for an unknown handle, a remote card while the daemon is gone, or
///         a local card when every call is to go to the daemon; else what the side returned.
template <class Local, class Remote, class Gone = LONG (*)() noexcept>
[[nodiscard]] LONG routeCardCall(SCARDHANDLE card, Local local, Remote remote,
                                 Gone gone = refuseGoneCard) {
    const ServiceState state = getServiceState();
    const std::shared_ptr<const CardHandleEntry> entry = findCardHandle(card);
    if (entry == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (entry->isLocal && state != ServiceState::RemoteOnly) {
        return local(entry->target, entry->context);
    }
    if (!entry->isLocal && hasGoneWithDaemon(*entry, state)) {
        return gone();
    }
    if (entry->isLocal || state == ServiceState::LocalOnly) {
        return SCARD_E_INVALID_HANDLE;
    }
    return remote(RemoteCard{*entry, state});
}

}  // namespace tez
