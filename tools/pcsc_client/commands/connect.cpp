#include <memory>

#include "card_words.h"
#include "commands/commands.h"

namespace tez::client {

void addConnect(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("connect", "Connect to a card and keep it open for the next lines");
    const auto reader = std::make_shared<std::string>();
    addReaderOption(*command, *reader);
    const auto exclusive = std::make_shared<bool>(false);
    command->add_flag("--exclusive", *exclusive, "Let no other application use the card meanwhile");
    client.report.addJsonOption(*command);
    command->callback([&client, reader, exclusive] {
        const Card& card =
            client.session.keepCardOpen(*reader, *exclusive ? Access::kExclusive : Access::kShared);
        const std::string protocol = describeProtocol(card.protocol());
        client.report.line("connected to " + card.reader() + ", protocol " + protocol);
        client.report.data()["reader"] = card.reader();
        client.report.data()["protocol"] = protocol;
    });
}

void addDisconnect(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("disconnect", "Disconnect from that card");
    command->callback([&client] {
        client.session.disconnectKeptCard();
        client.report.line("disconnected");
    });
}

}  // namespace tez::client
