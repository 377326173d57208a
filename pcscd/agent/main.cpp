// Serves the readers of this machine's PC/SC service to the relay of another machine.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sys/signalfd.h>

#include "agent/agent.h"
#include "agent/log.h"
#include "agent/options.h"
#include "agent/pcsc_service.h"
#include "agent/token_file.h"
#include "core/daemon.h"

namespace {

using namespace tez::agent;

constexpr int kWrongArguments = 2;

/// From now on the signals that end a program are read from this descriptor, by all threads.
FileDescriptor signalsToEnd() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

void run(const Options& options) {
    // Calls that a transaction keeps out are to come back, as nothing could end their wait.
    setenv("PCSCLITE_NO_BLOCKING", "1", 1);
    const FileDescriptor end = signalsToEnd();
    const tez::link::Token token = readTokenFile(options.token);
    std::optional<FileDescriptor> activated;
    if (!options.listen) {
        activated = takeActivationSocket();
    }
    std::optional<Listener> listener;
    if (activated) {
        listener.emplace(std::move(*activated));
    } else {
        listener.emplace(options.listen ? *options.listen : defaultAddress());
    }
    PcscService service(options.readers);
    tez::pcscd::Daemon daemon(service);
    Agent agent(daemon, token);
    logLine("serving");
    agent.run(*listener, end.get());
    logLine("ended");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = parseOptions(argc, argv);
        setVerbose(options.verbose);
        if (options.makeToken) {
            makeTokenFile(*options.makeToken);
        } else {
            run(options);
        }
        return EXIT_SUCCESS;
    } catch (const CLI::Error& error) {
        return error.get_exit_code() == 0 ? EXIT_SUCCESS : kWrongArguments;
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
