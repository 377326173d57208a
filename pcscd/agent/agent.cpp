#include "agent/agent.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "agent/log.h"

namespace tez::agent {
namespace {

// A program has some ten connections, each of which takes two threads here. Of the 1024 descriptors
// that a process usually has, as many are left for the cards.
constexpr std::size_t kMostConnections = 500;

// A relay's own connection counts by itself, or the programs of one could keep another out.
constexpr std::size_t kMostRelays = 20;

// Connections that have shown no token count by themselves, or whoever reaches the socket could
// keep out those who have it. It is enough for all connections of a host's programs at once; the
// wait for a hello is one trip through the tunnel.
constexpr std::size_t kMostNewcomers = 100;

}  // namespace

Agent::~Agent() {
    {
        const std::scoped_lock lock(mutex_);
        for (Connection& connection : connections_) {
            if (connection.stream) {
                connection.stream->close();
            }
        }
    }
    // Ends the waits of all clients, so that nobody lingers.
    daemon_.releaseAll();
    for (Connection& connection : connections_) {
        connection.thread.join();
    }
}

void Agent::removeEnded() {
    std::list<Connection> ended;
    {
        const std::scoped_lock lock(mutex_);
        for (auto each = connections_.begin(); each != connections_.end();) {
            const auto next = std::next(each);
            if (!each->stream) {
                ended.splice(ended.end(), connections_, each);
            }
            each = next;
        }
    }
    for (Connection& connection : ended) {
        connection.thread.join();
    }
}

void Agent::run(const Listener& listener, int stop) {
    while (FileDescriptor socket = listener.accept(stop)) {
        removeEnded();
        const std::scoped_lock lock(mutex_);
        if (newcomers_.size() == kMostNewcomers) {
            newcomers_.front()->stream->close();
            newcomers_.pop_front();
        }
        Connection& connection = connections_.emplace_back(std::move(socket));
        newcomers_.push_back(&connection);
        const std::string name = "connection " + std::to_string(++accepted_) + ": ";
        try {
            connection.thread = std::thread([this, &connection, name, number = accepted_] {
                try {
                    serve(connection, number, name);
                } catch (const std::exception& error) {
                    logLine(name + "closed, " + error.what());
                }
                // Its descriptor may be the one that the next connection needs.
                const std::scoped_lock ending(mutex_);
                newcomers_.remove(&connection);
                connection.stream.reset();
            });
        } catch (const std::exception& error) {
            logLine(name + "closed, " + error.what());
            newcomers_.pop_back();
            connections_.pop_back();
        }
    }
}

void Agent::serve(Connection& connection, std::uint64_t number, const std::string& name) {
    RelayStream& stream = *connection.stream;
    std::array<std::uint8_t, link::kRelayHelloSize> hello{};
    stream.limitReads(link::kHelloLimit);
    if (stream.read(hello) != hello.size()) {
        logLine(name + "closed, it showed no token");
        return;
    }
    const auto [greeting, origin] = link::decodeRelayHello(hello, token_);
    if (greeting != link::Greeting::accepted) {
        logLine(name + (greeting == link::Greeting::wrongToken
                            ? "closed, it showed a wrong token"
                            : "closed, it is no relay of this version"));
        return;
    }
    if (!admit(connection, origin)) {
        logLine(name + "closed, there are too many");
        return;
    }
    if (!stream.writeRaw(link::encodeAgentHello(token_))) {
        return;
    }
    if (origin.processId == link::kControlProcess) {
        logLine(name + "a relay is there");
        serveControl(stream);
        closeAllOf(origin.relay);
        logLine(name + "the relay is gone");
        return;
    }
    logDetail(name + "process " + std::to_string(origin.processId));
    stream.limitReads(std::nullopt);
    daemon_.serve(stream, number, pcscd::Clients::Process{origin.relay} << 32 | origin.processId);
    logDetail(name + "ended");
}

/// Counts a connection that has shown the token. False when there are too many of its kind.
bool Agent::admit(Connection& connection, const link::Origin& origin) {
    const std::scoped_lock lock(mutex_);
    const bool isRelay = origin.processId == link::kControlProcess;
    const auto admitted = std::ranges::count_if(connections_, [&](const Connection& each) {
        return each.stream && each.relay && each.isRelay == isRelay;
    });
    if (static_cast<std::size_t>(admitted) >= (isRelay ? kMostRelays : kMostConnections)) {
        return false;
    }
    newcomers_.remove(&connection);
    connection.relay = origin.relay;
    connection.isRelay = isRelay;
    return true;
}

void Agent::serveControl(RelayStream& stream) {
    stream.limitReads(link::kSilenceLimit);
    std::uint8_t beat = 0;
    while (stream.read({&beat, 1}) == 1 && stream.write({&beat, 1})) {
    }
}

void Agent::closeAllOf(std::uint32_t relay) {
    const std::scoped_lock lock(mutex_);
    for (Connection& connection : connections_) {
        if (connection.stream && connection.relay == relay) {
            connection.stream->close();
        }
    }
}

}  // namespace tez::agent
