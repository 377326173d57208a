#include <memory>

#include "card_words.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"
#include "reader_sides.h"

namespace tez::client {
namespace {

bool saysNoCard(LONG result) {
    return result == SCARD_E_NO_SMARTCARD || result == SCARD_W_REMOVED_CARD;
}

/// @return whether the reader could be looked at; one without a card can.
bool tellStatus(Client& client, const std::string& reader, const ReaderSides& sides) {
    const Report& report = client.report;
    const char* const side = sideName(sides.of(reader));
    report.line(reader);
    report.field("side", side);
    Json json = {{"name", reader}, {"side", side}};
    bool couldLook = true;
    try {
        client.session.useCard(reader, [&](const Card& card) {
            const CardStatus status = card.status();
            json["state"] = describeCardState(status.state);
            json["protocol"] = describeProtocol(status.protocol);
            json["atr"] = formatHex(status.atr);
            report.field("state", describeCardState(status.state));
            report.field("protocol", describeProtocol(status.protocol));
            report.field("ATR", formatHex(status.atr));
        });
    } catch (const ScardFailure& failure) {
        couldLook = saysNoCard(failure.result());
        report.field(couldLook ? "no card" : "error", failure.what());
        json[couldLook ? "noCard" : "error"] = failure.toJson();
    }
    client.report.data()["readers"].push_back(std::move(json));
    return couldLook;
}

}  // namespace

void addStatus(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("status", "Tell the state of each reader's card, or of one");
    const auto reader = std::make_shared<std::string>();
    command->add_option("READER", *reader, "name of the reader, or its index in the list");
    client.report.addJsonOption(*command);
    command->callback([&client, reader] {
        const auto readers = reader->empty() ? client.session.readers()
                                             : std::vector{client.session.resolveReader(*reader)};
        const ReaderSides sides = ReaderSides::ask();
        client.report.data()["readers"] = Json::array();
        bool complete = true;
        for (const std::string& name : readers) {
            complete = tellStatus(client, name, sides) && complete;
        }
        if (readers.empty()) {
            client.report.line("no readers");
        }
        if (!complete) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
