#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/commands.h"
#include "core/traffic.h"
#include "pipe/pipe_listener.h"
#include "simulated/simulated_service.h"

namespace tez::test {

/// A PC/SC daemon on a named pipe: it speaks the daemon's protocol with any number of clients at
/// once, serves them from a SimulatedService, remembers all that it received, and can be told to
/// behave otherwise. Every member may be called from any thread; start and stop from one at a time.
///
/// Like the daemon that it stands for it keeps a client's contexts when the client's pipe closes:
/// they go with RELEASE_CONTEXT or with stop().
class DaemonSimulator {
  public:
    struct Options {
        ProtocolVersion version;
        PipeOptions pipe;
    };

    /// Called from the simulator's threads as things happen; must not call start or stop.
    struct Observer {
        std::function<void(std::uint64_t connection)> connected;
        std::function<void(const Handshake&)> handshake;
        std::function<void(const Request&)> request;
        std::function<void(std::uint64_t connection)> disconnected;
    };

    /// Decides what happens to a request; nullopt leaves it to the simulator. Runs on the
    /// connection's own thread, so blocking in it blocks that connection only, but stop() too.
    using Handler = std::function<std::optional<Reply>(const Request&)>;
    using Timeout = std::chrono::milliseconds;

    /// Does not serve yet. The service is borrowed and must outlive the simulator.
    explicit DaemonSimulator(SimulatedService& service);
    DaemonSimulator(SimulatedService& service, Options options);
    /// Stops.
    ~DaemonSimulator();
    DaemonSimulator(const DaemonSimulator&) = delete;
    DaemonSimulator& operator=(const DaemonSimulator&) = delete;

    /// Serves the pipe: when it returns a client can connect. Throws std::system_error when the
    /// pipe cannot be made, for instance because another program serves it. Nothing while serving.
    void start();
    /// Closes every pipe at once, ends all waits, releases every context of the service and joins
    /// all threads. Records, handlers and settings stay. Nothing when not serving.
    void stop();
    bool serving() const;

    /// For handshakes that come after the call.
    void setVersion(std::uint32_t major, std::uint32_t minor);
    /// False: handshakes that come after the call get no answer (the connection stays open).
    void setReplyVersion(bool reply);
    /// Replaces the behaviour for one command, whether the simulator knows it or not.
    void on(Command command, Handler handler);
    /// Takes such a replacement back.
    void restore(Command command);
    void setObserver(Observer observer);

    /// Stops reading from every connection, present and future: once it returns nothing more is
    /// taken from any pipe, so that clients' writes stall when the pipe's buffer is full (see
    /// PipeOptions::bufferSize). Handshakes of new connections stall too.
    void pauseReading();
    void resumeReading();

    /// Writes bytes of the test's own, with one WriteFile per block, whatever the connection is
    /// doing. False when the connection is not open or the write failed.
    bool send(std::uint64_t connection, const std::vector<Bytes>& blocks);
    /// Closes one connection, busy or idle; the listener goes on. False when it is not open.
    bool closeConnection(std::uint64_t connection);
    void closeAllConnections();
    std::vector<std::uint64_t> openConnections() const;
    /// How many connections there have ever been.
    std::uint64_t acceptedConnections() const;

    // All that was received, in order of arrival.
    std::vector<Handshake> handshakes() const;
    std::vector<Request> requests() const;
    std::vector<Request> requests(Command command) const;
    void clearRecords();

    /// Waits until `count` requests of this command are on record. False when the time is over.
    bool waitForRequest(Command command, std::size_t count, Timeout timeout) const;
    /// Waits until the predicate holds, which is asked (without any lock held) whenever a
    /// connection opened or closed, or something was received or answered. False when the time is
    /// over.
    bool waitUntil(const std::function<bool()>& predicate, Timeout timeout) const;

  private:
    void serve(PipeConnection& pipe);
    std::optional<ProtocolVersion> shakeHands(PipeConnection& pipe);
    bool serveRequest(PipeConnection& pipe, ProtocolVersion version);
    Reply replyTo(const Request& request);
    void noteProgress();
    Observer observer() const;

    SimulatedService& service_;
    DaemonCommands commands_;
    PipeListener listener_;

    mutable std::mutex mutex_;  // guards what follows
    mutable std::condition_variable progressed_;
    std::uint64_t progress_ = 0;
    ProtocolVersion version_;
    bool replyVersion_ = true;
    Observer observer_;
    std::map<Command, Handler> handlers_;
    std::vector<Handshake> handshakes_;
    std::vector<Request> requests_;
};

}  // namespace tez::test
