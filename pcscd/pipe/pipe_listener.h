#pragma once

#include <windows.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pipe/pipe_connection.h"

namespace tez::pcscd {

struct PipeOptions {
    std::string name = R"(\\.\pipe\tez-pcscd-0)";
    DWORD bufferSize = 4096;  ///< bytes that a client can write unread
    /// A client beyond them finds the pipe busy. With fewer than two the pipe's name is gone for a
    /// moment whenever the only connection ends.
    DWORD maxInstances = PIPE_UNLIMITED_INSTANCES;
    DWORD busyWait = 5000;  ///< ms that a client waits when it asks for the server's default
};

/// Serves a byte-mode named pipe to any number of clients, each on a thread of its own.
class PipeListener {
  public:
    /// Serves one client; the connection is closed when it returns.
    using Serve = std::function<void(PipeConnection&)>;

    PipeListener(PipeOptions options, Serve serve);
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
    void join();
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

    UniqueHandle claimName() const;
    UniqueHandle createInstance(bool first) const;
    UniqueHandle createInstanceWhenFree();
    void listen(UniqueHandle instance);
    bool waitForClient(HANDLE instance) const;
    void accept(UniqueHandle instance);
    void run(const std::shared_ptr<PipeConnection>& connection);

    const PipeOptions options_;
    const Serve serve_;
    const UniqueHandle stop_;  // manual-reset event: the accepting thread is to end
    UniqueHandle claim_;       // while serving: keeps a second listener off the pipe's name
    std::thread acceptor_;

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable connectionEnded_;
    bool serving_ = false;
    bool paused_ = false;
    std::uint64_t accepted_ = 0;
    Connections open_;
    std::vector<std::thread> workers_;
};

}  // namespace tez::pcscd
