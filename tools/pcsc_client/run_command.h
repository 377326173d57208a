#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "report.h"

namespace tez::client {

/// The values are the program's exit codes.
enum class Outcome : int {
    kDone = 0,
    kFailed = 1,      ///< a call, a card's answer or a line of the shell
    kUsageError = 2,  ///< the words make no command
};

/// Sets an app up, before commands are added, which take the settings over.
void prepare(CLI::App& app);

/// Lets the app parse the words, which runs the command that they name. What went wrong is told on
/// `errors`, or in the report where that is JSON; help that was asked for goes to standard output
/// and counts as done.
Outcome runCommand(CLI::App& app, std::vector<std::string> words, Report& report,
                   std::ostream& errors);

/// The command "help [COMMAND ...]" of an app.
void addHelp(CLI::App& app);

}  // namespace tez::client
