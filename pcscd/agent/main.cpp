// Serves the readers of this machine's PC/SC service to the relay of another machine.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sys/signalfd.h>
#include <unistd.h>

#include "agent/agent.h"
#include "agent/log.h"
#include "agent/options.h"
#include "agent/pcsc_service.h"
#include "agent/token_file.h"
#include "core/daemon.h"

namespace {

using namespace tez::agent;

constexpr int kWrongArguments = 2;

/// The signals that end a program, read from a descriptor by this thread and those that it starts.
class SignalsToEnd {
  public:
    SignalsToEnd() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        descriptor_ = FileDescriptor(signalfd(-1, &signals_, SFD_CLOEXEC));
    }

    int descriptor() const { return descriptor_.get(); }

    /// Takes the signal that has come, and lets another one end the process at once.
    void letNextEndTheProcess() const {
        signalfd_siginfo taken{};
        [[maybe_unused]] const ssize_t size = read(descriptor_.get(), &taken, sizeof taken);
        pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
    }

  private:
    sigset_t signals_{};
    FileDescriptor descriptor_;
};

void run(const Options& options) {
    // Calls that a transaction keeps out are to come back, as nothing could end their wait.
    setenv("PCSCLITE_NO_BLOCKING", "1", 1);
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
    // Before the service is there a signal just ends the process: who knows when that answers.
    PcscService service(options.readers);
    const SignalsToEnd end;
    tez::pcscd::Daemon daemon(service);
    Agent agent(daemon, token);
    logLine("serving");
    agent.run(*listener, end.descriptor());
    // Calls of the service that nothing can end may be in progress.
    end.letNextEndTheProcess();
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
