#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>

#include "pipe/pipe_listener.h"

namespace tez::sim {
namespace {

bool parseNumber(std::string_view text, std::uint32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

std::string judgeReaderName(const std::string& name) {
    return isReaderName(name) ? ""
                              : "not a reader's name, which has 1 to 127 bytes: \"" + name + "\"";
}

/// A second reader of a name would never be made, nor a second card put into it.
void refuseRepetitions(const std::string& option, std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    const auto repeated = std::adjacent_find(names.begin(), names.end());
    if (repeated != names.end()) {
        throw CLI::ValidationError(option, "given twice: \"" + *repeated + "\"");
    }
}

}  // namespace

std::optional<pcscd::ProtocolVersion> parseVersion(const std::string& text) {
    const std::size_t dot = text.find('.');
    pcscd::ProtocolVersion version;
    if (dot == std::string::npos ||
        !parseNumber(std::string_view(text).substr(0, dot), version.major) ||
        !parseNumber(std::string_view(text).substr(dot + 1), version.minor)) {
        return std::nullopt;
    }
    return version;
}

bool isReaderName(const std::string& name) {
    constexpr std::size_t kLongestName = 127;
    return !name.empty() && name.size() <= kLongestName;
}

Options parseOptions(std::vector<std::string> words) {
    Options options;
    options.pipe = pcscd::PipeServer::Settings{}.name;
    std::string version = "1.4";
    CLI::App app(
        "Simulates the PC/SC daemon of a remote user's machine: serves its named pipe with virtual "
        "readers and cards.\nReads commands from standard input while it runs; enter \"help\" for "
        "them.");
    app.name("pcscd-sim");
    app.add_option("--pipe", options.pipe, "Name of the pipe")->capture_default_str();
    app.add_option("--protocol", version, "Protocol version to announce")
        ->capture_default_str()
        ->check([](const std::string& text) {
            return parseVersion(text) ? std::string() : "not of the form MAJOR.MINOR: " + text;
        });
    app.add_option("--reader", options.readers,
                   "A reader (repeatable; without any: \"Remote Reader 0\" with a card and "
                   "\"Remote Reader 1\" without)")
        ->check(judgeReaderName);
    app.add_option("--card", options.cards,
                   "Put a card into this reader (repeatable; makes the reader if need be)")
        ->check(judgeReaderName);
    app.add_option("--script", options.script, "File of commands to run first");
    app.add_flag("--detach", options.detach,
                 "Keep serving when standard input ends, until the process is ended");
    app.footer(
        "Ends when standard input ends (unless --detach is given) or with \"quit\".\n"
        "Exit code: 0 after a clean end, 1 when the pipe cannot be served, the script cannot be "
        "read or a command of it or of standard input failed, 2 for wrong arguments.");
    std::reverse(words.begin(), words.end());  // the order that the parser takes them in
    try {
        app.parse(std::move(words));
        refuseRepetitions("--reader", options.readers);
        refuseRepetitions("--card", options.cards);
    } catch (const CLI::Error& error) {
        app.exit(error);
        throw;
    }
    options.version = *parseVersion(version);
    if (options.readers.empty() && options.cards.empty()) {
        options.readers = {"Remote Reader 0", "Remote Reader 1"};
        options.cards = {"Remote Reader 0"};
    }
    return options;
}

}  // namespace tez::sim
