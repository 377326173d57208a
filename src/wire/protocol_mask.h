#pragma once

#include <cstdint>

namespace tez {

inline constexpr std::uint32_t kWireRaw = 4;  ///< the daemon's bit for the raw protocol

/// Turns the platform's protocol bits (T=0 is 1, T=1 is 2, raw is 0x10000) into the daemon's, where
/// raw is 4. Every other bit passes unchanged.
std::uint32_t convert_protocol_to_wire(std::uint32_t value) noexcept;

/// The way back: raw, 4 on the wire, becomes 0x10000; every other bit passes unchanged.
std::uint32_t convert_protocol_from_wire(std::uint32_t value) noexcept;

}  // namespace tez
