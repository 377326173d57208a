#pragma once

#include <cstdint>
#include <span>

namespace tez::pcscd {

/// The file of the icon that every reader has: one black 1 x 1 image of 32 bits.
std::span<const std::uint8_t> readerIcon();

}  // namespace tez::pcscd
