#include "relay/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <map>

#include "utf8.h"

namespace tez::relay {
namespace {

using Mode = Options::Mode;

const std::map<std::string, Mode>& serviceModes() {
    static const std::map<std::string, Mode> modes = {{"install", Mode::installService},
                                                      {"remove", Mode::removeService},
                                                      {"run", Mode::runService}};
    return modes;
}

std::string judgeAgent(const std::string& text) {
    return parseAgentAddress(text) ? "" : "not of the form HOST:PORT: " + text;
}

std::string judgeService(const std::string& text) {
    return serviceModes().contains(text) ? "" : "neither install nor remove: " + text;
}

/// What only the whole of the options can show to be wrong.
void judge(const Options& options) {
    if (options.mode == Mode::removeService) {
        return;
    }
    if (options.agent.host.empty()) {
        throw CLI::RequiredError("--agent");
    }
    if (options.tokenFile.empty()) {
        throw CLI::RequiredError("--token");
    }
    if (!options.anyAddress && !isLoopback(options.agent.host)) {
        throw CLI::ValidationError(
            "--agent", options.agent.host +
                           " is not on this machine: the link is not encrypted, so that what goes "
                           "over a network must go through a tunnel (--insecure-any-address "
                           "allows it all the same)");
    }
    if (options.mode == Mode::foreground) {
        return;
    }
    if (options.users.empty()) {
        throw CLI::ValidationError("--service", "runs as a user of its own: say whom it is --for");
    }
    if (options.logFile.empty()) {
        throw CLI::ValidationError("--service", "has no console: give it a --log");
    }
}

std::string absolute(const std::string& path) {
    return tools::toUtf8(std::filesystem::absolute(tools::toPath(path)).wstring());
}

}  // namespace

Options parseOptions(std::vector<std::string> words) {
    Options options;
    std::string agent;
    std::string service;
    CLI::App app(
        "Serves the PC/SC daemon's named pipe with the readers of another machine, whose "
        "pcsc-agent it reaches through a tunnel. The pipe is there while the agent answers.");
    app.name("pcsc-relay");
    app.set_version_flag("--version", std::string("pcsc-relay ") + TEZ_VERSION);
    app.add_option("--agent", agent, "This machine's end of the tunnel to the agent")
        ->type_name("HOST:PORT")
        ->check(judgeAgent);
    app.add_option("--token", options.tokenFile,
                   "The token that pcsc-agent --make-token wrote; nobody else may read the file")
        ->type_name("FILE");
    app.add_option("--for", options.users,
                   "Serves this user or group, too, beside the user that runs it (repeatable)")
        ->type_name("USER")
        ->allow_extra_args(false);
    app.add_option("--pipe", options.pipe, "Name of the pipe")->capture_default_str();
    app.add_option("--log", options.logFile,
                   "Appends its lines to a file (default: to standard error)")
        ->type_name("FILE");
    app.add_flag("-v,--verbose", options.verbose, "Tells of each client, too");
    app.add_flag("--insecure-any-address", options.anyAddress,
                 "Reaches for an agent on another machine without a tunnel");
    app.add_option("--service", service,
                   "install: makes it a Windows service with these options; remove: ends and "
                   "removes that")
        ->type_name("install|remove")
        ->check(judgeService);
    app.footer(
        "Exit code: 0 when it was told to end, 1 when it cannot serve, 2 for wrong arguments.");
    std::reverse(words.begin(), words.end());  // the order that the parser takes them in
    try {
        app.parse(std::move(words));
        if (!service.empty()) {
            options.mode = serviceModes().at(service);
        }
        if (!agent.empty()) {
            options.agent = *parseAgentAddress(agent);
        }
        judge(options);
    } catch (const CLI::Error& error) {
        app.exit(error);
        throw;
    }
    return options;
}

std::vector<std::string> wordsFor(const Options& options, Mode mode) {
    const auto& modes = serviceModes();
    const auto entry = std::find_if(modes.begin(), modes.end(),
                                    [&](const auto& each) { return each.second == mode; });
    std::vector<std::string> words;
    if (entry != modes.end()) {
        words.insert(words.end(), {"--service", entry->first});
    }
    words.insert(words.end(), {"--agent", options.agent.text(), "--token",
                               absolute(options.tokenFile), "--pipe", options.pipe});
    for (const std::string& user : options.users) {
        words.insert(words.end(), {"--for", user});
    }
    if (!options.logFile.empty()) {
        words.insert(words.end(), {"--log", absolute(options.logFile)});
    }
    if (options.anyAddress) {
        words.emplace_back("--insecure-any-address");
    }
    if (options.verbose) {
        words.emplace_back("--verbose");
    }
    return words;
}

}  // namespace tez::relay
