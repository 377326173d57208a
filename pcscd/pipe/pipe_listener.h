#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "pipe/pipe_connection.h"
#include "pipe/pipe_server.h"

namespace tez::pcscd {

/// Serves a pipe again and again, and knows the connections that are open.
class PipeListener {
  public:
    /// Serves one client; the connection is closed when it returns. Throws std::exception when it
    /// cannot.
    using Serve = std::function<void(PipeConnection&)>;

    PipeListener(PipeServer::Settings settings, Serve serve)
        : settings_(std::move(settings)), serve_(std::move(serve)) {}
    ~PipeListener();
    PipeListener(const PipeListener&) = delete;
    PipeListener& operator=(const PipeListener&) = delete;

    /// When it returns a client can connect. Throws std::system_error when the pipe cannot be made
    /// or is served by another one already. Nothing while serving.
    void start();
    /// Takes no more clients and closes all pipes, without waiting for the `serve` calls to return.
    void close();
    /// Closes one connection, not waiting for its `serve` either. False when it is not open.
    bool close(std::uint64_t connection);
    void closeConnections();
    /// Counts a connection that has closed its pipe as open no more, though `serve` goes on.
    void forget(std::uint64_t connection);
    /// Waits for all threads, after close().
    void join() { server_.reset(); }
    bool serving() const;

    /// Applies to the connections that there are and those to come.
    void pauseReading();
    void resumeReading();

    /// Null when the connection is not open.
    std::shared_ptr<PipeConnection> find(std::uint64_t connection) const;
    std::vector<std::uint64_t> open() const;
    std::uint64_t accepted() const;

  private:
    using Connections = std::map<std::uint64_t, std::shared_ptr<PipeConnection>>;

    void setServing(bool serving);
    std::shared_ptr<PipeConnection> enter(UniqueHandle instance);
    void serve(UniqueHandle instance);

    const PipeServer::Settings settings_;
    const Serve serve_;

    mutable std::mutex mutex_;  // guards what follows, but for the server
    bool serving_ = false;
    bool paused_ = false;
    std::uint64_t accepted_ = 0;
    Connections open_;
    std::optional<PipeServer> server_;  // the last one: its threads use the others
};

}  // namespace tez::pcscd
