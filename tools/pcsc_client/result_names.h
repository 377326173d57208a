#pragma once

#include <windows.h>

#include <string>

namespace tez::client {

/// A result code of a PC/SC call for people to read:
/// "SCARD_E_NO_SMARTCARD 0x8010000C, no card in the reader". A code that is not one of PC/SC's is
/// told in the system's words, or as the number alone.
std::string describeResult(LONG result);

}  // namespace tez::client
