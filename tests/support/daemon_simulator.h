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

#include "core/traffic.h"
#include "pcscd_names.h"
#include "pipe/pipe_daemon.h"
#include "simulated/simulated_service.h"

namespace tez::test {

/// A PC/SC daemon on a named pipe that remembers all that it received, and can be told to behave
/// otherwise than a daemon does. Every member may be called from any thread; start and stop from
/// one at a time.
class DaemonSimulator final : public PipeDaemon {
  public:
    struct Options {
        ProtocolVersion version;
        PipeServer::Settings pipe;
    };

    /// Called from the simulator's threads as things happen; must not call start or stop.
    struct Observer {
        std::function<void(const Handshake&)> handshake;
        std::function<void(std::uint64_t connection)> disconnected;
    };

    /// Decides what happens to a request; nullopt leaves it to the daemon. Runs on the
    /// connection's own thread, so blocking in it blocks that connection only, but stop() too.
    using Handler = std::function<std::optional<Reply>(const Request&)>;
    using Timeout = std::chrono::milliseconds;

    /// Does not serve yet. The service is borrowed and must outlive the simulator.
    explicit DaemonSimulator(CardService& service);
    DaemonSimulator(CardService& service, Options options);
    /// Stops.
    ~DaemonSimulator() override;
    DaemonSimulator(const DaemonSimulator&) = delete;
    DaemonSimulator& operator=(const DaemonSimulator&) = delete;

    /// As PipeDaemon::stop. Records, handlers and settings stay.
    void stop();

    /// False: handshakes that come after the call get no answer (the connection stays open).
    void setReplyVersion(bool reply);
    /// Replaces the behaviour for one command, whether the daemon knows it or not.
    void on(Command command, Handler handler);
    /// Takes such a replacement back.
    void restore(Command command);
    void setObserver(Observer observer);

    /// Stops reading from every connection, present and future: once it returns nothing more is
    /// taken from any pipe, so that clients' writes stall when the pipe's buffer is full (see
    /// PipeServer::Settings::bufferSize). Handshakes of new connections stall too.
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

  protected:
    void opened(std::uint64_t connection) override;
    void closed(std::uint64_t connection) override;
    Reply greet(const Handshake& handshake) override;
    Reply answer(const Request& request, Clients::Process process) override;

  private:
    void noteProgress();
    Observer observer() const;

    mutable std::mutex mutex_;  // guards what follows
    mutable std::condition_variable progressed_;
    std::uint64_t progress_ = 0;
    bool replyVersion_ = true;
    Observer observer_;
    std::map<Command, Handler> handlers_;
    std::vector<Handshake> handshakes_;
    std::vector<Request> requests_;
};

}  // namespace tez::test
