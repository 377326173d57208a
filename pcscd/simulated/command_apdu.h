#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tez::pcscd {

/// A command APDU of ISO 7816-4 taken apart. `data` points into the bytes it was parsed from.
struct CommandApdu {
    std::uint8_t cla = 0;
    std::uint8_t ins = 0;
    std::uint8_t p1 = 0;
    std::uint8_t p2 = 0;
    std::span<const std::uint8_t> data;
    std::optional<std::size_t> expected;  ///< Ne: 256 for a short Le of 00, 65536 for 0000
    bool expectsAll = false;              ///< Le was zero: as much as there is, up to `expected`

    /// Parses the cases 1 to 4, short and extended; nullopt when lengths and bytes do not agree.
    static std::optional<CommandApdu> parse(std::span<const std::uint8_t> bytes);
};

}  // namespace tez::pcscd
