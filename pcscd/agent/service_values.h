#pragma once

#include <winscard.h>

#include <cstdint>

#include "core/platform.h"

// The PC/SC service of this system numbers some things otherwise than the Windows interface does,
// and its integers are 64 bits wide.
namespace tez::agent {

/// @param code of a call on a card. When the service has ended or restarted the card's reader is no
/// more what the caller has a handle for.
pcscd::Result toCardResult(LONG code);

/// Drops bits that the service does not know, such as the one that asks for default parameters.
DWORD toServiceProtocols(std::uint32_t protocols);
std::uint32_t fromServiceProtocol(DWORD chosen);

/// The control code of the service for a function number.
DWORD toControlCode(std::uint32_t function);

}  // namespace tez::agent
