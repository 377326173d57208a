#include "link/token.h"

#include <algorithm>

namespace tez::link {
namespace {

constexpr std::string_view kTitle = "pcsc-link token 1";
constexpr std::string_view kRelay = "relay ";
constexpr std::string_view kAgent = "agent ";
constexpr std::string_view kDigits = "0123456789abcdef";

std::string toHex(const TokenHalf& half) {
    std::string text;
    for (const std::uint8_t byte : half) {
        text.push_back(kDigits[byte >> 4U]);
        text.push_back(kDigits[byte & 0xFU]);
    }
    return text;
}

std::optional<std::uint8_t> digitOf(char character) {
    if (character >= 'A' && character <= 'F') {
        character = static_cast<char>(character - 'A' + 'a');
    }
    const std::size_t digit = kDigits.find(character);
    if (digit == std::string_view::npos) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(digit);
}

std::optional<TokenHalf> fromHex(std::string_view text) {
    TokenHalf half = {};
    if (text.size() != 2 * half.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < half.size(); ++i) {
        const std::optional<std::uint8_t> high = digitOf(text[2 * i]);
        const std::optional<std::uint8_t> low = digitOf(text[2 * i + 1]);
        if (!high || !low) {
            return std::nullopt;
        }
        half[i] = static_cast<std::uint8_t>(*high << 4U | *low);
    }
    return half;
}

/// Cuts the first line off the text and returns it without the blanks at its end.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line.substr(0, line.find_last_not_of(" \t\r") + 1);
}

std::optional<TokenHalf> halfIn(std::string_view line, std::string_view owner) {
    return line.starts_with(owner) ? fromHex(line.substr(owner.size())) : std::nullopt;
}

}  // namespace

std::string formatToken(const Token& token) {
    std::string text(kTitle);
    text.append("\n").append(kRelay).append(toHex(token.relay));
    text.append("\n").append(kAgent).append(toHex(token.agent)).append("\n");
    return text;
}

std::optional<Token> parseToken(std::string_view text) {
    if (takeLine(text) != kTitle) {
        return std::nullopt;
    }
    const std::optional<TokenHalf> relay = halfIn(takeLine(text), kRelay);
    const std::optional<TokenHalf> agent = halfIn(takeLine(text), kAgent);
    const bool ended = text.find_first_not_of(" \t\r\n") == std::string_view::npos;
    if (!relay || !agent || *relay == *agent || !ended) {
        return std::nullopt;
    }
    return Token{*relay, *agent};
}

bool isSameHalf(const TokenHalf& expected, const TokenHalf& shown) {
    // Volatile: a compiler that sees the outcome decided may otherwise leave the loop early.
    volatile std::uint8_t difference = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        difference = static_cast<std::uint8_t>(difference | (expected[i] ^ shown[i]));
    }
    return difference == 0;
}

}  // namespace tez::link
