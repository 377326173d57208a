#pragma once

#include <windows.h>

#include <string>

namespace tez::client {

/// A card's state as SCardStatus reports it (SCARD_ABSENT ...), in words.
std::string describeCardState(DWORD state);

/// "T=0", "T=1", "raw" or "none".
std::string describeProtocol(DWORD protocol);

/// A reader's state as SCardGetStatusChange reports it (SCARD_STATE_... bits), in words, without
/// the bit that says that it changed.
std::string describeReaderState(DWORD state);

}  // namespace tez::client
