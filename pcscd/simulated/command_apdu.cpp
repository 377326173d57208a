#include "simulated/command_apdu.h"

namespace tez::pcscd {
namespace {

constexpr std::size_t kHeaderSize = 4;

std::size_t be16(std::span<const std::uint8_t> bytes) {
    return static_cast<std::size_t>(bytes[0]) << 8 | bytes[1];
}

void setExpected(CommandApdu& apdu, std::size_t le, std::size_t most) {
    apdu.expectsAll = le == 0;
    apdu.expected = apdu.expectsAll ? most : le;
}

}  // namespace

std::optional<CommandApdu> CommandApdu::parse(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < kHeaderSize) {
        return std::nullopt;
    }
    CommandApdu apdu{bytes[0], bytes[1], bytes[2], bytes[3], {}, std::nullopt, false};
    std::span<const std::uint8_t> rest = bytes.subspan(kHeaderSize);
    if (rest.empty()) {
        return apdu;
    }

    // A first length byte of zero, with more to come, announces lengths of two bytes each.
    const bool extended = rest[0] == 0 && rest.size() > 1;
    const std::size_t width = extended ? 2 : 1;
    const std::size_t most = extended ? 65536 : 256;
    if (extended) {
        rest = rest.subspan(1);
    }
    const auto length = [width](std::span<const std::uint8_t> field) {
        return width == 2 ? be16(field) : field[0];
    };

    if (rest.size() < width) {
        return std::nullopt;
    }
    if (rest.size() == width) {
        setExpected(apdu, length(rest), most);
        return apdu;
    }
    const std::size_t dataLength = length(rest);
    rest = rest.subspan(width);
    if (dataLength == 0 || rest.size() < dataLength) {
        return std::nullopt;
    }
    apdu.data = rest.first(dataLength);
    rest = rest.subspan(dataLength);
    if (rest.empty()) {
        return apdu;
    }
    if (rest.size() != width) {
        return std::nullopt;
    }
    setExpected(apdu, length(rest), most);
    return apdu;
}

}  // namespace tez::pcscd
