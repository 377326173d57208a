#pragma once

#include <cstdint>
#include <string>

namespace tez::client {

/// The two status bytes SW1 SW2 at the end of a card's answer (ISO 7816-4).
using StatusWord = std::uint16_t;

inline constexpr StatusWord kSuccess = 0x9000;
inline constexpr StatusWord kEndOfFile = 0x6282;
inline constexpr StatusWord kWrongParameters = 0x6A86;
inline constexpr StatusWord kWrongOffset = 0x6B00;

/// Normal processing: 9000, or 61xx with more bytes to fetch.
bool isNormal(StatusWord word);

/// The status word in the standard's meaning: "6A82 file or application not found".
std::string describeStatusWord(StatusWord word);

/// The meaning alone.
std::string statusWordText(StatusWord word);

}  // namespace tez::client
