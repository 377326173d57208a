#include "agent/agent.h"

#include <exception>
#include <utility>

#include "agent/log.h"
#include "link/hello.h"

namespace tez::agent {
namespace {

// A program has some ten connections, each of which takes two threads here. Of the 1024 descriptors
// that a process usually has, as many are left for the cards.
constexpr std::size_t kMostConnections = 500;

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
        if (connections_.size() == kMostConnections) {
            logLine("closed a connection, there are too many");
            continue;
        }
        Connection& connection = connections_.emplace_back(std::move(socket));
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
                connection.stream.reset();
            });
        } catch (const std::exception& error) {
            logLine(name + "closed, " + error.what());
            connections_.pop_back();
        }
    }
}

void Agent::serve(Connection& connection, std::uint64_t number, const std::string& name) {
    RelayStream& stream = *connection.stream;
    std::array<std::uint8_t, link::kRelayHelloSize> hello{};
    stream.limitSilence(link::kHelloLimit);
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
    {
        const std::scoped_lock lock(mutex_);
        connection.relay = origin.relay;
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
    stream.limitSilence(std::nullopt);
    daemon_.serve(stream, number, pcscd::Clients::Process{origin.relay} << 32 | origin.processId);
    logDetail(name + "ended");
}

void Agent::serveControl(RelayStream& stream) {
    stream.limitSilence(link::kSilenceLimit);
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
