#include "hex.h"

#include <algorithm>
#include <cstddef>

namespace tez::client {
namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::size_t kDumpWidth = 16;

std::optional<std::uint8_t> digitValue(char digit) {
    if (digit >= 'a' && digit <= 'f') {
        digit = static_cast<char>(digit - 'a' + 'A');
    }
    const std::size_t value = kDigits.find(digit);
    if (value == std::string_view::npos) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(value);
}

}  // namespace

std::optional<Bytes> parseHex(std::string_view text) {
    Bytes bytes;
    std::size_t position = 0;
    while (position < text.size()) {
        if (text[position] == ' ' || text[position] == ':') {
            ++position;
            continue;
        }
        const auto high = digitValue(text[position]);
        const auto low = position + 1 < text.size() ? digitValue(text[position + 1]) : std::nullopt;
        if (!high || !low) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(*high << 4U | *low));
        position += 2;
    }
    return bytes;
}

std::string formatDigits(std::uint32_t value, int digitCount) {
    std::string text;
    for (int shift = (digitCount - 1) * 4; shift >= 0; shift -= 4) {
        text.push_back(kDigits[(value >> static_cast<unsigned>(shift)) & 0xF]);
    }
    return text;
}

std::string formatHex(ByteView bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text.append(text.empty() ? "" : " ").append(formatDigits(byte, 2));
    }
    return text;
}

std::string printable(ByteView bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    return text;
}

std::vector<std::string> dumpLines(ByteView bytes) {
    std::vector<std::string> lines;
    for (std::size_t offset = 0; offset < bytes.size(); offset += kDumpWidth) {
        const ByteView row = bytes.subspan(offset, std::min(kDumpWidth, bytes.size() - offset));
        std::string hex = formatHex(row);
        hex.resize(kDumpWidth * 3, ' ');
        lines.push_back(formatDigits(static_cast<std::uint32_t>(offset), 4) + "  " + hex + " " +
                        printable(row));
    }
    return lines;
}

}  // namespace tez::client
