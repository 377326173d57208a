#include <memory>

#include "commands/commands.h"
#include "exchange.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct VerifyOptions {
    std::string reader;
    std::string pin;
    std::string aid;
    unsigned reference = 1;
};

}  // namespace

void addVerify(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand("verify", "Show the card a PIN");
    const auto options = std::make_shared<VerifyOptions>();
    addReaderOption(*command, options->reader);
    const auto fitsCommand = [](const std::string& pin) -> std::string {
        // The PIN itself is nobody's to read.
        return pin.size() > kLongestData ? "longer than the 255 bytes that a command holds" : "";
    };
    command->add_option("PIN", options->pin, "the PIN, sent as the characters it is written with")
        ->required()
        ->check(CLI::Validator(fitsCommand, ""));
    command->add_option("--aid", options->aid, "application to select first")->check(isHex(1, 16));
    command->add_option("--reference", options->reference, "which PIN (P2); 1 when not given")
        ->check(CLI::Range(0U, 255U));
    command->callback([&session, options] {
        session.useCard(options->reader, [&](const Card& card) {
            if (!options->aid.empty()) {
                sendSuccessfully(card, selectApplication(*parseHex(options->aid)));
            }
            const Bytes pin(options->pin.begin(), options->pin.end());
            sendSuccessfully(card, verifyPin(static_cast<std::uint8_t>(options->reference), pin),
                             Show::kHeaderOnly);
        });
    });
}

}  // namespace tez::client
