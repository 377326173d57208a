#pragma once

#include "pipe/pipe_end.h"
#include "relay/agent_stream.h"

namespace tez::relay {

/// Copies between a client's pipe and its stream to the agent until either ends, or until `cut` is
/// set. Either side may be slow: it holds up the other one and nothing else, and at most one piece
/// in each direction is kept here.
///
/// What the client sent before its end reaches the agent, and what the agent sent before its end
/// reaches the client.
void copyBothWays(pcscd::PipeEnd& pipe, AgentStream& agent, HANDLE cut);

}  // namespace tez::relay
