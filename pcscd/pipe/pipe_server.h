#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "pipe/waiting_instance.h"

namespace tez::pcscd {

/// Serves a named pipe, which exists for as long as this does, to any number of clients, each on a
/// thread of its own.
class PipeServer {
  public:
    struct Settings {
        std::string name = R"(\\.\pipe\tez-pcscd-0)";
        SECURITY_ATTRIBUTES* access = nullptr;  ///< borrowed; null: what the system gives
        DWORD bufferSize = 4096;                ///< bytes that a client can write unread
        /// A client beyond them finds the pipe busy. With fewer than two the pipe's name is gone
        /// for a moment whenever the only connection ends.
        DWORD maxInstances = PIPE_UNLIMITED_INSTANCES;
        /// ms that a client waits when it asks for the server's default. Enough to make instances
        /// for a rush of them.
        DWORD busyWait = 5000;
    };
    /// Told, on any thread, of a client that cannot be served.
    using Complain = std::function<void(const std::string&)>;

    /// Serves one client on the instance that it has connected to. It must return soon after `end`,
    /// an event, is set. Throws std::exception when it cannot serve.
    using Serve = std::function<void(UniqueHandle instance, HANDLE end)>;

    /// When it has returned a client can connect. Throws std::system_error when the pipe cannot be
    /// made, which is so when another program has one of the name.
    PipeServer(Settings settings, Serve serve, Complain complain);
    /// Closes, and waits for the clients' threads.
    ~PipeServer();
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;

    /// Takes no more clients, and sets `end` for those that there are. To be called by one thread.
    void close();

  private:
    /// With a single one a client that comes while its successor is being made finds the pipe busy,
    /// and the pipe's name is gone when the only client's end takes the only instance along.
    static constexpr std::size_t kWaiting = 4;

    struct Worker {
        std::atomic<bool> ended = false;
        std::thread thread;
    };
    using Waiting = std::unique_ptr<WaitingInstance>;

    Waiting makeInstance(bool first) const;
    bool fillUp();
    void acceptClients();
    void startWorker(UniqueHandle instance);
    void turnAway(const std::exception& failure) const;

    const Settings settings_;
    const Serve serve_;
    const Complain complain_;
    const UniqueHandle end_ = makeEvent();

    // The accepting thread's.
    std::array<Waiting, kWaiting> waiting_;  // null: could not be made yet
    std::list<Worker> workers_;
    std::thread acceptor_;
};

}  // namespace tez::pcscd
