#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "daemon/daemon_connection.h"

namespace tez::fuzz {

/// A daemon that answers with bytes given in advance, whatever it is asked; and the pool's only
/// connection, which leads to it. Watches what the library does: that each request is sent as a
/// whole and no more is read than its answer is made of, and that the connection is given back
/// between two answers, or closed.
class ScriptedDaemon {
  public:
    struct Behaviour {
        ServiceState state = ServiceState::RemoteOnly;
        std::uint32_t minor = 0;  ///< of the version; the major one goes with the state
        bool isStale = false;     ///< the first header is carried over to a daemon of staleMinor
        std::uint32_t staleMinor = 0;
        bool opensAgain = true;  ///< once the connection was closed
    };

    /// The answers are borrowed. One that is not there as a whole ends the connection.
    ScriptedDaemon(const Behaviour& behaviour, std::span<const std::uint8_t> answers);
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;
    /// The connection has to be back.
    ~ScriptedDaemon();
};

}  // namespace tez::fuzz
