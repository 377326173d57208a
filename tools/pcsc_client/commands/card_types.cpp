#include <memory>

#include "atr_option.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"

namespace tez::client {
namespace {

struct IntroduceOptions {
    std::string card;
    AtrSource atr;
    std::string mask;
};

void introduce(Client& client, const IntroduceOptions& options) {
    const Bytes atr = options.atr.resolve(client.session);
    const Bytes mask = *parseHex(options.mask);
    if (atr.empty()) {
        throw Failure("a card type needs an ATR");
    }
    if (!mask.empty() && mask.size() != atr.size()) {
        throw Failure("the mask is not as long as the ATR");
    }
    client.report.field("ATR", formatHex(atr));
    client.report.data()["atr"] = formatHex(atr);
    check("SCardIntroduceCardType",
          SCardIntroduceCardTypeA(client.session.context(), options.card.c_str(), nullptr, nullptr,
                                  0, atr.data(), mask.empty() ? nullptr : mask.data(),
                                  static_cast<DWORD>(atr.size())));
    client.report.line("introduced: " + options.card);
    client.report.data()["introduced"] = options.card;
}

}  // namespace

void addIntroduce(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("introduce", "Add a card type to the card database");
    const auto options = std::make_shared<IntroduceOptions>();
    addCardTypeOption(*command, options->card);
    addAtrOptions(*command, options->atr);
    command
        ->add_option("--mask", options->mask, "the bits of the ATR that count; all when not given")
        ->check(isHex(2, kLongestValidAtr));
    client.report.addJsonOption(*command);
    command->callback([&client, options] { introduce(client, *options); });
}

void addForget(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("forget", "Take a card type out of the card database");
    const auto card = std::make_shared<std::string>();
    addCardTypeOption(*command, *card);
    client.report.addJsonOption(*command);
    command->callback([&client, card] {
        check("SCardForgetCardType", SCardForgetCardTypeA(client.session.context(), card->c_str()));
        client.report.line("forgotten: " + *card);
        client.report.data()["forgotten"] = *card;
    });
}

}  // namespace tez::client
