#include <cstdio>
#include <io.h>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "commands/commands.h"
#include "failure.h"
#include "output.h"
#include "run_command.h"

namespace tez::client {
namespace {

constexpr const char* kPrompt = "pcsc> ";

/// Words are separated by spaces; one with spaces inside stands in double quotes.
std::vector<std::string> splitWords(const std::string& line) {
    std::istringstream input(line);
    std::vector<std::string> words;
    for (std::string word; input >> std::quoted(word);) {
        words.push_back(word);
    }
    return words;
}

/// @return whether the line did all that it says.
bool runLine(Session& session, const std::vector<std::string>& words, bool& quit) {
    CLI::App app("Each line is one command; words with spaces stand in double quotes.");
    app.name("");
    for (const AddCommand add : kCommands) {
        add(app, session);
    }
    for (const AddCommand add : kShellCommands) {
        add(app, session);
    }
    app.add_subcommand("help", "List the commands")->callback([&app] {
        // Not app.help(), which would be about the command that was given, "help" itself.
        print(app.get_formatter()->make_help(&app, "", CLI::AppFormatMode::Normal));
    });
    app.add_subcommand("quit", "End the shell")->callback([&quit] { quit = true; });
    return runCommand(app, words, std::cout) == Outcome::kDone;
}

/// Runs the lines of standard input up to its end or "quit".
/// @return whether all of them did what they say.
bool runShell(Session& session) {
    // A line that is typed stands on the screen already; one that comes from elsewhere is shown.
    const bool isTyped = _isatty(_fileno(stdin)) != 0;
    bool succeeded = true;
    bool quit = false;
    std::string line;
    while (!quit) {
        if (isTyped) {
            print(kPrompt);
        }
        if (!std::getline(std::cin, line)) {
            break;
        }
        if (!isTyped) {
            printLine(kPrompt + line);
        }
        const auto words = splitWords(line);
        if (!words.empty()) {
            succeeded = runLine(session, words, quit) && succeeded;
        }
    }
    return succeeded;
}

}  // namespace

void addShell(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand(
        "shell", "Run commands from standard input, one a line, in one PC/SC context");
    command->callback([&session] {
        if (!runShell(session)) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
