// The library in use by several programs at once, with a daemon that fails in every way it can: see
// scripts/soak.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <random>

#include "client.h"
#include "daemon.h"
#include "environment.h"
#include "pipe/unique_handle.h"
#include "run.h"

namespace tez::soak {
namespace {

int runProgram(int argc, const char* const* argv) {
    CLI::App app("Uses the library as several programs do, while the daemon fails.");
    Options options;
    options.seed = std::random_device{}();
    app.add_option("--minutes", options.minutes)->check(CLI::PositiveNumber);
    app.add_option("--seed", options.seed, "decides all choices");
    app.add_option("--patience", options.patience,
                   "seconds until an event that was not told is lost");
    app.add_option("--json", options.json,
                   "file for the figures; the samples go beside it as .dat");
    app.add_flag("--progress", options.showsProgress, "shows it on one line");

    // What the program starts itself again for.
    std::string boardName;
    std::size_t index = 0;
    DWORD parent = 0;
    CLI::App* const daemon = app.add_subcommand("daemon")->group("");
    daemon->add_option("board", boardName)->required();
    CLI::App* const client = app.add_subcommand("client")->group("");
    client->add_option("board", boardName)->required();
    client->add_option("index", index)->required()->check(CLI::Range(std::size_t{0}, kClients - 1));
    client->add_option("parent", parent)->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::Error& error) {
        return app.exit(error);
    }

    if (GetEnvironmentVariableA("TEZ_PCSC_LOG_LEVEL", nullptr, 0) == 0) {
        test::setEnvironment("TEZ_PCSC_LOG_LEVEL", "error");
    }
    if (*daemon) {
        Board board(boardName);
        return runDaemon(board);
    }
    if (*client) {
        Board board(boardName);
        const pcscd::UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, parent));
        return runClient(*board, index, process.get());
    }
    return run(options) ? 0 : 1;
}

}  // namespace
}  // namespace tez::soak

int main(int argc, char** argv) {
    try {
        return tez::soak::runProgram(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        return 1;
    }
}
