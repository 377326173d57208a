#include <iostream>

#include "commands/commands.h"
#include "console_streams.h"
#include "run_command.h"
#include "utf8.h"

using namespace tez::client;

int wmain(int argc, wchar_t** argv) {
    tez::tools::useConsoleStreams();
    Client client;
    CLI::App app(
        "A PC/SC command-line client.\n"
        "Exit code: 0 when everything succeeded, 1 when something failed, 2 for a usage error.");
    app.name("pcsc-client");
    prepare(app);
    app.set_version_flag("--version", "pcsc-client " TEZ_VERSION, "print the version");
    for (const AddCommand add : kCommands) {
        add(app, client);
    }
    addShell(app, client);
    addHelp(app);
    // Behind the command and before its result is told, which a failure here makes one, too.
    app.callback([&client] { client.session.close(); });
    return static_cast<int>(
        runCommand(app, tez::tools::utf8Arguments(argc, argv), client.report, std::cerr));
}
