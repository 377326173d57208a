#include "relay/heartbeat.h"

#include <array>
#include <vector>

#include "link/frame.h"

namespace tez::relay {
namespace {

/// Between beats the agent has nothing to say: the stream's end is all that can come.
bool staysSilent(AgentStream& control, pcscd::Limit limit, HANDLE stop) {
    std::array<std::uint8_t, 1> unexpected = {};
    return control.read(unexpected, {stop}, limit).error == ERROR_TIMEOUT;
}

}  // namespace

void keepBeating(AgentStream& control, const HeartbeatLimits& limits, HANDLE stop) {
    constexpr std::array<std::uint8_t, 1> kBeat = {'!'};
    const std::vector<std::uint8_t> expected = link::encodeFrame(kBeat);
    std::vector<std::uint8_t> echo(expected.size());
    while (control.write(kBeat, {stop}) && control.readAll(echo, stop, limits.silence) &&
           echo == expected && staysSilent(control, limits.interval, stop)) {
    }
}

}  // namespace tez::relay
