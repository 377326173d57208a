#pragma once

#include <vector>

#include "daemon_simulator.h"

namespace tez::test {

/// The commands that a daemon received, in order.
inline std::vector<Command> receivedCommands(const DaemonSimulator& daemon) {
    std::vector<Command> commands;
    for (const Request& request : daemon.requests()) {
        commands.push_back(request.command);
    }
    return commands;
}

}  // namespace tez::test
