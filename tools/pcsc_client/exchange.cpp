#include "exchange.h"

#include <algorithm>

#include "failure.h"
#include "hex.h"

namespace tez::client {
namespace {

constexpr std::size_t kHeaderSize = 5;        // CLA INS P1 P2 Lc
constexpr std::size_t kLongestChain = 65536;  // bytes of data; no Le asks for more

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

ResponseApdu sendBytes(Report& report, const Card& card, ByteView command, Show show) {
    const std::string shown = shownCommand(command, show);
    report.field("command", shown);
    const Bytes answer = card.transmit(command);
    report.field("answer", formatHex(answer));
    ResponseApdu response = parseResponse(answer);
    report.field("status", describeStatusWord(response.status));
    report.data()["exchanges"].push_back({{"command", shown},
                                          {"answer", formatHex(answer)},
                                          {"status", formatDigits(response.status, 4)},
                                          {"text", statusWordText(response.status)}});
    return response;
}

ResponseApdu sendCommand(Report& report, const Card& card, const CommandApdu& command, Show show) {
    ResponseApdu response = sendBytes(report, card, command.encode(card.protocol()), show);
    if (response.status >> 8U == 0x6C) {
        CommandApdu repeated = command;
        repeated.expected = lengthIn(response.status);
        response = sendBytes(report, card, repeated.encode(card.protocol()), show);
    }
    while (response.status >> 8U == 0x61) {
        const CommandApdu getResponse = {
            .cla = command.cla, .ins = 0xC0, .data = {}, .expected = lengthIn(response.status)};
        const ResponseApdu more = sendBytes(report, card, getResponse.encode(card.protocol()));
        response.data.insert(response.data.end(), more.data.begin(), more.data.end());
        response.status = more.status;
        if (more.data.empty() && more.status >> 8U == 0x61) {
            throw Failure("the card gives nothing of what it has ready");
        }
        if (response.data.size() > kLongestChain) {
            throw Failure("the card has more to fetch than any command's answer can hold");
        }
    }
    return response;
}

ResponseApdu sendSuccessfully(Report& report, const Card& card, const CommandApdu& command,
                              Show show) {
    ResponseApdu response = sendCommand(report, card, command, show);
    if (!isNormal(response.status)) {
        throw Failure();
    }
    return response;
}

}  // namespace tez::client
