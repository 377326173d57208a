#include <memory>

#include "atr_option.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"
#include "output.h"

namespace tez::client {
namespace {

struct IntroduceOptions {
    std::string card;
    AtrSource atr;
    std::string mask;
};

void introduce(Session& session, const IntroduceOptions& options) {
    const Bytes atr = options.atr.resolve(session);
    const Bytes mask = *parseHex(options.mask);
    if (atr.empty()) {
        throw Failure("a card type needs an ATR");
    }
    if (!mask.empty() && mask.size() != atr.size()) {
        throw Failure("the mask is not as long as the ATR");
    }
    printField("ATR", formatHex(atr));
    check("SCardIntroduceCardType",
          SCardIntroduceCardTypeA(session.context(), options.card.c_str(), nullptr, nullptr, 0,
                                  atr.data(), mask.empty() ? nullptr : mask.data(),
                                  static_cast<DWORD>(atr.size())));
    printLine("introduced: " + options.card);
}

}  // namespace

void addIntroduce(CLI::App& app, Session& session) {
    CLI::App* const command =
        app.add_subcommand("introduce", "Add a card type to the card database");
    const auto options = std::make_shared<IntroduceOptions>();
    addCardTypeOption(*command, options->card);
    addAtrOptions(*command, options->atr);
    command
        ->add_option("--mask", options->mask, "the bits of the ATR that count; all when not given")
        ->check(isHex(2, kLongestValidAtr));
    command->callback([&session, options] { introduce(session, *options); });
}

void addForget(CLI::App& app, Session& session) {
    CLI::App* const command =
        app.add_subcommand("forget", "Take a card type out of the card database");
    const auto card = std::make_shared<std::string>();
    addCardTypeOption(*command, *card);
    command->callback([&session, card] {
        check("SCardForgetCardType", SCardForgetCardTypeA(session.context(), card->c_str()));
        printLine("forgotten: " + *card);
    });
}

}  // namespace tez::client
