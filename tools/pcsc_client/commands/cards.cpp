#include <memory>

#include "allocated_buffer.h"
#include "atr_option.h"
#include "commands/commands.h"
#include "failure.h"
#include "hex.h"
#include "output.h"

namespace tez::client {

void addCards(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand(
        "cards", "List the card types that the card database knows, or those with an ATR");
    const auto source = std::make_shared<AtrSource>();
    addAtrOptions(*command, *source);
    command->callback([&session, source] {
        Bytes atr = source->resolve(session);
        const bool isFiltered = !atr.empty();
        if (isFiltered) {
            printField("ATR", formatHex(atr));
        }
        // The call takes no length: it reads as much as the ATR says of itself.
        atr.resize(kLongestValidAtr);
        AllocatedBuffer names(session.context());
        check("SCardListCards",
              SCardListCardsA(session.context(), isFiltered ? atr.data() : nullptr, nullptr, 0,
                              names.textDestination(), names.length()));
        for (const std::string& name : names.names()) {
            printLine(name);
        }
        if (names.names().empty()) {
            printLine("no card types");
        }
    });
}

}  // namespace tez::client
