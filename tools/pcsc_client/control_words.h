#pragma once

#include <cstdint>
#include <string>

namespace tez::client {

/// Whether the number is built like a control code for smart-card readers.
bool isReaderControlCode(std::uint32_t code);

/// A control code taken apart: "smart-card reader, function 3400 (0xD48): the features that the
/// reader has".
std::string describeControlCode(std::uint32_t code);

}  // namespace tez::client
