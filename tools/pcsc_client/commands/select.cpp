#include <memory>

#include "commands/commands.h"
#include "exchange.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct SelectOptions {
    std::string reader;
    std::string aid;
};

}  // namespace

void addSelect(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("select", "Select an application of the card by its identifier");
    const auto options = std::make_shared<SelectOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("AID", options->aid, "application identifier")
        ->required()
        ->check(isHex(1, 16));
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        client.session.useCard(options->reader, [&](const Card& card) {
            sendSuccessfully(client.report, card, selectApplication(*parseHex(options->aid)));
        });
    });
}

}  // namespace tez::client
