#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tez::link {

inline void putLittleEndian(std::span<std::uint8_t, 4> bytes, std::uint32_t value) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(value >> 8U * i);
    }
}

inline std::uint32_t littleEndian(std::span<const std::uint8_t, 4> bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        value |= static_cast<std::uint32_t>(bytes[i]) << 8U * i;
    }
    return value;
}

}  // namespace tez::link
