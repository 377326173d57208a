#include <iostream>
#include <memory>

#include "commands/commands.h"
#include "console_streams.h"
#include "exchange.h"
#include "failure.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct VerifyOptions {
    std::string reader;
    std::string aid;
    unsigned reference = 1;
};

/// The command line would show it to every process of the host, so it is asked for.
std::string readPin() {
    if (tools::isInputTyped()) {
        std::cerr << "PIN: " << std::flush;  // standard output may be a file for the result alone
    }
    std::string pin;
    if (!tools::readHiddenLine(pin) || pin.empty()) {
        throw Failure("no PIN was given on standard input");
    }
    if (pin.size() > kLongestData) {
        throw Failure("the PIN is longer than the 255 bytes that a command holds");
    }
    return pin;
}

}  // namespace

void addVerify(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "verify", "Show the card a PIN, which is asked for or read as a line of standard input");
    const auto options = std::make_shared<VerifyOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("--aid", options->aid, "application to select first")->check(isHex(1, 16));
    command->add_option("--reference", options->reference, "which PIN (P2); 1 when not given")
        ->check(CLI::Range(0U, 255U));
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        const std::string pin = readPin();
        client.session.useCard(options->reader, [&](const Card& card) {
            if (!options->aid.empty()) {
                sendSuccessfully(client.report, card, selectApplication(*parseHex(options->aid)));
            }
            const Bytes bytes(pin.begin(), pin.end());
            sendSuccessfully(client.report, card,
                             verifyPin(static_cast<std::uint8_t>(options->reference), bytes),
                             Show::kHeaderOnly);
        });
    });
}

}  // namespace tez::client
