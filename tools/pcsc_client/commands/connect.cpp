#include <memory>

#include "card_words.h"
#include "commands/commands.h"
#include "output.h"

namespace tez::client {

void addConnect(CLI::App& app, Session& session) {
    CLI::App* const command =
        app.add_subcommand("connect", "Connect to a card and keep it open for the next lines");
    const auto reader = std::make_shared<std::string>();
    addReaderOption(*command, *reader);
    command->callback([&session, reader] {
        const Card& card = session.keepCardOpen(*reader);
        printLine("connected to " + card.reader() + ", protocol " +
                  describeProtocol(card.protocol()));
    });
}

void addDisconnect(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand("disconnect", "Disconnect from that card");
    command->callback([&session] {
        session.disconnectKeptCard();
        printLine("disconnected");
    });
}

}  // namespace tez::client
