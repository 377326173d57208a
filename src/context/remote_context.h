#pragma once

#include <cstdint>

#include "common/scard_api.h"

namespace tez {

/// Asks the daemon for a context of its own. The flag says which binding it is for ("remote" or
/// "remote-local"); connection kinds may tell the two apart.
/// @return a PC/SC code; remoteContext is written only on success. SCARD_E_NO_SERVICE when there is
///         no connection. No lock may be held.
[[nodiscard]] LONG establishRemoteContext(DWORD scope, std::uint64_t& remoteContext,
                                          bool remoteFlag);

/// Releases a daemon context. Failures are logged; callers have no use for the result.
[[nodiscard]] LONG releaseRemoteContext(std::uint64_t remoteContext, bool remoteFlag);

}  // namespace tez
