#include "run_command.h"

#include <algorithm>
#include <exception>
#include <iostream>

#include "failure.h"

namespace tez::client {

Outcome runCommand(CLI::App& app, std::vector<std::string> words, std::ostream& errors) {
    app.require_subcommand(1);
    app.allow_windows_style_options(false);
    // The parser would only say that it misses a command.
    const auto isNamed = [&words](const CLI::App* command) {
        return command->check_name(words.front());
    };
    if (!words.empty() && !words.front().starts_with('-') && app.get_subcommands(isNamed).empty()) {
        errors << "unknown command: " << words.front() << std::endl;
        return Outcome::kUsageError;
    }
    std::reverse(words.begin(), words.end());  // the order that the parser takes them in
    try {
        app.parse(std::move(words));
        return Outcome::kDone;
    } catch (const CLI::ParseError& error) {
        const bool isHelp = app.exit(error, std::cout, errors) == 0;
        std::cout << std::flush;
        errors << std::flush;
        return isHelp ? Outcome::kDone : Outcome::kUsageError;
    } catch (const Failure& failure) {
        if (*failure.what() != '\0') {
            errors << "error: " << failure.what() << std::endl;
        }
        return Outcome::kFailed;
    } catch (const std::exception& error) {
        // Nothing that one line of the shell does may end the lines to come.
        errors << "error: " << error.what() << std::endl;
        return Outcome::kFailed;
    }
}

}  // namespace tez::client
