#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace tez::agent {
namespace {

constexpr std::size_t kLongestPrefix = 64;

std::filesystem::path defaultToken() {
    if (const char* folder = std::getenv("XDG_CONFIG_HOME"); folder != nullptr && *folder != '\0') {
        return std::filesystem::path(folder) / "pcsc-agent" / "token";
    }
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home == nullptr ? "" : home) / ".config" / "pcsc-agent" / "token";
}

}  // namespace

Address defaultAddress() {
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    if (folder == nullptr || *folder == '\0') {
        throw std::runtime_error("XDG_RUNTIME_DIR is not set: say with --listen where to listen");
    }
    return UnixAddress{std::filesystem::path(folder) / "pcsc-agent.sock"};
}

Options parseOptions(int argc, char** argv) {
    Options options;
    options.token = defaultToken();
    std::string listen;
    bool anyAddress = false;
    CLI::App app(
        "Serves the readers of this machine's PC/SC service to the relay of another machine.");
    app.name("pcsc-agent");
    app.set_version_flag("--version", "pcsc-agent " TEZ_VERSION);
    app.add_option(
           "--listen", listen,
           "unix:PATH or 127.0.0.1:PORT (default: unix:$XDG_RUNTIME_DIR/pcsc-agent.sock, or "
           "the socket of the service manager)")
        ->check([](const std::string& text) {
            return parseAddress(text) ? std::string()
                                      : "neither unix:PATH nor A.B.C.D:PORT: " + text;
        });
    app.add_flag("--insecure-any-address", anyAddress,
                 "Allow --listen on an address that other machines reach. What goes over it, PINs "
                 "included, is not encrypted");
    app.add_option("--token", options.token, "File of the token that the relay shows, too")
        ->capture_default_str();
    app.add_option("--make-token", options.makeToken, "Write a new token to this file, and end");
    app.add_option("--reader", options.readers.wanted,
                   "Serve readers whose names match this pattern, as of files in a shell "
                   "(repeatable; without any: all)");
    app.add_option("--deny", options.readers.denied,
                   "Do not serve readers whose names match this pattern (repeatable)");
    app.add_option("--name-prefix", options.readers.prefix,
                   "Put this text before the readers' names")
        ->check([](const std::string& text) {
            return text.size() <= kLongestPrefix ? std::string() : "longer than 64 bytes: " + text;
        });
    app.add_flag("-v,--verbose", options.verbose, "Tell of each connection and reader");
    app.footer(
        "Runs until it gets SIGINT or SIGTERM; a second one ends it at once.\n"
        "Exit code: 0 after a clean end, 1 when it cannot serve, 2 for wrong arguments.");
    try {
        app.parse(argc, argv);
        if (!listen.empty()) {
            options.listen = parseAddress(listen);
            if (!isOfThisMachine(*options.listen)) {
                if (!anyAddress) {
                    throw CLI::ValidationError("--listen", "other machines reach " + listen +
                                                               ": not without "
                                                               "--insecure-any-address");
                }
                std::cerr << "WARNING: other machines reach " << listen
                          << ", and what goes over it, PINs included, is not encrypted\n";
            }
        }
    } catch (const CLI::Error& error) {
        app.exit(error);
        throw;
    }
    return options;
}

}  // namespace tez::agent
