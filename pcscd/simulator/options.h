#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/traffic.h"

namespace tez::sim {

/// What the command line asks for.
struct Options {
    std::string pipe;
    pcscd::ProtocolVersion version;
    std::vector<std::string> readers;
    std::vector<std::string> cards;  ///< names of readers that hold a card from the start
    std::string script;              ///< a file of commands, run before standard input is read
    bool detach = false;             ///< keep serving when standard input ends
};

/// "1.4"; nullopt for anything else.
std::optional<pcscd::ProtocolVersion> parseVersion(const std::string& text);

/// Whether the protocol can carry a reader of this name: it has 1 to 127 bytes.
bool isReaderName(const std::string& name);

/// Throws CLI::Error, having printed why, when the arguments are wrong or only ask for help.
Options parseOptions(std::vector<std::string> words);

}  // namespace tez::sim
