#include <memory>

#include "commands/commands.h"
#include "hex_option.h"
#include "output.h"

namespace tez::client {
namespace {

struct ControlOptions {
    std::string reader;
    std::uint32_t code = 0;
    std::string input;
    bool direct = false;
};

}  // namespace

void addControl(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand("control", "Send the reader a control code");
    const auto options = std::make_shared<ControlOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("CODE", options->code, "control code, such as 0x00312000")->required();
    command->add_option("HEX", options->input, "input bytes")->check(isHex(0, kLongestApdu));
    command->add_flag("--direct", options->direct, "talk to the reader, card or not");
    command->callback([&session, options] {
        const Access access = options->direct ? Access::kDirect : Access::kShared;
        const auto run = [&](const Card& card) {
            const Bytes input = *parseHex(options->input);
            printField("code", "0x" + formatDigits(options->code, 8));
            printField("input", formatHex(input));
            const Bytes output = card.control(options->code, input);
            printField("output", formatHex(output));
            printField("text", printable(output));
        };
        session.useCard(options->reader, run, access);
    });
}

}  // namespace tez::client
