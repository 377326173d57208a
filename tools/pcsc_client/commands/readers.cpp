#include <memory>

#include "commands/commands.h"
#include "output.h"

namespace tez::client {

void addReaders(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand("readers", "List the readers");
    const auto groups = std::make_shared<bool>(false);
    command->add_flag("--groups", *groups, "list the reader groups, too");
    command->callback([&session, groups] {
        const auto names = session.readers();
        for (std::size_t index = 0; index < names.size(); ++index) {
            printLine("[" + std::to_string(index) + "] " + names[index]);
        }
        if (names.empty()) {
            printLine("no readers");
        }
        if (*groups) {
            for (const std::string& group : session.readerGroups()) {
                printLine("group " + group);
            }
        }
    });
}

}  // namespace tez::client
