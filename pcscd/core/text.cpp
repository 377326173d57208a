#include "core/text.h"

#include <algorithm>
#include <array>

namespace tez::pcscd {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void putUnit(Bytes& bytes, char32_t unit) {
    bytes.push_back(static_cast<std::uint8_t>(unit & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(unit >> 8 & 0xFF));
}

/// Takes one character off the front of a text that is not empty.
char32_t takeCharacter(std::string_view& text) {
    const auto lead = static_cast<std::uint8_t>(text.front());
    text.remove_prefix(1);
    if (lead < 0x80) {
        return lead;
    }
    // The shortest characters that need 2, 3 and 4 bytes; what is written longer is not UTF-8.
    constexpr std::array<char32_t, 5> kShortest = {0, 0, 0x80, 0x800, 0x10000};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    char32_t character = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (text.empty() || (static_cast<std::uint8_t>(text.front()) & 0xC0) != 0x80) {
            return kReplacement;
        }
        character = character << 6 | (static_cast<std::uint8_t>(text.front()) & 0x3FU);
        text.remove_prefix(1);
    }
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    const bool isCharacter = lead >= 0xC0 && lead < 0xF8 && character >= kShortest[length] &&
                             character <= 0x10FFFF && !isSurrogate;
    return isCharacter ? character : kReplacement;
}

}  // namespace

std::optional<std::string> textIn(std::span<const char> field) {
    const auto end = std::ranges::find(field, '\0');
    return end == field.end() ? std::nullopt : std::optional(std::string(field.begin(), end));
}

std::optional<std::string> wholeText(std::span<const std::uint8_t> data) {
    const auto end = std::ranges::find(data, std::uint8_t{0});
    if (end == data.end() || end + 1 != data.end()) {
        return std::nullopt;
    }
    return std::string(data.begin(), end);
}

Bytes terminated(std::string_view text) {
    Bytes bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

Bytes multiString(const std::vector<std::string>& texts) {
    Bytes bytes;
    for (const std::string& text : texts) {
        bytes.insert(bytes.end(), text.begin(), text.end());
        bytes.push_back(0);
    }
    bytes.push_back(0);
    return bytes;
}

Bytes terminatedWide(std::string_view utf8) {
    Bytes bytes;
    while (!utf8.empty()) {
        const char32_t character = takeCharacter(utf8);
        if (character >= 0x10000) {
            putUnit(bytes, 0xD800 + ((character - 0x10000) >> 10));
            putUnit(bytes, 0xDC00 + ((character - 0x10000) & 0x3FF));
        } else {
            putUnit(bytes, character);
        }
    }
    putUnit(bytes, 0);
    return bytes;
}

}  // namespace tez::pcscd
