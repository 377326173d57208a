#include "exchange.h"

#include <algorithm>

#include "failure.h"
#include "hex.h"
#include "output.h"

namespace tez::client {
namespace {

constexpr std::size_t kHeaderSize = 5;  // CLA INS P1 P2 Lc

std::string shownCommand(ByteView command, Show show) {
    if (show == Show::kAll || command.size() <= kHeaderSize) {
        return formatHex(command);
    }
    std::string text = formatHex(command.first(kHeaderSize));
    for (std::size_t hidden = kHeaderSize; hidden < command.size(); ++hidden) {
        text += " **";
    }
    return text;
}

unsigned lengthIn(StatusWord status) {
    const unsigned low = status & 0xFFU;
    return low == 0 ? 256 : low;
}

}  // namespace

ResponseApdu sendBytes(const Card& card, ByteView command, Show show) {
    printField("command", shownCommand(command, show));
    const Bytes answer = card.transmit(command);
    printField("answer", formatHex(answer));
    ResponseApdu response = parseResponse(answer);
    printField("status", describeStatusWord(response.status));
    return response;
}

ResponseApdu sendCommand(const Card& card, const CommandApdu& command, Show show) {
    ResponseApdu response = sendBytes(card, command.encode(card.protocol()), show);
    if (response.status >> 8U == 0x6C) {
        CommandApdu repeated = command;
        repeated.expected = lengthIn(response.status);
        response = sendBytes(card, repeated.encode(card.protocol()), show);
    }
    // A card that promises more but gives nothing ends this, too.
    for (bool gotMore = true; gotMore && response.status >> 8U == 0x61;) {
        const CommandApdu getResponse = {
            .cla = command.cla, .ins = 0xC0, .data = {}, .expected = lengthIn(response.status)};
        const ResponseApdu more = sendBytes(card, getResponse.encode(card.protocol()));
        gotMore = !more.data.empty();
        response.data.insert(response.data.end(), more.data.begin(), more.data.end());
        response.status = more.status;
    }
    return response;
}

ResponseApdu sendSuccessfully(const Card& card, const CommandApdu& command, Show show) {
    ResponseApdu response = sendCommand(card, command, show);
    if (!isNormal(response.status)) {
        throw Failure();
    }
    return response;
}

}  // namespace tez::client
