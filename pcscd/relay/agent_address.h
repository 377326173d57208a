#pragma once

#include <optional>
#include <string>

namespace tez::relay {

/// Where the agent is reached: as a rule this end of a tunnel.
struct AgentAddress {
    std::string host;
    std::string port;

    /// As it was given: HOST:PORT, or [HOST]:PORT for an IPv6 address.
    std::string text() const;
};

/// Nothing when the text is not of the form HOST:PORT with a port from 1 to 65535.
std::optional<AgentAddress> parseAgentAddress(const std::string& text);

/// Whether what is sent to the host cannot leave this machine. Asks no name service: `localhost` is
/// the only name that counts.
bool isLoopback(const std::string& host);

}  // namespace tez::relay
