#pragma once

#include <memory>

#include "daemon/daemon_connection.h"

namespace tez {

// The process-wide pool of idle connections, at most eight. Any thread may call.

/// Takes an idle connection, or makes one if there is none and the service state is LocalFirst;
/// null in any other state. It has been asked to connect, but whether it could is not looked at: on
/// a closed connection the first send fails with SCARD_E_NO_SERVICE. The caller owns it until it
/// gives it to releaseConnection.
std::unique_ptr<DaemonConnection> acquireConnection();

/// Takes a connection back; null is ignored. It is closed instead of kept when the service state is
/// no longer the one it serves under, or when eight idle ones are there already.
void releaseConnection(std::unique_ptr<DaemonConnection> connection) noexcept;

/// Closes every idle connection, so that no call reuses one from before a change of the service.
void clearConnectionPool() noexcept;

}  // namespace tez
