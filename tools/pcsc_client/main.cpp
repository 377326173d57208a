#include <iostream>

#include "commands/commands.h"
#include "console_streams.h"
#include "failure.h"
#include "run_command.h"
#include "utf8.h"

using namespace tez::client;

namespace {

/// Ends the session; a failure there makes the whole run one.
Outcome closeSession(Session& session, Outcome outcome) {
    try {
        session.close();
        return outcome;
    } catch (const Failure& failure) {
        std::cerr << "error: " << failure.what() << '\n';
        return outcome == Outcome::kDone ? Outcome::kFailed : outcome;
    }
}

}  // namespace

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
    const Outcome outcome =
        runCommand(app, tez::tools::utf8Arguments(argc, argv), client.report, std::cerr);
    return static_cast<int>(closeSession(client.session, outcome));
}
