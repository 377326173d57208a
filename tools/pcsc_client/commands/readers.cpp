#include <memory>

#include "commands/commands.h"
#include "reader_sides.h"

namespace tez::client {
namespace {

void tellReaders(Client& client) {
    const std::vector<std::string> names = client.session.readers();
    const ReaderSides sides = ReaderSides::ask();
    Json list = Json::array();
    for (std::size_t index = 0; index < names.size(); ++index) {
        const std::string& name = names[index];
        const std::string side = sideName(sides.of(name));
        std::string line = "[" + std::to_string(index) + "] ";
        line.append(name).append("  (").append(side).append(")");
        client.report.line(line);
        list.push_back({{"index", index}, {"name", name}, {"side", side}});
    }
    if (names.empty()) {
        client.report.line("no readers");
    }
    client.report.data()["readers"] = std::move(list);
}

void tellGroups(Client& client) {
    const std::vector<std::string> groups = client.session.readerGroups();
    for (const std::string& group : groups) {
        client.report.line("group " + group);
    }
    client.report.data()["groups"] = groups;
}

}  // namespace

void addReaders(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand("readers", "List the readers and their sides");
    const auto groups = std::make_shared<bool>(false);
    command->add_flag("--groups", *groups, "list the reader groups, too");
    client.report.addJsonOption(*command);
    command->callback([&client, groups] {
        tellReaders(client);
        if (*groups) {
            tellGroups(client);
        }
    });
}

}  // namespace tez::client
