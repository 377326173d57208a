#include "run_command.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <sstream>

#include "failure.h"
#include "output.h"
#include "suggestion.h"

namespace tez::client {
namespace {

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

/// Null when there is none of that name.
const CLI::App* findCommand(const CLI::App& app, const std::string& name) {
    const std::vector<const CLI::App*> commands = commandsOf(app);
    const auto found = std::find_if(commands.begin(), commands.end(), [&](const CLI::App* command) {
        return command->get_name() == name;
    });
    return found == commands.end() ? nullptr : *found;
}

/// The parser would only say that it misses a command.
std::string unknownCommand(const CLI::App& app, const std::string& word) {
    std::vector<std::string> names;
    for (const CLI::App* command : commandsOf(app)) {
        names.push_back(command->get_name());
    }
    const std::string meant = suggest(word, names);
    return "unknown command: " + word + (meant.empty() ? "" : "; did you mean " + meant + "?");
}

Outcome fail(Report& report, std::ostream& errors, const Failure& failure) {
    if (!report.isJson() && *failure.what() != '\0') {
        errors << "error: " << failure.what() << std::endl;
    }
    try {
        report.finish(false, &failure);
    } catch (const Failure& unwritten) {
        errors << "error: " << unwritten.what() << std::endl;
    }
    return Outcome::kFailed;
}

/// Lets the app parse the words, the last one first, which runs the command. Throws what the
/// command throws, and Failure when its result or its help cannot be written.
Outcome parse(CLI::App& app, std::vector<std::string> words, Report& report, std::ostream& errors) {
    try {
        app.parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        std::ostringstream help;
        if (app.exit(error, help, errors) == 0) {
            print(help.str());
            return Outcome::kDone;
        }
        errors << std::flush;
        return Outcome::kUsageError;
    }
    report.finish(true);
    return Outcome::kDone;
}

}  // namespace

void prepare(CLI::App& app) {
    app.require_subcommand(1);
    app.allow_windows_style_options(false);  // a path may begin with a slash
}

Outcome runCommand(CLI::App& app, std::vector<std::string> words, Report& report,
                   std::ostream& errors) {
    report.begin();
    if (!words.empty() && !words.front().starts_with('-') &&
        findCommand(app, words.front()) == nullptr) {
        errors << unknownCommand(app, words.front()) << std::endl;
        return Outcome::kUsageError;
    }
    std::reverse(words.begin(), words.end());  // the order that the parser takes them in
    try {
        return parse(app, std::move(words), report, errors);
    } catch (const Failure& failure) {
        return fail(report, errors, failure);
    } catch (const std::exception& error) {
        // Nothing that one line of the shell does may end the lines to come.
        return fail(report, errors, Failure(error.what()));
    }
}

void addHelp(CLI::App& app) {
    CLI::App* const help = app.add_subcommand("help", "List the commands, or tell about one");
    const auto names = std::make_shared<std::vector<std::string>>();
    help->add_option("COMMAND", *names, "the command, and one of its own commands");
    help->callback([&app, names] {
        const CLI::App* described = &app;
        for (const std::string& name : *names) {
            const CLI::App* const command = findCommand(*described, name);
            if (command == nullptr) {
                throw Failure(unknownCommand(*described, name));
            }
            described = command;
        }
        // Not App::help(), which would be about the command that was given, "help" itself.
        const std::string name =
            described == &app ? "" : app.get_name() + " " + described->get_name();
        print(app.get_formatter()->make_help(described, name, CLI::AppFormatMode::Normal));
    });
}

}  // namespace tez::client
