#include <memory>

#include "commands/commands.h"
#include "exchange.h"
#include "failure.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct ApduOptions {
    std::string reader;
    std::vector<std::string> commands;
};

}  // namespace

void addApdu(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("apdu", "Send command APDUs as they are");
    const auto options = std::make_shared<ApduOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("HEX", options->commands, "the commands, one argument for each")
        ->required()
        ->check(isHex(4, kLongestApdu));
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        bool succeeded = true;
        client.session.useCard(options->reader, [&](const Card& card) {
            for (const std::string& hex : options->commands) {
                succeeded =
                    isNormal(sendBytes(client.report, card, *parseHex(hex)).status) && succeeded;
            }
        });
        if (!succeeded) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
