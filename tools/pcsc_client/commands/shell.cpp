#include <iostream>
#include <string>

#include "commands/commands.h"
#include "console_streams.h"
#include "failure.h"
#include "output.h"
#include "run_command.h"
#include "words.h"

namespace tez::client {
namespace {

constexpr const char* kPrompt = "pcsc> ";

Outcome runLine(Client& client, const std::vector<std::string>& words, bool& quit) {
    CLI::App app(
        "Each line is one command; words with spaces stand in double quotes, # begins a comment.");
    app.name("");
    prepare(app);
    for (const AddCommand add : kCommands) {
        add(app, client);
    }
    for (const AddCommand add : kShellCommands) {
        add(app, client);
    }
    addHelp(app);
    for (const char* name : {"quit", "exit"}) {
        app.add_subcommand(name, "End the shell")->callback([&quit] { quit = true; });
    }
    return runCommand(app, words, client.report, std::cout);
}

Outcome runLine(Client& client, const std::string& line, bool& quit) {
    try {
        const std::vector<std::string> words = splitWords(line);
        return words.empty() ? Outcome::kDone : runLine(client, words, quit);
    } catch (const Failure& failure) {
        printLine(std::string("error: ") + failure.what());
        return Outcome::kUsageError;
    }
}

/// Runs the lines of standard input up to its end or "quit", and, unless they are typed, up to a
/// usage error: a PIN that its command would have read would be shown as the next line.
/// @return whether all of them did what they say.
bool runShell(Client& client) {
    // A line that is typed stands on the screen already; one that comes from elsewhere is shown.
    const bool isTyped = tools::isInputTyped();
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
        const Outcome outcome = runLine(client, line, quit);
        succeeded = succeeded && outcome == Outcome::kDone;
        if (!isTyped && outcome == Outcome::kUsageError) {
            printLine("the shell ends here: the next line may be what this one was to read");
            break;
        }
    }
    return succeeded;
}

}  // namespace

void addShell(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "shell", "Run commands from standard input, one a line, in one PC/SC context");
    command->callback([&client] {
        const bool succeeded = runShell(client);
        client.report.begin();  // the last line has told its own
        if (!succeeded) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
