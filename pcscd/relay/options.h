#pragma once

#include <string>
#include <vector>

#include "relay/agent_address.h"

namespace tez::relay {

/// What a person asks of the program. Texts are UTF-8.
struct Options {
    enum class Mode {
        foreground,
        installService,
        removeService,
        runService,  ///< started by the service manager
    };

    Mode mode = Mode::foreground;
    AgentAddress agent;
    std::string tokenFile;
    std::vector<std::string> users;
    std::string pipe = R"(\\.\pipe\tez-pcscd-0)";
    std::string logFile;  ///< empty: standard error
    bool anyAddress = false;
    bool verbose = false;
};

/// Takes the words behind the program's name. Throws a CLI::Error, which has been told to the
/// person, when the program is not to run: with exit code 0 after --help and --version.
Options parseOptions(std::vector<std::string> words);

/// The words that stand for these options in another mode, for a program that is started elsewhere:
/// paths are absolute.
std::vector<std::string> wordsFor(const Options& options, Options::Mode mode);

}  // namespace tez::relay
