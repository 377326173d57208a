#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/listener.h"
#include "agent/relay_stream.h"
#include "core/daemon.h"
#include "link/hello.h"
#include "link/token.h"

namespace tez::agent {

/// Serves relays that show their half of the token: each of their connections is a client of the
/// daemon, but for the one that carries the heartbeat. When that one ends, or is silent, its relay
/// or the tunnel is gone and all others of the relay end, too.
class Agent {
  public:
    /// Both are borrowed.
    Agent(pcscd::Daemon& daemon, const link::Token& token) : daemon_(daemon), token_(token) {}
    /// Ends all connections.
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// Serves until `stop`, a descriptor, becomes readable.
    void run(const Listener& listener, int stop);

  private:
    struct Connection {
        explicit Connection(FileDescriptor socket) : stream(std::move(socket)) {}
        std::optional<RelayStream> stream;        // until it has ended
        std::optional<std::uint32_t> relay = {};  // once it has said so
        bool isRelay = false;                     // the relay's own, with the heartbeat
        std::thread thread;
    };

    void serve(Connection& connection, std::uint64_t number, const std::string& name);
    bool admit(Connection& connection, const link::Origin& origin);
    static void serveControl(RelayStream& stream);
    void closeAllOf(std::uint32_t relay);
    void removeEnded();

    pcscd::Daemon& daemon_;
    const link::Token token_;
    std::mutex mutex_;  // guards what follows
    std::list<Connection> connections_;
    std::list<Connection*> newcomers_;  // of them, in their order: those that have shown no token
    std::uint64_t accepted_ = 0;
};

}  // namespace tez::agent
