#pragma once

#include <winsock2.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "link/hello.h"
#include "relay/agent_stream.h"

namespace tez::test {

using Bytes = std::vector<std::uint8_t>;

/// The agent's end of one stream, behind the hellos.
class AgentConnection {
  public:
    AgentConnection(SOCKET socket, std::uint32_t processId)
        : socket_(socket), processId_(processId) {}

    std::uint32_t processId() const { return processId_; }

    /// What there is, 64 KiB at most; empty at the end.
    Bytes read() const;
    /// As many bytes; fewer at the end.
    Bytes read(std::size_t count) const;
    /// As they are. False when the stream broke.
    bool send(std::span<const std::uint8_t> bytes) const;
    /// In a frame.
    bool sendPiece(std::span<const std::uint8_t> piece) const;
    void finishSending() const;
    /// Ends what is being read or sent, too.
    void close() const;

  private:
    Bytes readSome(std::size_t most) const;

    const SOCKET socket_;
    const std::uint32_t processId_;
};

/// An agent that does with each stream what the test wants; by itself it sends what comes back in
/// frames, on the control stream too.
class FakeAgent {
  public:
    using Serve = std::function<void(AgentConnection&)>;

    /// Takes a free port of the loopback address, but does not listen yet.
    FakeAgent();
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    std::uint16_t port() const { return port_; }
    static link::Token token();

    void start();
    /// Breaks all streams, as a tunnel that is cut does, and joins all threads.
    void stop();

    // For streams to come.
    void onClient(Serve serve);
    void onControl(Serve serve);
    /// What it answers to a hello instead of its own; nothing: it closes the stream.
    void answerHelloWith(std::optional<Bytes> answer);

    static void echo(AgentConnection& connection);

    /// Waits until this many streams of clients have ended. False when they do not in time.
    bool waitForEndedClients(std::size_t count) const;

  private:
    struct Stream {
        relay::Socket socket;
        std::thread thread;
    };

    void acceptStreams();
    void run(SOCKET socket);
    void serve(SOCKET socket);

    std::uint16_t port_ = 0;
    relay::Socket listener_;
    std::thread acceptor_;

    mutable std::mutex mutex_;  // guards what follows
    mutable std::condition_variable changed_;
    std::list<Stream> streams_;
    Serve serveClient_ = echo;
    Serve serveControl_ = echo;
    std::optional<Bytes> helloAnswer_;
    std::size_t endedClients_ = 0;
};

}  // namespace tez::test
