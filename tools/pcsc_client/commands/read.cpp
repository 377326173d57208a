#include <algorithm>
#include <memory>

#include "commands/commands.h"
#include "exchange.h"
#include "failure.h"
#include "hex_option.h"

namespace tez::client {
namespace {

constexpr unsigned kLongestRead = 256;         // with a short Le
constexpr unsigned kAddressableSize = 0x8000;  // 15 bits of offset in P1 P2

struct ReadOptions {
    std::string reader;
    std::string aid;
    std::string file;
    unsigned length = 0;
};

/// Whether a card may say so of an offset that is not below its file's length: most say 6B00.
bool isBehindEnd(StatusWord status) {
    return status == kWrongOffset || status == kWrongParameters;
}

/// Reads the current file up to its end, or `length` bytes when that is not 0. A card may give less
/// than it is asked for at any time; its file ends where it says so or gives nothing.
Bytes readFile(Report& report, const Card& card, unsigned length) {
    const unsigned wanted = length == 0 ? kAddressableSize : length;
    Bytes content;
    bool atEnd = false;
    while (!atEnd && content.size() < wanted) {
        const auto offset = static_cast<unsigned>(content.size());
        const unsigned part = std::min(kLongestRead, wanted - offset);
        const ResponseApdu response = sendCommand(report, card, readBinary(offset, part));
        const bool behindEnd = offset > 0 && isBehindEnd(response.status);
        atEnd = behindEnd || response.status == kEndOfFile || response.data.empty();
        if (!isNormal(response.status) && response.status != kEndOfFile && !behindEnd) {
            throw Failure();
        }
        content.insert(content.end(), response.data.begin(), response.data.end());
    }
    return content;
}

void runRead(Report& report, const Card& card, const ReadOptions& options) {
    if (!options.aid.empty()) {
        sendSuccessfully(report, card, selectApplication(*parseHex(options.aid)));
    }
    if (!options.file.empty()) {
        const Bytes id = *parseHex(options.file);
        sendSuccessfully(report, card, selectFile(static_cast<std::uint16_t>(id[0] << 8U | id[1])));
    }
    const Bytes content = readFile(report, card, options.length);
    for (const std::string& line : dumpLines(content)) {
        report.line("    " + line);
    }
    report.data()["content"] = formatHex(content);
    if (options.length != 0 && content.size() < options.length) {
        throw Failure("the file ends after " + std::to_string(content.size()) + " bytes");
    }
}

}  // namespace

void addRead(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("read", "Read a transparent file of the card");
    const auto options = std::make_shared<ReadOptions>();
    addReaderOption(*command, options->reader);
    command->add_option("--aid", options->aid, "application to select first")->check(isHex(1, 16));
    command->add_option("--file", options->file, "identifier of the file to select first")
        ->check(isHex(2, 2));
    command->add_option("--length", options->length, "bytes to read; the whole file when not given")
        ->check(CLI::Range(1U, kAddressableSize));
    client.report.addJsonOption(*command);
    command->callback([&client, options] {
        client.session.useCard(options->reader,
                               [&](const Card& card) { runRead(client.report, card, *options); });
    });
}

}  // namespace tez::client
