#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "hex.h"

namespace tez::client {

/// Makes text that is not at least `leastBytes` and at most `mostBytes` bytes in hexadecimal a
/// usage error.
inline CLI::Validator isHex(std::size_t leastBytes, std::size_t mostBytes) {
    const auto judge = [leastBytes, mostBytes](const std::string& text) -> std::string {
        const auto bytes = parseHex(text);
        if (!bytes) {
            return "not hexadecimal bytes: " + text;
        }
        return bytes->size() < leastBytes || bytes->size() > mostBytes
                   ? "wrong number of bytes: " + text
                   : "";
    };
    return {judge, "HEX"};
}

inline constexpr std::size_t kLongestApdu = 65544;  ///< extended: header, Lc, 65535 bytes, Le

}  // namespace tez::client
