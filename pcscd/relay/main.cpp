// Serves the daemon's pipe on this machine with the readers of another one.
#include <winsock2.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "pipe/system_failure.h"
#include "relay/access_list.h"
#include "relay/options.h"
#include "relay/relay.h"
#include "relay/service.h"
#include "relay/token_file.h"
#include "utf8.h"

namespace {

using namespace tez::relay;
namespace pcscd = tez::pcscd;

constexpr int kWrongArguments = 2;

/// Two relays on one pipe would take turns at it as their agents come and go. Held as long as the
/// program runs, whether the pipe is there or not.
pcscd::UniqueHandle claim(const std::string& pipe) {
    std::wstring name = tez::tools::toPath(pipe).wstring();
    std::replace(name.begin(), name.end(), L'\\', L'/');
    pcscd::UniqueHandle mutex(
        CreateMutexW(nullptr, FALSE, (L"Global\\pcsc-relay " + name).c_str()));
    // Another user's cannot even be opened.
    if (!mutex || GetLastError() == ERROR_ALREADY_EXISTS) {
        throw std::runtime_error("another pcsc-relay runs for " + pipe);
    }
    return mutex;
}

/// Returns the exit code.
int serve(const Options& options, HANDLE stop) {
    Log log(options.verbose);
    try {
        if (!options.logFile.empty()) {
            log.appendTo(options.logFile);
        }
        const Winsock winsock;
        const pcscd::UniqueHandle only = claim(options.pipe);
        AccessList access(options.users);
        RelaySettings settings = {};
        settings.agent.address = options.agent;
        settings.agent.token = readTokenFile(options.tokenFile);
        settings.pipe.name = options.pipe;
        settings.pipe.access = access.attributes();
        log.detail("who may open the pipe: " + access.text());
        if (options.anyAddress) {
            log.error("what goes to " + options.agent.text() + " is not encrypted by this program");
        }
        runRelay(settings, stop, log);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        log.error(failure.what());
        return EXIT_FAILURE;
    }
}

HANDLE interrupted = nullptr;

BOOL WINAPI interrupt(DWORD /*reason*/) {
    SetEvent(interrupted);
    return TRUE;
}

int runInForeground(const Options& options) {
    const pcscd::UniqueHandle stop = pcscd::makeEvent();
    interrupted = stop.get();
    SetConsoleCtrlHandler(interrupt, TRUE);
    return serve(options, stop.get());
}

int run(const Options& options) {
    switch (options.mode) {
        case Options::Mode::foreground:
            return runInForeground(options);
        case Options::Mode::installService:
            installService(wordsFor(options, Options::Mode::runService));
            break;
        case Options::Mode::removeService:
            removeService();
            break;
        case Options::Mode::runService:
            runService([&](HANDLE stop) { return serve(options, stop); });
            break;
    }
    return EXIT_SUCCESS;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    tez::tools::useUtf8Console();
    try {
        return run(parseOptions(tez::tools::utf8Arguments(argc, argv)));
    } catch (const CLI::Error& error) {
        return error.get_exit_code() == 0 ? EXIT_SUCCESS : kWrongArguments;
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
