#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "json.h"

namespace tez::client {

/// A result code of a PC/SC call for people to read:
/// "SCARD_E_NO_SMARTCARD 0x8010000C, no card in the reader". A code that is not one of PC/SC's is
/// told in the system's words, or as the number alone.
std::string describeResult(LONG result);

/// {"code": "0x8010000C", "name": "SCARD_E_NO_SMARTCARD", "text": "no card in the reader"}; without
/// the name for a code that has none.
Json resultToJson(LONG result);

/// The code that PC/SC knows by this name, "SCARD_E_NO_SMARTCARD"; nullopt when there is none.
std::optional<LONG> parseResultName(std::string_view name);

/// Whether the code is one of those that PC/SC calls return by name.
bool hasResultName(LONG result);

}  // namespace tez::client
