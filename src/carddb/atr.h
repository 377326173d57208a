#pragma once

#include <cstdint>
#include <string>

namespace tez {

/// The longest ATR that ISO 7816-3 allows, TS included.
inline constexpr std::uint32_t kLongestAtr = 33;

/// The length of an ATR as its own structure tells it; 0 for null and for a malformed one (too many
/// interface bytes, or its TCK does not fit). A result above kLongestAtr means malformed too: there
/// are more historical bytes than an ATR has room for. Reads no further than the structure leads
/// and never more than kLongestAtr bytes.
std::uint32_t parseAtrLength(const std::uint8_t* atr) noexcept;

/// Two upper-case hexadecimal digits for each byte; empty for null bytes.
std::string atrToHex(const std::uint8_t* bytes, std::uint32_t length);

}  // namespace tez
