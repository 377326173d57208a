#pragma once

#include "client_fixture.h"
#include "daemon_simulator.h"

namespace tez::test {

inline constexpr const char* kReader = "Remote Reader 0";

/// With a daemon in this process, which can be told what to answer. Its reader holds a card of T=0.
class ClientWithOwnDaemon : public ClientFixture {
  protected:
    ClientWithOwnDaemon() {
        service.addReader(kReader);
        service.insertCard(kReader, makeDemoCard("Remote User", protocol::kT0));
        daemon.start();
    }

    /// A command of the client for the card.
    static std::string onCard(const std::string& command, const std::string& more = "") {
        return command + " \"" + kReader + "\" " + more;
    }

    SimulatedService service;
    DaemonSimulator daemon{service};
};

}  // namespace tez::test
