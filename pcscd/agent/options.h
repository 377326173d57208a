#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/listener.h"
#include "agent/reader_choice.h"

namespace tez::agent {

/// What the command line asks for.
struct Options {
    std::optional<std::filesystem::path>
        makeToken;  ///< write a token to this file, and nothing else
    std::optional<Address>
        listen;  ///< where; without it: the service manager's socket or the default
    std::filesystem::path token;
    ReaderChoice readers;
    bool verbose = false;
};

/// Throws CLI::Error, having printed why, when the arguments are wrong or only ask for help.
Options parseOptions(int argc, char** argv);

/// A socket in the folder that the system has made for the user's programs. Throws
/// std::runtime_error when there is none.
Address defaultAddress();

}  // namespace tez::agent
