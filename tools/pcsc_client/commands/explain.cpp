#include "explain.h"

#include <memory>

#include "commands/commands.h"
#include "failure.h"

namespace tez::client {
namespace {

struct ExplainOptions {
    std::vector<std::string> words;
    std::string kind;
};

void tell(Report& report, const Explanation& explanation) {
    report.line(std::string(explanation.kind) + ": " + explanation.text);
    Json json = {{"kind", explanation.kind}, {"text", explanation.text}};
    for (const auto& [label, text] : explanation.details) {
        report.field(label, text);
        json["details"].push_back({{"label", label}, {"text", text}});
    }
    report.data()["explanations"].push_back(std::move(json));
}

}  // namespace

void addExplain(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "explain",
        "Tell in words what a result code, a status word, an ATR, a reader state or a control code "
        "means");
    const auto options = std::make_shared<ExplainOptions>();
    command
        ->add_option("VALUE", options->words,
                     "such as 0x8010000C, SCARD_E_NO_SMARTCARD, 6A82, an ATR in hexadecimal")
        ->required();
    command->add_option("--as", options->kind, "what it is; what it is likely to be when not given")
        ->check(CLI::IsMember(explainableKinds()));
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        // An ATR is mostly written with spaces between its bytes.
        const std::string value = CLI::detail::join(options->words, " ");
        const std::vector<Explanation> explanations =
            options->kind.empty() ? explain(value) : explainAs(value, options->kind);
        if (explanations.empty()) {
            throw Failure("this is no code that can be explained: " + value);
        }
        for (const Explanation& explanation : explanations) {
            tell(client.report, explanation);
        }
    });
}

}  // namespace tez::client
