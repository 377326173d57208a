#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"

namespace tez::client {

/// Two digits for each byte, upper or lower case, with or without spaces or colons between the
/// bytes. nullopt when the text is anything else; the empty text is no bytes.
std::optional<Bytes> parseHex(std::string_view text);

/// "00 A4 04 00"
std::string formatHex(ByteView bytes);

/// "001F" for digitCount = 4; digits that do not fit are left out.
std::string formatDigits(std::uint32_t value, int digitCount);

/// What can be shown of the bytes as text: printable ASCII, a dot for anything else.
std::string printable(ByteView bytes);

/// One line for each 16 bytes: offset, bytes, text.
std::vector<std::string> dumpLines(ByteView bytes);

}  // namespace tez::client
