#pragma once

#include <cstdint>

#include "common/scard_api.h"

namespace tez {

/// Asks the daemon for a context of its own. One of the application's may have two there, and the
/// flag says which of them this is; connection kinds may tell the two apart:
/// - "remote" (true) is for what the application asks of the remote user's side;
/// - "remote-local" (false) stands in for the context that it has on the host otherwise, when every
///   call goes to the daemon: for calls on the card database, which are the host's unless all calls
///   are redirected.
/// @return a PC/SC code; remoteContext is written only on success. SCARD_E_NO_SERVICE when there is
///         no connection. No lock may be held.
[[nodiscard]] LONG establishRemoteContext(DWORD scope, std::uint64_t& remoteContext,
                                          bool remoteFlag);

/// Releases a daemon context. Failures are logged; callers have no use for the result.
[[nodiscard]] LONG releaseRemoteContext(std::uint64_t remoteContext, bool remoteFlag);

}  // namespace tez
