#pragma once

#include <string>

#include "core/traffic.h"

namespace tez::sim {

/// "TRANSMIT", or "command 17" for one that has no name.
std::string commandName(pcscd::Command command);

/// "connection 1: ", which begins a line about it.
std::string describeConnection(std::uint64_t connection);

/// "1.4"
std::string describe(pcscd::ProtocolVersion version);

/// "connection 1: handshake, token 00, option FF FF FF FF, protocol 1.4"
std::string describe(const pcscd::Handshake& handshake);

/// "connection 2: TRANSMIT 33 bytes, data 00 A4 04 00 00"; the data phase is shown for transmit and
/// control only.
std::string describe(const pcscd::Request& request);

}  // namespace tez::sim
