#include "command_apdu.h"

#include <winscard.h>

#include "failure.h"
#include "hex.h"

namespace tez::client {

Bytes CommandApdu::encode(DWORD protocol) const {
    Bytes bytes = {cla, ins, p1, p2};
    if (!data.empty()) {
        bytes.push_back(static_cast<std::uint8_t>(data.size()));
        bytes.insert(bytes.end(), data.begin(), data.end());
    }
    if (expected && (data.empty() || protocol != SCARD_PROTOCOL_T0)) {
        bytes.push_back(static_cast<std::uint8_t>(*expected & 0xFFU));
    }
    return bytes;
}

CommandApdu selectApplication(ByteView aid) {
    return {.ins = 0xA4, .p1 = 0x04, .data = {aid.begin(), aid.end()}, .expected = 256};
}

CommandApdu selectFile(std::uint16_t id) {
    return {.ins = 0xA4,
            .p1 = 0x02,
            .p2 = 0x0C,
            .data = {static_cast<std::uint8_t>(id >> 8U), static_cast<std::uint8_t>(id & 0xFFU)},
            .expected = {}};
}

CommandApdu readBinary(unsigned offset, unsigned length) {
    return {.ins = 0xB0,
            .p1 = static_cast<std::uint8_t>(offset >> 8U),
            .p2 = static_cast<std::uint8_t>(offset & 0xFFU),
            .data = {},
            .expected = length};
}

CommandApdu verifyPin(std::uint8_t reference, ByteView pin) {
    return {.ins = 0x20, .p2 = reference, .data = {pin.begin(), pin.end()}, .expected = {}};
}

ResponseApdu parseResponse(ByteView answer) {
    if (answer.size() < 2) {
        throw Failure("the card's answer is too short: " + formatHex(answer));
    }
    const ByteView data = answer.first(answer.size() - 2);
    const ByteView status = answer.last(2);
    return {{data.begin(), data.end()}, static_cast<StatusWord>(status[0] << 8U | status[1])};
}

}  // namespace tez::client
