#include <memory>

#include "commands/commands.h"
#include "hex_option.h"

namespace tez::client {
namespace {

struct ControlOptions {
    std::string reader;
    std::uint32_t code = 0;
    std::string input;
    bool direct = false;
};

}  // namespace

void addControl(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("control", "Send the reader a control code");
    const auto options = std::make_shared<ControlOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("CODE", options->code, "control code, such as 0x00312000")->required();
    command->add_option("HEX", options->input, "input bytes")->check(isHex(0, kLongestApdu));
    command->add_flag("--direct", options->direct, "talk to the reader, card or not");
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        const Access access = options->direct ? Access::kDirect : Access::kShared;
        const auto run = [&](const Card& card) {
            const Bytes input = *parseHex(options->input);
            const std::string code = "0x" + formatDigits(options->code, 8);
            client.report.field("code", code);
            client.report.field("input", formatHex(input));
            const Bytes output = card.control(options->code, input);
            client.report.field("output", formatHex(output));
            client.report.field("text", printable(output));
            client.report.data() = {{"code", code},
                                    {"input", formatHex(input)},
                                    {"output", formatHex(output)},
                                    {"text", printable(output)}};
        };
        client.session.useCard(options->reader, run, access);
    });
}

}  // namespace tez::client
