#include <map>
#include <memory>

#include "allocated_buffer.h"
#include "commands/commands.h"
#include "failure.h"

namespace tez::client {
namespace {

// The toolchain's <winscard.h> has no names for the last two.
const std::map<std::string, DWORD> kKinds = {{"primary", SCARD_PROVIDER_PRIMARY},
                                             {"csp", SCARD_PROVIDER_CSP},
                                             {"ksp", 3},
                                             {"module", 0x80000001}};

struct ProviderOptions {
    std::string card;
    DWORD kind = SCARD_PROVIDER_CSP;
    bool isSet = false;  ///< newName is to be set; it may be empty
    std::string newName;
};

void runProvider(Client& client, const ProviderOptions& options) {
    const SCARDCONTEXT context = client.session.context();
    if (options.isSet) {
        check("SCardSetCardTypeProviderName",
              SCardSetCardTypeProviderNameA(context, options.card.c_str(), options.kind,
                                            options.newName.c_str()));
    }
    AllocatedBuffer name(context);
    check("SCardGetCardTypeProviderName",
          SCardGetCardTypeProviderNameA(context, options.card.c_str(), options.kind,
                                        name.textDestination(), name.length()));
    client.report.field("provider", name.text());
    client.report.data()["provider"] = name.text();
}

}  // namespace

void addProvider(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("provider", "Tell, or set, the name of a card type's provider");
    const auto options = std::make_shared<ProviderOptions>();
    addCardTypeOption(*command, options->card);
    command
        ->add_option("--kind", options->kind,
                     "primary, csp, ksp, module, or a number; csp when not given")
        ->transform(CLI::Transformer(kKinds));
    const CLI::Option* const set =
        command->add_option("--set", options->newName, "the name to set first");
    client.report.addJsonOption(*command);
    command->callback([&client, options, set] {
        options->isSet = set->count() > 0;
        runProvider(client, *options);
    });
}

}  // namespace tez::client
