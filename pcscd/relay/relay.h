#pragma once

#include "pipe/pipe_server.h"
#include "relay/heartbeat.h"
#include "relay/log.h"

namespace tez::relay {

/// What a relay is to do.
struct RelaySettings {
    AgentStream::Peer agent;
    pcscd::PipeServer::Settings pipe{.bufferSize = 64U << 10U};  // as much as a piece has
    HeartbeatLimits heartbeat;
    pcscd::Limit retry{500};  ///< between tries to reach the agent
};

/// Reaches for the agent again and again and serves the pipe whenever it is there, until `stop` is
/// set. `log` is borrowed.
void runRelay(const RelaySettings& settings, HANDLE stop, Log& log);

}  // namespace tez::relay
