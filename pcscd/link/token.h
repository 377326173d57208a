#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tez::link {

inline constexpr std::size_t kTokenHalfSize = 32;
using TokenHalf = std::array<std::uint8_t, kTokenHalfSize>;

/// The secret that relay and agent share. Each end shows its own half and knows the other's, so
/// that neither end serves a stranger who found its socket or pipe, nor learns from one what to
/// show.
struct Token {
    TokenHalf relay;
    TokenHalf agent;

    bool operator==(const Token&) const = default;
};

/// The text of a token's file: three lines, of which the last two carry a half each in 64
/// hexadecimal digits.
///
///     pcsc-link token 1
///     relay 00112233...
///     agent 44556677...
std::string formatToken(const Token& token);

/// Takes the text of a token's file apart; lines may end as Windows ends them, and blanks at a
/// line's end and empty lines behind the last do not count. Nothing when it is anything else, a
/// token with two equal halves included: its agent could be imitated by whoever was shown the
/// relay's half.
std::optional<Token> parseToken(std::string_view text);

/// Compares in a time that does not tell how much of a guess was right.
bool isSameHalf(const TokenHalf& expected, const TokenHalf& shown);

}  // namespace tez::link
