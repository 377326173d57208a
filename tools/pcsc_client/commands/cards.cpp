#include <memory>

#include "allocated_buffer.h"
#include "atr_option.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"

namespace tez::client {

void addCards(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "cards", "List the card types that the card database knows, or those with an ATR");
    const auto source = std::make_shared<AtrSource>();
    addAtrOptions(*command, *source);
    client.report.addJsonOption(*command);
    command->callback([&client, source] {
        Bytes atr = source->resolve(client.session);
        const bool isFiltered = !atr.empty();
        if (isFiltered) {
            client.report.field("ATR", formatHex(atr));
            client.report.data()["atr"] = formatHex(atr);
        }
        // The call takes no length: it reads as much as the ATR says of itself.
        atr.resize(kLongestValidAtr);
        AllocatedBuffer names(client.session.context());
        check("SCardListCards",
              SCardListCardsA(client.session.context(), isFiltered ? atr.data() : nullptr, nullptr,
                              0, names.textDestination(), names.length()));
        const std::vector<std::string> cards = names.names();
        for (const std::string& name : cards) {
            client.report.line(name);
        }
        if (cards.empty()) {
            client.report.line("no card types");
        }
        client.report.data()["cards"] = cards;
    });
}

}  // namespace tez::client
