#pragma once

#include "relay/agent_stream.h"

namespace tez::relay {

struct HeartbeatLimits {
    pcscd::Limit interval = link::kHeartbeatInterval;  ///< between an echo and the next beat
    pcscd::Limit silence = link::kSilenceLimit;        ///< until an echo must have come
};

/// Sends a byte on the control stream again and again, and returns when the agent does not send it
/// back, when the stream ends, or when `stop` is set.
void keepBeating(AgentStream& control, const HeartbeatLimits& limits, HANDLE stop);

}  // namespace tez::relay
