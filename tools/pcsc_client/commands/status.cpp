#include <memory>

#include "card_words.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"
#include "output.h"

namespace tez::client {
namespace {

bool saysNoCard(LONG result) {
    return result == SCARD_E_NO_SMARTCARD || result == SCARD_W_REMOVED_CARD;
}

/// @return whether the reader could be looked at; one without a card can.
bool printStatus(Session& session, const std::string& reader) {
    printLine(reader);
    try {
        session.useCard(reader, [](const Card& card) {
            const CardStatus status = card.status();
            printField("state", describeCardState(status.state));
            printField("protocol", describeProtocol(status.protocol));
            printField("ATR", formatHex(status.atr));
        });
    } catch (const ScardFailure& failure) {
        if (!saysNoCard(failure.result())) {
            printField("error", failure.what());
            return false;
        }
        printField("no card", failure.what());
    }
    return true;
}

}  // namespace

void addStatus(CLI::App& app, Session& session) {
    CLI::App* const command =
        app.add_subcommand("status", "Tell the state of each reader's card, or of one");
    const auto reader = std::make_shared<std::string>();
    command->add_option("READER", *reader, "name of the reader, or its index in the list");
    command->callback([&session, reader] {
        const auto readers =
            reader->empty() ? session.readers() : std::vector{session.resolveReader(*reader)};
        bool complete = true;
        for (const std::string& name : readers) {
            complete = printStatus(session, name) && complete;
        }
        if (readers.empty()) {
            printLine("no readers");
        }
        if (!complete) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
