// Serves the daemon's pipe with virtual readers and cards, as the remote user's machine would, and
// tells on standard output what its clients do.
#include <windows.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "console.h"
#include "options.h"
#include "traffic_text.h"
#include "utf8.h"

namespace {

using namespace tez::sim;

constexpr int kWrongArguments = 2;

constexpr const char* kCardHolder = "Remote User";
constexpr const char* kCardType = "Remote Demo Card";
constexpr std::uint32_t kProviderId = 2;  // the provider for the CryptoAPI
constexpr const char* kProvider = "Remote Demo Provider";

/// Serves the pipe and tells what its clients do.
class TellingDaemon final : public tez::pcscd::PipeDaemon {
  public:
    using PipeDaemon::PipeDaemon;
    ~TellingDaemon() override { stop(); }
    TellingDaemon(const TellingDaemon&) = delete;
    TellingDaemon& operator=(const TellingDaemon&) = delete;

  protected:
    void opened(std::uint64_t connection) override {
        printLine(describeConnection(connection) + "opened");
    }
    void closed(std::uint64_t connection) override {
        PipeDaemon::closed(connection);
        printLine(describeConnection(connection) + "closed");
    }
    tez::pcscd::Reply greet(const tez::pcscd::Handshake& handshake) override {
        printLine(describe(handshake));
        return PipeDaemon::greet(handshake);
    }
    tez::pcscd::Reply answer(const tez::pcscd::Request& request,
                             tez::pcscd::Clients::Process process) override {
        printLine(describe(request));
        return PipeDaemon::answer(request, process);
    }
};

/// The demo cards' type, as the card database of the remote user's machine knows it.
void introduceCardType(tez::pcscd::CardStore& cards) {
    cards.introduce(kCardType, tez::pcscd::cardTypeOf(tez::pcscd::makeDemoCard(kCardHolder).atr()));
    cards.setProvider(kCardType, kProviderId, kProvider);
}

/// Throws std::runtime_error when the file cannot be read.
std::ifstream openScript(const std::string& utf8Path) {
    std::ifstream script(tez::tools::toPath(utf8Path));
    if (!script) {
        throw std::runtime_error("cannot read the script " + utf8Path);
    }
    return script;
}

/// False when a command failed. Throws when the script cannot be read or the pipe not be served.
bool run(const Options& options) {
    std::ifstream script;
    if (!options.script.empty()) {
        script = openScript(options.script);
    }
    tez::pcscd::SimulatedService service;
    TellingDaemon daemon(service, options.version, {.name = options.pipe});
    Console console(service, daemon);
    introduceCardType(service.cardStore());
    for (const std::string& reader : options.readers) {
        service.addReader(reader);
    }
    for (const std::string& reader : options.cards) {
        service.addReader(reader);
        service.insertCard(reader, tez::pcscd::makeDemoCard(kCardHolder));
    }
    daemon.start();
    printLine("serving " + options.pipe + ", protocol " + describe(options.version));

    if (script.is_open()) {
        console.run(script);
    }
    console.run(std::cin);
    if (options.detach && !console.quitting()) {
        Sleep(INFINITE);
    }
    daemon.stop();
    printLine("ended");
    return !console.anyFailed();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    tez::tools::useUtf8Console();
    try {
        return run(parseOptions(tez::tools::utf8Arguments(argc, argv))) ? EXIT_SUCCESS
                                                                        : EXIT_FAILURE;
    } catch (const CLI::Error& error) {
        return error.get_exit_code() == 0 ? EXIT_SUCCESS : kWrongArguments;
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
