#pragma once

#include <cstdint>

namespace tez {

/// Which side serves a call. Read once at the start of a call, which keeps that value.
enum class ServiceState : std::int32_t {
    LocalOnly = 0,   ///< the daemon's pipe is not connected
    LocalFirst = 1,  ///< the pipe is connected: the host first, then the daemon
    /// Every call goes to the daemon. Nothing stores this value today; the routing honours it so
    /// that a service kind which takes all calls needs no change in them.
    RemoteOnly = 2,
};

/// Any thread may call either; only the availability monitor stores.
ServiceState getServiceState() noexcept;
void setServiceState(ServiceState state) noexcept;

}  // namespace tez
